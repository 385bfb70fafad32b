// Random-phase noise frames from log-amplitude spectra.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <vector>

#include "spectralanalysis.h"

namespace {

constexpr double kPi = 3.141592653589793;
const double kMinusInf = -std::numeric_limits<double>::infinity();

// The value rand() returns after `skip` draws from seed.
int drawAfter(unsigned seed, int skip) {
  std::srand(seed);
  for (int i = 0; i < skip; ++i) std::rand();
  return std::rand();
}

TEST(Gennoisefromlogspectrum, DrawsOneRandomNumberPerBin) {
  const double fs = 16000.0;
  for (uint32_t nfft : {1u, 2u, 4u, 256u}) {
    std::vector<double> buf(2 * nfft, -2.0);
    std::srand(77);
    ASSERT_EQ(gennoisefromlogspectrum(buf.data(), nfft, fs), 0);
    const int next = std::rand();
    const int bins = nfft >= 4 ? static_cast<int>(nfft / 2 - 1) : 0;
    EXPECT_EQ(next, drawAfter(77, bins)) << nfft;
    if (nfft <= 2) {
      for (uint32_t j = 0; j < nfft; ++j) EXPECT_EQ(buf[j], 0.0) << nfft;  // nothing to fill: silence
    }
  }
}

TEST(Gennoisefromlogspectrum, MinusInfinityGivesSilenceButConsumesDraws) {
  const uint32_t nfft = 256;
  std::vector<double> buf(2 * nfft, kMinusInf);
  std::srand(5);
  gennoisefromlogspectrum(buf.data(), nfft, 16000.0);
  const int next = std::rand();
  for (uint32_t j = 0; j < nfft; ++j) EXPECT_EQ(buf[j], 0.0) << j;
  EXPECT_EQ(next, drawAfter(5, 127));
}

TEST(Gennoisefromlogspectrum, SingleBinIsACosineWithItsOwnDrawAsPhase) {
  // Bin k0 alone (others at minus infinity): x[j] = 2 m cos(2 pi k0 j / N + psi)
  // with m = exp(L) sqrt(fs/N) and psi from the k0-th draw (ascending bins).
  const uint32_t nfft = 64;
  const double fs = 16000.0, L = -1.5;
  std::srand(11);
  std::vector<int> draws(nfft / 2 - 1);
  for (int &d : draws) d = std::rand();
  for (uint32_t k0 : {1u, 5u, 31u}) {
    std::vector<double> buf(2 * nfft, kMinusInf);
    buf[k0] = L;
    std::srand(11);
    gennoisefromlogspectrum(buf.data(), nfft, fs);
    const double m = std::exp(L) * std::sqrt(fs / nfft);
    const double psi = draws[k0 - 1] * (2 * kPi / 2147483647.0);
    for (uint32_t j = 0; j < nfft; ++j) {
      EXPECT_NEAR(buf[j], 2 * m * std::cos(2 * kPi * k0 * j / nfft + psi), 1e-12) << k0 << " " << j;
      EXPECT_NEAR(buf[nfft + j], 0.0, 1e-12);
    }
  }
}

TEST(Gennoisefromlogspectrum, EnergyFollowsTheEnvelopeWhateverThePhases) {
  // Unscaled inverse: sum x^2 = N * sum |X|^2 = N * (N - 2) * exp(2L) * fs / N.
  const double fs = 16000.0;
  for (uint32_t nfft : {16u, 256u, 1024u}) {
    for (double L : {-6.0, 0.0, 1.3}) {
      std::vector<double> buf(2 * nfft, L);
      std::srand(3);
      gennoisefromlogspectrum(buf.data(), nfft, fs);
      double e = 0.0;
      for (uint32_t j = 0; j < nfft; ++j) e += buf[j] * buf[j];
      const double expected = (nfft - 2.0) * fs * std::exp(2 * L);
      EXPECT_NEAR(e / expected, 1.0, 1e-12) << nfft << " " << L;
    }
  }
}

TEST(Gennoisefromlogspectrum, SameSeedSameFrameAndInvalidLengthsRefused) {
  const uint32_t nfft = 128;
  std::vector<double> a(2 * nfft), b;
  for (uint32_t k = 0; k < nfft; ++k) a[k] = -3.0 + 0.01 * k;
  b = a;
  std::srand(0);
  gennoisefromlogspectrum(a.data(), nfft, 16000.0);
  std::srand(0);
  gennoisefromlogspectrum(b.data(), nfft, 16000.0);
  EXPECT_EQ(a, b);

  for (uint32_t bad : {0u, 3u, 96u}) {
    std::vector<double> buf(2 * 96 + 2, 1.25);
    std::srand(9);
    EXPECT_EQ(gennoisefromlogspectrum(buf.data(), bad, 16000.0), -1) << bad;
    const int next = std::rand();
    for (double v : buf) EXPECT_EQ(v, 1.25);
    EXPECT_EQ(next, drawAfter(9, 0));
  }
}

}  // namespace
