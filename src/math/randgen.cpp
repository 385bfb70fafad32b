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
  // The table read oldest first (the word at front is x[i-31], the one before
  // it x[i-1]) into a straight run, extended without wrap-around tests, and
  // its last 31 words written back where the draws one by one leave them.
  constexpr uint32_t kChunk = 256;
  uint32_t x[kWords + kChunk];
  uint32_t *r = s->r;
  uint32_t front = s->front;
  if (front >= kWords || s->rear != (front >= kLag ? front - kLag : front + kWords - kLag)) {
    // Not a state that seeding and drawing make: drawn one by one as given.
    for (uint32_t i = 0; i < count; ++i) out[i] = randgendraw(s);
    return;
  }
  const uint32_t tail = kWords - front;  // words from front to the table's end
  for (uint32_t j = 0; j < tail; ++j) x[j] = r[front + j];
  for (uint32_t j = tail; j < kWords; ++j) x[j] = r[j - tail];
  while (count > 0) {
    const uint32_t n = count < kChunk ? count : kChunk;
    for (uint32_t m = 0; m < n; ++m) {
      const uint32_t v = x[m] + x[m + kWords - kLag];
      x[m + kWords] = v;
      out[m] = static_cast<int32_t>(v >> 1);
    }
    for (uint32_t j = 0; j < kWords; ++j) x[j] = x[n + j];
    front = (front + n) % kWords;  // n < 2^31: no wrap of the sum
    out += n;
    count -= n;
  }
  const uint32_t end = kWords - front;
  for (uint32_t j = 0; j < end; ++j) r[front + j] = x[j];
  for (uint32_t j = end; j < kWords; ++j) r[j - end] = x[j];
  s->front = front;
  s->rear = front >= kLag ? front - kLag : front + kWords - kLag;
}

}  // extern "C"
