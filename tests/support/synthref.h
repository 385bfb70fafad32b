// Test support: bit-for-bit comparison and the literal harmonic generator that
// the synthesis tests use as their reference.
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
