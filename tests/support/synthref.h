// Test support: bit-for-bit comparison, random vectors and synthesis features,
// and the literal harmonic generator that the synthesis tests use as their reference.
#ifndef KESTREL_TESTS_SUPPORT_SYNTHREF_H
#define KESTREL_TESTS_SUPPORT_SYNTHREF_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace kestreltest {

constexpr double kPi = 3.141592653589793;
constexpr double kFs = 16000.0;  // the rate most routine tests run at
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

inline bool samebits(double a, double b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// Same sizes and bits; the first difference is reported.
inline ::testing::AssertionResult samebits(const std::vector<double> &a, const std::vector<double> &b) {
  if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes " << a.size() << " vs " << b.size();
  for (size_t i = 0; i < a.size(); ++i)
    if (!samebits(a[i], b[i])) return ::testing::AssertionFailure() << "index " << i << ": " << a[i] << " vs " << b[i];
  return ::testing::AssertionSuccess();
}

// n values uniform in [-scale, scale) and n normal values of deviation sigma, drawn in order from a
// 64-bit Mersenne twister seeded with seed.
template <class Dist>
std::vector<double> randomvec(size_t n, uint64_t seed, Dist dist) {
  std::mt19937_64 gen(seed);
  std::vector<double> v(n);
  for (double &d : v) d = dist(gen);
  return v;
}
inline std::vector<double> uniformvec(size_t n, uint64_t seed, double scale = 1.0) {
  return randomvec(n, seed, std::uniform_real_distribution<double>(-scale, scale));
}
inline std::vector<double> gaussvec(size_t n, double sigma, uint64_t seed) {
  return randomvec(n, seed, std::normal_distribution<double>(0.0, sigma));
}

// Synthesis features of an utterance at 16 kHz, alpha 0.42; cc holds nframes rows c0 .. c_order.
struct SynthFeatures {
  double fs = 16000.0, alpha = 0.42;
  uint32_t shift = 80, order = 39, nframes = 0;
  std::vector<double> f0, fv, cc;  // f0 0 in unvoiced frames
  double *frame(uint32_t i) { return cc.data() + static_cast<size_t>(i) * (order + 1); }
};
// About `seconds` of voiced stretches (f0 gliding in 80..300 Hz, fv in 2..7 kHz, c0 near -9 and
// an envelope moving between two random ones) and unvoiced gaps (c0 near -7.3, a random envelope
// per frame), with quiet frames (c0 near -10) at both ends; the same for the same seed.
inline SynthFeatures randomfeatures(double seconds, uint64_t seed, uint32_t order = 39, uint32_t shift = 80) {
  SynthFeatures u;
  u.order = order, u.shift = shift, u.nframes = std::max(1u, static_cast<uint32_t>(seconds * u.fs / shift));
  const uint32_t N = u.nframes, P = order + 1, edge = std::min(N / 4, static_cast<uint32_t>(960 / shift));
  std::mt19937_64 gen(seed);
  auto uni = [&gen](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(gen); };
  u.f0.assign(N, 0.0), u.fv.assign(N, 1000.0), u.cc.assign(static_cast<size_t>(N) * P, 0.0);
  std::vector<double> a(P), b(P);
  for (uint32_t i = edge, end; i + edge < N; i = end) {
    const bool voiced = uni(0, 1) < 0.6;
    end = std::min(N - edge, i + std::max(1u, static_cast<uint32_t>(uni(0.04, voiced ? 0.6 : 0.2) * u.fs / shift)));
    const double fa = uni(80, 300), fb = uni(80, 300), va = uni(2000, 7000), vb = uni(2000, 7000);
    for (uint32_t k = 0; k < P; ++k) a[k] = uni(-0.6, 0.6) / (k + 1), b[k] = uni(-0.6, 0.6) / (k + 1);
    for (uint32_t j = i; j < end; ++j) {
      const double x = static_cast<double>(j - i) / (end - i);
      for (uint32_t k = 0; k < P; ++k) u.frame(j)[k] = voiced ? a[k] + (b[k] - a[k]) * x : uni(-0.3, 0.3) / (k + 1);
      u.frame(j)[0] += voiced ? -9.0 : -7.3;
      if (voiced) u.f0[j] = fa + (fb - fa) * x, u.fv[j] = va + (vb - va) * x;
    }
  }
  for (uint32_t j = 0; j < N; ++j)
    if (j < edge || j + edge >= N) u.frame(j)[0] = uni(-10.3, -9.7);
  return u;
}

inline bool allfinite(const std::vector<double> &v) {
  return std::all_of(v.begin(), v.end(), [](double d) { return std::isfinite(d); });
}

// (c, s) advanced by the angle whose cosine and sine are (c1, s1).
inline void refrotate(double &c, double &s, double c1, double s1) {
  const double nc = c * c1 - s * s1;
  s = s * c1 + c * s1;
  c = nc;
}

// Harmonic generation written out literally, one harmonic after another.
inline void refgenharmonics(double *buf, uint32_t before, uint32_t after, double fs, double f0, uint32_t nh,
                            const double *amp, const double *ph, double phi, uint8_t modulate) {
  const uint32_t L = before + after;
  if (nh == 0 || L == 0) return;
  const double w = f0 * 6.283185307179586 / fs, c1 = std::cos(w), s1 = std::sin(w), theta0 = phi - before * w;
  double c = std::cos(theta0), s = std::sin(theta0);
  if (modulate == 1)
    for (uint32_t n = 0; n < L; ++n, refrotate(c, s, c1, s1)) buf[n] = (2.0 - c) * 0.47140452079103173 * buf[n];
  double ck = c1, sk = s1;
  for (uint32_t j = 0; j < nh; ++j) {
    if (amp[j] == 0.0) continue;  // a silent harmonic does not advance the step rotor
    c = std::cos(ph[j] + theta0 * (j + 1));
    s = std::sin(ph[j] + theta0 * (j + 1));
    for (uint32_t n = 0; n < L; ++n, refrotate(c, s, ck, sk)) buf[n] = amp[j] * c + buf[n];
    refrotate(ck, sk, c1, s1);
  }
}

}  // namespace kestreltest

#endif
