// Harmonic counting, harmonic generation and envelope resampling.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "harmonicanalysis.h"
#include "support/synthref.h"

namespace {

using namespace kestreltest;

TEST(Hanoharms, CountsHarmonicsStrictlyBelowTheLimit) {
  const struct { double fs, fmax, f0; uint32_t expected; } cases[] = {
      {16000, 16000, 100, 79}, {16000, 1000, 100, 9},    {16000, 1050, 100, 10},    {16000, 8000.5, 100, 79},
      {16000, 100, 100, 0},    {16000, 16000, 8000, 0},  {16000, 16000, 7999.5, 1}, {16000, 1500.01, 1500, 1},
      {16000, kNaN, 100, 79},  {16000, 16000, kNaN, 0},  {16000, 16000, -100, 0},   {kNaN, 16000, 100, 0},
      {16000, 16000, 1e-300, UINT32_MAX},  // saturates
  };
  for (const auto &c : cases) EXPECT_EQ(hanoharms(c.fs, c.fmax, c.f0), c.expected) << c.fmax << " " << c.f0;
}

TEST(Genharmonics, MatchesLiteralEvaluationBitForBit) {
  // Every group-size remainder, zero amplitudes at group edges, every modulation flag.
  const double amps[] = {0.3,  0.0,  0.25, 0.2,  0.0,  0.0,  0.15, 0.1,  0.05,  0.04,  0.0,
                         0.03, 0.02, 0.02, 0.01, 0.01, 0.01, 0.01, 0.01, 0.005, 0.004, 0.0};
  const double phases[] = {0.1, 2.0, -1.0, 0.5, 3.0,  -2.5, 1.2, 0.7, -0.3, 2.2, 1.0,
                           0.4, 0.3, -0.2, 1.1, 2.1, -1.4, 0.0, 0.6, -0.7, 1.9, 0.2};
  for (uint32_t nh = 0; nh <= 22; ++nh)
    for (uint8_t modulate : {0, 1, 2})
      for (uint32_t before : {0u, 1u, 80u}) {
        std::vector<double> a(before + 80);
        for (size_t n = 0; n < a.size(); ++n) a[n] = std::sin(0.37 * n) * 0.01;
        std::vector<double> b = a;
        genharmonics(a.data(), before, 80, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        refgenharmonics(b.data(), before, 80, 16000.0, 173.3, nh, amps, phases, 1.234, modulate);
        ASSERT_TRUE(samebits(a, b)) << "nh " << nh << " mod " << int(modulate) << " before " << before;
      }
}

TEST(Resamplelogampenv, InterpolatesBetweenGridPointsAndHoldsBeyond) {
  const std::vector<double> env = {1.0, 2.0, 4.0, 8.0};  // at 100, 200, 300, 400 Hz
  // Every 25 Hz from 25 to 900 Hz: flat below 100, linear between, env[3] from 400 Hz on.
  std::vector<double> out(36, kNaN);
  ASSERT_EQ(resamplelogampenv(100.0, env.data(), 4, 25.0, out.data(), 36), 0);
  std::vector<double> want = {1, 1, 1, 1, 1.25, 1.5, 1.75, 2, 2.5, 3, 3.5, 4, 5, 6, 7};
  want.resize(36, 8.0);
  EXPECT_EQ(out, want);
  // Multiplied by the difference before dividing by the spacing: 1 * 7 / 3, not (1 / 3) * 7.
  const double rise[] = {0.0, 7.0}, single = -3.5;
  resamplelogampenv(3.0, rise, 2, 4.0, out.data(), 1);
  EXPECT_EQ(out[0], 7.0 / 3.0);
  // One grid point: its value everywhere.
  resamplelogampenv(100.0, &single, 1, 30.0, out.data(), 10);
  EXPECT_EQ(std::vector<double>(out.begin(), out.begin() + 10), std::vector<double>(10, -3.5));
  // Empty grid or no output points: -1, nothing written. Zero, negative or non-finite spacings
  // never walk past the last point (the sanitizer build checks).
  std::vector<double> out4(3, 7.0);
  EXPECT_EQ(resamplelogampenv(100.0, env.data(), 0, 50.0, out4.data(), 3) +
                resamplelogampenv(100.0, env.data(), 4, 50.0, out4.data(), 0), -2);
  EXPECT_EQ(out4, std::vector<double>(3, 7.0));
  for (double df : {0.0, -100.0, kNaN})
    for (double dfout : {50.0, kInf}) EXPECT_EQ(resamplelogampenv(df, env.data(), 2, dfout, out.data(), 5), 0);
}

}  // namespace
