// Analysis windows, windowed segments, overlap-add and the frame/length rules.
// Counts and positions are unsigned 32-bit and wrap; the few places where a
// wrapped or non-finite value would make the C++ conversion undefined are
// pinned to a defined result (documented per routine in windowing.h terms).
#include "windowing.h"

#include <cmath>
#include <cstdint>

#include "simd.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kPi = 3.141592653589793;

// Symmetric raised-cosine family a - b*cos(n*step), step = 2pi/(N-1).
void raisedcosine(double *w, uint32_t N, double a, double b) {
  const double step = kTwoPi / static_cast<double>(static_cast<uint32_t>(N - 1));
  for (uint32_t n = 0; n < N; ++n) w[n] = a - b * std::cos(static_cast<double>(n) * step);
}

// ceil(v) as an unsigned count, made odd by clearing bit 0 and adding 1.
// Negative or NaN lengths give 1 and lengths beyond 32 bits saturate.
uint32_t oddceil(double v) {
  const double c = std::ceil(v);
  uint32_t L;
  if (!(c >= 0.0))
    L = 0;
  else if (c >= 4294967295.0)
    L = 4294967295u;
  else
    L = static_cast<uint32_t>(c);
  return (L & ~1u) + 1u;
}

}  // namespace

extern "C" {

uint32_t winhamming(double *w, uint32_t N, uint8_t normalise) {
  if (normalise)
    raisedcosine(w, N, 0.8566, 0.7297);
  else
    raisedcosine(w, N, 0.54, 0.46);
  return 0;
}

uint32_t winhanning(double *w, uint32_t N, uint8_t normalise) {
  const double a = normalise ? 0.8165 : 0.5;
  raisedcosine(w, N, a, a);
  return 0;
}

uint32_t wincomplementary(const double *w, double *q, uint32_t N) {
  const double step = -kTwoPi / static_cast<double>(static_cast<uint32_t>(N - 1));
  for (uint32_t n = 0; n < N; ++n) q[n] = w[n] * std::sin(static_cast<double>(n) * step);
  return 0;
}

uint32_t getwindowedsamples(const double *x, uint32_t len, uint32_t centre, double *out, uint32_t half,
                            const double *win) {
  const uint32_t L = 2 * half + 1;
  // Valid k are those with 0 <= centre - half + k <= len - 1.  The bounds are
  // formed in 64 bits: they equal the unsigned 32-bit rule (first = half -
  // centre when centre < half; end = len - centre + half when centre + half >
  // len - 1) wherever that rule does not wrap, and where it would wrap (a
  // centre far beyond the signal, centre + half past 2^32, an empty signal)
  // they leave no valid sample instead of reading outside x.
  const int64_t lo = static_cast<int64_t>(half) - static_cast<int64_t>(centre);
  const int64_t hi = static_cast<int64_t>(len) + lo;
  uint32_t first = (lo > 0) ? static_cast<uint32_t>(lo < L ? lo : L) : 0;
  uint32_t end = (hi < L) ? static_cast<uint32_t>(hi > first ? hi : first) : L;
  if (end < first) end = first;
  for (uint32_t k = 0; k < first; ++k) out[k] = 0.0;
  for (uint32_t k = end; k < L; ++k) out[k] = 0.0;
  // For first <= k < end the index centre - half + k lies in 0 .. len-1; in
  // unsigned arithmetic the wrapped base comes back into range.
  const uint32_t base = centre - half;
  if (win) {
    for (uint32_t k = first; k < end; ++k) out[k] = x[base + k] * win[k];
  } else {
    for (uint32_t k = first; k < end; ++k) out[k] = x[base + k];
  }
  for (uint32_t k = first; k < end; ++k)
    if (out[k] != 0.0) return 1;  // a NaN counts as non-zero
  return 0;
}

uint32_t olatriang(double *out, const double *frame, uint32_t start, uint32_t centre, uint32_t end) {
  const uint32_t a = centre - start;
  const uint32_t b = end - centre;
  const uint32_t span = end - start;
  const double da = static_cast<double>(a);
  const double db = static_cast<double>(b);
  for (uint32_t i = 0; i < a; ++i) out[start + i] += frame[i] * static_cast<double>(i) / da;
  for (uint32_t i = a; i < span; ++i) out[start + i] += frame[i] * static_cast<double>(span - i) / db;
  return 0;
}

uint32_t olahann(double *out, const double *frame, uint32_t start, uint32_t centre, uint32_t end) {
  const uint32_t a = centre - start;
  const uint32_t b = end - centre;
  const uint32_t span = end - start;
  out[centre] = frame[a];
  {
    const double theta = kPi / static_cast<double>(a);
    const double ct = std::cos(theta), st = std::sin(theta);
    double c = 1.0, s = 0.0;
    for (uint32_t i = a; i-- > 0;) {
      kestrel::rotatestep(c, s, ct, st);
      out[start + i] += frame[i] * 0.5 * (c + 1);
    }
  }
  {
    const double theta = kPi / static_cast<double>(b);
    const double ct = std::cos(theta), st = std::sin(theta);
    double c = 1.0, s = 0.0;
    for (uint32_t i = a + 1; i < span; ++i) {
      kestrel::rotatestep(c, s, ct, st);
      out[start + i] += frame[i] * 0.5 * (c + 1);
    }
  }
  return 0;
}

uint32_t getnumanalysisframes(uint32_t nsamples, uint32_t shift, uint32_t first) {
  if (shift == 0) return 0;  // no frame grid without a shift
  const uint32_t span = nsamples - first - 1;
  const double q = std::trunc(static_cast<double>(span) / static_cast<double>(shift));
  return static_cast<uint32_t>(q) + 1u;
}

uint32_t getolasynthesislength(uint32_t shift, uint32_t nframes) { return shift * (nframes + 1) + 1; }

uint32_t getwinlengthnperiodsodd(double nperiods, double f0, double fs) { return oddceil(nperiods * fs / f0); }

uint32_t getwinlengthceilpot2(uint32_t n) {
  uint32_t v = 1;
  while (v < n) {
    if (v == 0x80000000u) return 0;  // 2^32 wraps to 0: no such length
    v *= 2;
  }
  return v;
}

uint32_t getwinlengthdurodd(double duration, double fs) { return oddceil(duration * fs); }

}  // extern "C"
