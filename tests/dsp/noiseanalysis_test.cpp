// Noise spectrum and the other envelopes: the silence floor, the segment rule
// at the signal edges checked against a direct DFT (which pins the level of
// any signal), the symmetry and bin-copy rules, harmonic series read at
// their density, and random-phase noise frames from log-amplitude spectra.
#include "spectralanalysis.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <vector>

#include "support/synthref.h"
#include "windowing.h"

namespace {

using namespace kestreltest;
constexpr uint32_t kN = 401, kNfft = 1024;
const double kFloor = std::log(std::sqrt(kN * 1.0000000000000002e-10 / (kN * kFs)));  // log(sqrt(1e-10/fs))

struct Area {
  NAMEM *a;
  explicit Area(uint32_t nfft = kNfft) : a(nameminitializefft(kN, nfft)) {}
  ~Area() { namemdestroy(a); }
};

TEST(NoiseLogSpectrum, FloorSymmetryBinCopiesAndRefusals) {
  EXPECT_TRUE(naframesize(16000.0) == 401u && naframesize(8000.0) == 201u);
  EXPECT_EQ(nameminitialize(0xFFFFFFFFu, 0xFFFFFFFFu), nullptr);  // refused, not attempted
  EXPECT_EQ(namemdestroy(nameminitializelpc(401, 20)) + namemdestroy(nullptr), 0);
  Area area;
  // Silence, centres far past the end (and wrapping 32 bits) and an empty signal: the floor.
  const std::vector<double> x = gaussvec(3000, 0.2, 8), z(2000, 0.0);
  std::vector<double> out(kNfft, 1.0);
  const struct { const double *x; uint32_t n, centre; } floors[] = {
      {z.data(), 2000, 0}, {z.data(), 2000, 1999}, {x.data(), 3000, 4000}, {x.data(), 3000, 0xFFFFFFFFu}, {nullptr, 0, 0}};
  for (const auto &f : floors) {
    ASSERT_EQ(getnoiselogspectrum(f.x, f.n, kFs, f.centre, kNfft, out.data(), area.a), 0);
    for (double v : out) ASSERT_NEAR(v, kFloor, 1e-12) << f.n << " centre " << f.centre;
  }
  ASSERT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, kNfft, out.data(), area.a), 0);
  EXPECT_TRUE(out[0] == out[1] && out[kNfft / 2] == out[kNfft / 2 - 1]);
  for (uint32_t k = 1; k < kNfft / 2; ++k) EXPECT_EQ(out[kNfft - k], out[k]) << k;
  // FFT lengths the area cannot use are refused with the output untouched.
  for (uint32_t nfft : {256u, 1000u}) {
    std::vector<double> o(kNfft, 3.0);
    EXPECT_TRUE(getnoiselogspectrum(x.data(), 3000, kFs, 1500, nfft, o.data(), area.a) == -1 &&
                o == std::vector<double>(kNfft, 3.0)) << nfft;
  }
  EXPECT_EQ(getnoiselogspectrum(x.data(), 3000, kFs, 1500, kNfft, out.data(), nullptr), -1);
}

TEST(NoiseLogSpectrum, SegmentAtTheEdgesMatchesADirectTransform) {
  // The valid window indices are those whose sample lies in the signal; the
  // mean divides their sum by the full N; the segment starts at FFT index 0.
  Area area;
  const uint32_t n = 1000, half = kN / 2;
  const long double minP = kN * 1.0000000000000002e-10L;
  std::vector<double> x(n), out(kNfft);
  for (uint32_t i = 0; i < n; ++i) x[i] = 0.5 + 0.001 * i;
  for (uint32_t c : {0u, 120u, 900u, 1150u}) {
    const int64_t first = static_cast<int64_t>(c) - half, lo = std::max<int64_t>(first, 0),
                  hi = std::min<int64_t>(first + kN, n);  // valid samples lo .. hi-1
    const long double mean = std::accumulate(x.begin() + lo, x.begin() + hi, 0.0L) / kN;
    std::vector<long double> seg(kN, 0.0L);
    for (int64_t s = lo; s < hi; ++s) seg[s - first] = (x[s] - mean) * area.a->window[s - first];
    ASSERT_EQ(getnoiselogspectrum(x.data(), n, kFs, c, kNfft, out.data(), area.a), 0);
    for (uint32_t k : {1u, 7u, 511u}) {
      long double re = 0, im = 0;
      for (uint32_t i = 0; i < kN; ++i) {
        const long double ang = -2.0L * kPi * static_cast<long double>((static_cast<uint64_t>(i) * k) % kNfft) / kNfft;
        re += seg[i] * std::cos(ang), im += seg[i] * std::sin(ang);
      }
      const long double P = std::max(re * re + im * im, minP);
      EXPECT_NEAR(out[k], static_cast<double>(0.5L * std::log(P / (kN * kFs))), 1e-9) << "centre " << c << " bin " << k;
    }
  }
}

TEST(VoicedEnvelopes, HarmonicsReadTheirDensityAndUnvoicedFramesTakeTheNoiseSpectrum) {
  // A harmonic of amplitude a (here a1 / k^0.7) must read log(a / (2 sqrt f0)) at its frequency.
  for (double f0 : {230.0, 123.4, 70.0}) {
    SCOPED_TRACE(f0);
    std::vector<double> x(8000, 0.0), sig(2048), see(2048);
    for (uint32_t k = 1; k * f0 < kFs / 2; ++k)
      for (uint32_t i = 0; i < 8000; ++i)
        x[i] += 0.2 / std::pow(k, 0.7) * std::cos(2 * kPi * k * f0 * i / kFs + 0.5 * k * k);
    Area area(2048);
    ASSERT_EQ(getsignallogspectrum(x.data(), 8000, kFs, 4000, f0, 2048, sig.data(), area.a), 0);
    ASSERT_EQ(getseevoclogspectrum(x.data(), 8000, kFs, 4000, f0, 2048, see.data(), area.a), 0);
    for (uint32_t k : {1u, 2u, 5u, 20u}) {
      const uint32_t bin = static_cast<uint32_t>(std::lround(k * f0 * 2048 / kFs));
      const double expected = std::log(0.2 / std::pow(k, 0.7) / (2 * std::sqrt(f0)));
      EXPECT_NEAR(see[bin], expected, f0 < 100 ? 0.05 : 0.03) << "peak envelope, harmonic " << k;
      if (f0 > 100) { EXPECT_NEAR(sig[bin], expected, 0.1) << "smoothed spectrum, harmonic " << k; }
    }
    for (uint32_t k = 1; k < 1024; ++k) EXPECT_TRUE(sig[2048 - k] == sig[k] && see[2048 - k] == see[k]) << k;
    // Unvoiced frames (f0 not in (0, fs/2)) take the noise spectrum. Silence in voiced frames
    // gives the floor for every analysis method: see the cepstral analysis tests.
    std::vector<double> ref(2048);
    ASSERT_EQ(getnoiselogspectrum(x.data(), 8000, kFs, 4000, 2048, ref.data(), area.a), 0);
    for (double bad : {-f0, static_cast<double>(NAN), 8000.0}) {
      ASSERT_EQ(getsignallogspectrum(x.data(), 8000, kFs, 4000, bad, 2048, sig.data(), area.a) +
                    getseevoclogspectrum(x.data(), 8000, kFs, 4000, bad, 2048, see.data(), area.a), 0);
      EXPECT_TRUE(sig == ref && see == ref) << bad;
    }
  }
}

// The value rand() returns after `skip` draws from seed.
int drawafter(unsigned seed, int skip) {
  std::srand(seed);
  for (int i = 0; i < skip; ++i) std::rand();
  return std::rand();
}

TEST(Gennoisefromlogspectrum, OneDrawPerBinASingleBinIsACosineAndRefusalsDrawNothing) {
  // nfft/2 - 1 draws (none for nfft <= 2, which is silence); -inf bins are silent but draw.
  // Bin k0 alone (the rest -inf): x[j] = 2 m cos(2 pi k0 j / N + psi), m = exp(L) sqrt(fs/N), psi
  // from the k0-th draw; no bin at all (k0 = 0): zeros. Other levels: only the draws are checked.
  const double L = -1.5;
  const struct { uint32_t nfft, k0; double rest; } cases[] = {{2, 0, -2.0},   {4, 0, -2.0},   {256, 0, -2.0},
                                                              {2, 0, -kInf},  {4, 0, -kInf},  {256, 0, -kInf},
                                                              {64, 1, -kInf}, {64, 31, -kInf}};
  for (const auto &c : cases) {
    std::vector<double> buf(2 * c.nfft, c.rest);
    if (c.k0) buf[c.k0] = L;
    const double m = std::exp(L) * std::sqrt(kFs / c.nfft);
    const double psi = drawafter(11, static_cast<int>(c.k0) - 1) * (2 * kPi / 2147483647.0);
    std::srand(11);
    ASSERT_EQ(gennoisefromlogspectrum(buf.data(), c.nfft, kFs), 0);
    const int next = std::rand();
    EXPECT_EQ(next, drawafter(11, c.nfft >= 4 ? static_cast<int>(c.nfft / 2 - 1) : 0)) << c.nfft;
    for (uint32_t j = 0; j < c.nfft && (c.rest == -kInf || c.nfft == 2); ++j) {
      const double want = c.k0 ? 2 * m * std::cos(2 * kPi * c.k0 * j / c.nfft + psi) : 0.0;
      EXPECT_TRUE(c.k0 ? std::fabs(buf[j] - want) < 1e-12 && std::fabs(buf[c.nfft + j]) < 1e-12 : buf[j] == 0.0)
          << c.nfft << " " << c.k0 << " " << j << ": " << buf[j] << ", " << buf[c.nfft + j];
    }
  }
  // Not a power of two: refused before any draw or write.
  for (uint32_t bad : {0u, 96u}) {
    std::vector<double> buf(2 * 96 + 2, 1.25);
    std::srand(9);
    EXPECT_EQ(gennoisefromlogspectrum(buf.data(), bad, kFs), -1) << bad;
    const int next = std::rand();
    EXPECT_TRUE(next == drawafter(9, 0) && buf == std::vector<double>(2 * 96 + 2, 1.25)) << bad;
  }
}

}  // namespace
