// Pitch-track modification: sentinel handling, voiced-only statistics and the
// early returns that leave a track bit for bit as it was.
#include "pitchanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "support/synthref.h"

namespace {

using namespace kestreltest;
const double kUnvoiced = -1e10;

// Equal element by element, NaN where NaN is expected.
::testing::AssertionResult sametrack(const std::vector<double> &got, const std::vector<double> &want) {
  if (got.size() != want.size()) return ::testing::AssertionFailure() << "size " << got.size();
  for (size_t i = 0; i < got.size(); ++i)
    if (std::isnan(want[i]) ? !std::isnan(got[i]) : got[i] != want[i])
      return ::testing::AssertionFailure() << "index " << i << ": " << got[i] << " vs " << want[i];
  return ::testing::AssertionSuccess();
}

TEST(PitchModification, ConversionBetweenHzAndLogF0) {
  const struct { bool tolog; double in, out, tol; } cases[] = {
      {true, 0.0, kUnvoiced, 0},  {true, -5.0, kUnvoiced, 0}, {true, kNaN, kUnvoiced, 0}, {true, kInf, kInf, 0},
      {true, 100.0, 4.605170185988092, 1e-15}, {false, kUnvoiced, 0.0, 0}, {false, kNaN, 0.0, 0},
      {false, -9.9e9, 0.0, 0},  // voiced, but exp underflows to +0
      {false, 4.605170185988092, 100.0, 1e-12},
  };
  for (const auto &c : cases) {
    double v = c.in;
    EXPECT_EQ(c.tolog ? f02logf0(1, &v) : logf02f0(1, &v), 0u);
    if (c.tol == 0) EXPECT_EQ(v, c.out) << c.in;  // exact, infinities included
    else EXPECT_NEAR(v, c.out, c.tol) << c.in;
    EXPECT_FALSE(!c.tolog && std::signbit(v)) << c.in;
  }
}

TEST(PitchModification, ShiftMovesVoicedFramesOnly) {
  // Voiced means strictly above the sentinel: -9.9e9 and -9999999999 are, NaN is not.
  std::vector<double> t = {std::log(100.0), kUnvoiced, -9.9e9, -2e10, kNaN, 5.0, -kInf, -9999999999.0};
  std::vector<double> s = t;
  EXPECT_EQ(shiftlogpitch(static_cast<uint32_t>(s.size()), s.data(), 0.5), 0u);
  EXPECT_TRUE(sametrack(s, {std::log(100.0) + 0.5, kUnvoiced, -9.9e9 + 0.5, -2e10, kNaN, 5.5, -kInf, -9999999998.5}));
  // A zero shift (either sign) returns at once: a voiced -0.0 would become +0.0
  // and NaN payloads would be at risk. A NaN shift is applied to voiced frames only.
  t[4] = -std::nan("0x123");
  t[5] = -0.0;
  s = t;
  shiftlogpitch(8, s.data(), 0.0);
  shiftlogpitch(8, s.data(), -0.0);
  EXPECT_TRUE(samebits(s, t));
  shiftlogpitch(8, s.data(), kNaN);
  EXPECT_TRUE(sametrack(s, {kNaN, kUnvoiced, kNaN, -2e10, kNaN, kNaN, -kInf, kNaN}));
  EXPECT_TRUE(samebits(s[4], t[4]));
}

TEST(PitchModification, RangeScalingAboutTheVoicedMean) {
  const struct { std::vector<double> in; double factor; std::vector<double> out; } cases[] = {
      {{4.0, kUnvoiced, 6.0, -3e10}, 2.0, {3.0, kUnvoiced, 7.0, -3e10}},  // unvoiced: not in the mean, kept
      {{4.0, kNaN, 6.0}, 2.0, {3.0, kNaN, 7.0}},                           // NaN: neither counted nor summed
      {{1.0, 2.0, 3.0, 10.0}, 3.0, {-5.0, -2.0, 1.0, 22.0}},  // mean 4 taken before any frame changes
      {{-9.9e9, 0.0, kUnvoiced}, 2.0, {-1.485e10, 4.95e9, kUnvoiced}},  // -9.9e9 is voiced
      {{kUnvoiced, -2e10}, 2.0, {kUnvoiced, -2e10}},
      {{4.0, kUnvoiced, 6.0}, kNaN, {kNaN, kUnvoiced, kNaN}},  // a NaN factor is applied
  };
  for (const auto &c : cases) {
    std::vector<double> t = c.in;
    EXPECT_EQ(scalelogpitchrange(static_cast<uint32_t>(t.size()), t.data(), c.factor), 0u);
    EXPECT_TRUE(sametrack(t, c.out)) << "factor " << c.factor;
  }
  // -0.0 about a mean of 0 by 2: (-0 - 0) * 2 + 0 = +0.
  std::vector<double> z = {-0.0, 0.0};
  scalelogpitchrange(2, z.data(), 2.0);
  EXPECT_FALSE(std::signbit(z[0]));
  // Factor exactly 1 returns at once: 0.1 would otherwise come back as 0.10000000000000003.
  std::vector<double> t = {0.1, -std::nan("0x55"), 0.7, kUnvoiced};
  const std::vector<double> before = t;
  scalelogpitchrange(4, t.data(), 1.0);
  EXPECT_TRUE(samebits(t, before));
}

}  // namespace
