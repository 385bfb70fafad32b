// The generator: x[i] = x[i-31] + x[i-3] (mod 2^32), output x[i] >> 1, kept
// in place in a table of 31 words where each sum overwrites its older term. The
// 31 seed words come from the minimal-standard multiplicative congruential
// generator (16807, modulus 2^31 - 1, Schrage's decomposition), and the first
// 310 outputs are thrown away.
#include "randgen.h"

namespace {

constexpr uint32_t kWords = 31;
constexpr uint32_t kLag = 3;
constexpr uint32_t kDiscards = 310;

}  // namespace

extern "C" {

int randgenseed(RANDGEN *s, uint32_t seed) {
  if (!s) return -1;
  if (seed == 0) seed = 1;
  // The seed words are signed 32-bit values; a seed above 2^31 starts negative.
  int32_t word = static_cast<int32_t>(seed);
  s->r[0] = static_cast<uint32_t>(word);
  for (uint32_t i = 1; i < kWords; ++i) {
    const int64_t hi = word / 127773;
    const int64_t lo = word % 127773;
    int64_t next = 16807 * lo - 2836 * hi;
    if (next < 0) next += 2147483647;
    word = static_cast<int32_t>(next);
    s->r[i] = static_cast<uint32_t>(word);
  }
  s->front = kLag;
  s->rear = 0;
  for (uint32_t i = 0; i < kDiscards; ++i) randgendraw(s);
  return 0;
}

int32_t randgendraw(RANDGEN *s) {
  const uint32_t v = s->r[s->front] + s->r[s->rear];
  s->r[s->front] = v;
  // Both positions advance together, wrapping at the end of the table.
  s->front = s->front + 1 == kWords ? 0 : s->front + 1;
  s->rear = s->rear + 1 == kWords ? 0 : s->rear + 1;
  return static_cast<int32_t>(v >> 1);
}

void randgendraws(RANDGEN *s, int32_t *out, uint32_t count) {
  uint32_t *r = s->r;
  uint32_t front = s->front, rear = s->rear;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t v = r[front] + r[rear];
    r[front] = v;
    out[i] = static_cast<int32_t>(v >> 1);
    front = front + 1 == kWords ? 0 : front + 1;
    rear = rear + 1 == kWords ? 0 : rear + 1;
  }
  s->front = front;
  s->rear = rear;
}

}  // extern "C"
