// Random-phase noise frames from log-amplitude spectra.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "spectralanalysis.h"
#include "support/synthref.h"

namespace {

using namespace kestreltest;

// The value rand() returns after `skip` draws from seed.
int drawafter(unsigned seed, int skip) {
  std::srand(seed);
  for (int i = 0; i < skip; ++i) std::rand();
  return std::rand();
}

TEST(Gennoisefromlogspectrum, OneDrawPerBinEvenForSilentBinsAndNoneWhenRefused) {
  // nfft/2 - 1 draws (none for nfft <= 2, which is silence); -inf bins are silent but draw.
  for (uint32_t nfft : {2u, 4u, 256u})
    for (double L : {-2.0, -kInf}) {
      std::vector<double> buf(2 * nfft, L);
      std::srand(77);
      ASSERT_EQ(gennoisefromlogspectrum(buf.data(), nfft, 16000.0), 0);
      const int next = std::rand();
      EXPECT_EQ(next, drawafter(77, nfft >= 4 ? static_cast<int>(nfft / 2 - 1) : 0)) << nfft;
      EXPECT_TRUE((nfft > 2 && L != -kInf) || std::vector<double>(buf.begin(), buf.begin() + nfft) ==
                                                   std::vector<double>(nfft, 0.0)) << nfft;
    }
  // Not a power of two: refused before any draw or write.
  for (uint32_t bad : {0u, 96u}) {
    std::vector<double> buf(2 * 96 + 2, 1.25);
    std::srand(9);
    EXPECT_EQ(gennoisefromlogspectrum(buf.data(), bad, 16000.0), -1) << bad;
    const int next = std::rand();
    EXPECT_TRUE(next == drawafter(9, 0) && buf == std::vector<double>(2 * 96 + 2, 1.25)) << bad;
  }
}

TEST(Gennoisefromlogspectrum, SingleBinIsACosineWithItsOwnDrawAsPhase) {
  // Bin k0 alone: x[j] = 2 m cos(2 pi k0 j / N + psi), m = exp(L) sqrt(fs/N), psi from the k0-th draw.
  const uint32_t nfft = 64;
  const double fs = 16000.0, L = -1.5, m = std::exp(L) * std::sqrt(fs / nfft);
  for (uint32_t k0 : {1u, 31u}) {
    std::vector<double> buf(2 * nfft, -kInf);
    buf[k0] = L;
    const double psi = drawafter(11, k0 - 1) * (2 * kPi / 2147483647.0);
    std::srand(11);
    gennoisefromlogspectrum(buf.data(), nfft, fs);
    for (uint32_t j = 0; j < nfft; ++j)
      EXPECT_TRUE(std::fabs(buf[j] - 2 * m * std::cos(2 * kPi * k0 * j / nfft + psi)) < 1e-12 &&
                  std::fabs(buf[nfft + j]) < 1e-12) << k0 << " " << j << ": " << buf[j] << ", " << buf[nfft + j];
  }
}

}  // namespace
