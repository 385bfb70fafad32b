// Pitch-track modification: sentinel handling, voiced-only statistics and the
// early returns that leave a track bit for bit as it was.
#include "pitchanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const double kUnvoiced = -1e10;

bool samebits(const std::vector<double> &a, const std::vector<double> &b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

TEST(PitchModification, ConversionBetweenHzAndLogF0) {
  const struct {
    double hz, logf0, tol;
  } tolog[] = {
      {0.0, kUnvoiced, 0},        {-0.0, kUnvoiced, 0},      {-5.0, kUnvoiced, 0},
      {kNaN, kUnvoiced, 0},       {-kInf, kUnvoiced, 0},     {1.0, 0.0, 0},
      {kInf, kInf, 0},            {100.0, 4.605170185988092, 1e-15},
      {1e-300, -690.7755278982137, 1e-12},
  };
  for (const auto &c : tolog) {
    double v = c.hz;
    EXPECT_EQ(f02logf0(1, &v), 0u);
    if (c.tol == 0)
      EXPECT_EQ(v, c.logf0) << "hz=" << c.hz;
    else
      EXPECT_NEAR(v, c.logf0, c.tol) << "hz=" << c.hz;
  }

  const struct {
    double logf0, hz, tol;
  } tohz[] = {
      {kUnvoiced, 0.0, 0}, {-2e10, 0.0, 0}, {kNaN, 0.0, 0}, {-kInf, 0.0, 0},
      {-9.9e9, 0.0, 0},  // voiced, but exp underflows to 0
      {0.0, 1.0, 0},       {4.605170185988092, 100.0, 1e-12}, {-1.0, 0.36787944117144233, 1e-16},
  };
  for (const auto &c : tohz) {
    double v = c.logf0;
    EXPECT_EQ(logf02f0(1, &v), 0u);
    if (c.tol == 0)
      EXPECT_EQ(v, c.hz) << "logf0=" << c.logf0;
    else
      EXPECT_NEAR(v, c.hz, c.tol) << "logf0=" << c.logf0;
    EXPECT_FALSE(std::signbit(v)) << "logf0=" << c.logf0;
  }

  // Round trip over a whole track: positive f0 comes back (to rounding),
  // everything else becomes exactly 0 Hz.
  const std::vector<double> hz = {80.0, 0.0, 123.456, -1.0, kNaN, 300.0, 1e-3, -0.0, 5000.0};
  std::vector<double> t = hz;
  f02logf0(static_cast<uint32_t>(t.size()), t.data());
  logf02f0(static_cast<uint32_t>(t.size()), t.data());
  for (size_t i = 0; i < hz.size(); ++i) {
    if (hz[i] > 0)
      EXPECT_NEAR(t[i], hz[i], 2e-15 * hz[i]) << i;
    else
      EXPECT_EQ(t[i], 0.0) << i;
  }

  // n = 0 touches nothing.
  double guard = -5.0;
  f02logf0(0, &guard);
  logf02f0(0, &guard);
  EXPECT_EQ(guard, -5.0);
}

TEST(PitchModification, ShiftMovesVoicedFramesOnly) {
  // -9.9e9 is above the sentinel and so voiced; the sentinel, values below it
  // and NaN are not.
  const std::vector<double> track = {std::log(100.0), kUnvoiced, -9.9e9, -2e10, kNaN, std::log(220.0), -kInf,
                                     -9999999999.0};
  {
    std::vector<double> t = track;
    EXPECT_EQ(shiftlogpitch(static_cast<uint32_t>(t.size()), t.data(), 0.5), 0u);
    EXPECT_EQ(t[0], std::log(100.0) + 0.5);
    EXPECT_EQ(t[1], kUnvoiced);
    EXPECT_EQ(t[2], -9.9e9 + 0.5);
    EXPECT_NE(t[2], -9.9e9);
    EXPECT_EQ(t[3], -2e10);
    EXPECT_TRUE(std::isnan(t[4]));
    EXPECT_EQ(t[5], std::log(220.0) + 0.5);
    EXPECT_EQ(t[6], -kInf);
    EXPECT_EQ(t[7], -9999999998.5);  // one above the sentinel is voiced
  }
  // A shift of log 2 doubles every voiced f0 in Hz; unvoiced stays at 0 Hz.
  {
    std::vector<double> t = track;
    shiftlogpitch(static_cast<uint32_t>(t.size()), t.data(), std::log(2.0));
    logf02f0(static_cast<uint32_t>(t.size()), t.data());
    EXPECT_NEAR(t[0], 200.0, 1e-12);
    EXPECT_NEAR(t[5], 440.0, 1e-12);
    for (size_t i : {1, 2, 3, 4, 6, 7}) EXPECT_EQ(t[i], 0.0) << i;
  }
  // Shift exactly 0 (either sign) returns at once: a voiced -0.0 (1 Hz) would
  // otherwise turn into +0.0, and a NaN frame keeps its payload bits.  A NaN
  // shift is applied to voiced frames.
  {
    std::vector<double> t = track;
    t[4] = -std::nan("0x123");
    t[5] = -0.0;
    const std::vector<double> before = t;
    shiftlogpitch(static_cast<uint32_t>(t.size()), t.data(), 0.0);
    EXPECT_TRUE(samebits(t, before));
    shiftlogpitch(static_cast<uint32_t>(t.size()), t.data(), -0.0);
    EXPECT_TRUE(samebits(t, before));
    shiftlogpitch(static_cast<uint32_t>(t.size()), t.data(), kNaN);
    EXPECT_TRUE(std::isnan(t[0]));
    EXPECT_TRUE(std::isnan(t[2]));
    EXPECT_EQ(t[1], kUnvoiced);
    EXPECT_EQ(std::memcmp(&t[4], &before[4], sizeof(double)), 0);
  }
}

TEST(PitchModification, RangeScalingAboutTheVoicedMean) {
  const struct {
    const char *what;
    std::vector<double> in;
    double factor;
    std::vector<double> out;
  } cases[] = {
      {"factor 2 about mean 5", {4.0, 6.0}, 2.0, {3.0, 7.0}},
      {"unvoiced frames ignored by the mean and kept",
       {4.0, kUnvoiced, 6.0, -3e10},
       2.0,
       {3.0, kUnvoiced, 7.0, -3e10}},
      {"factor 0 flattens to the mean", {4.0, 5.0, 9.0, kUnvoiced}, 0.0, {6.0, 6.0, 6.0, kUnvoiced}},
      {"negative factor mirrors", {4.0, 5.0, 9.0}, -1.0, {8.0, 7.0, 3.0}},
      {"factor 0.5", {4.0, 8.0, kUnvoiced, 6.0}, 0.5, {5.0, 7.0, kUnvoiced, 6.0}},
      {"single voiced frame stays", {kUnvoiced, 5.25, kUnvoiced}, 3.0, {kUnvoiced, 5.25, kUnvoiced}},
      {"all unvoiced", {kUnvoiced, -2e10, kUnvoiced}, 2.0, {kUnvoiced, -2e10, kUnvoiced}},
      {"empty", {}, 2.0, {}},
  };
  for (const auto &c : cases) {
    std::vector<double> t = c.in;
    EXPECT_EQ(scalelogpitchrange(static_cast<uint32_t>(t.size()), t.data(), c.factor), 0u);
    ASSERT_EQ(t.size(), c.out.size());
    for (size_t i = 0; i < t.size(); ++i) EXPECT_EQ(t[i], c.out[i]) << c.what << " i=" << i;
  }

  // NaN frames are neither counted nor changed: the mean of {4, 6} is 5, so a
  // NaN counted as a frame (or summed) would show up in the voiced results.
  {
    std::vector<double> t = {4.0, kNaN, 6.0};
    scalelogpitchrange(3, t.data(), 2.0);
    EXPECT_EQ(t[0], 3.0);
    EXPECT_TRUE(std::isnan(t[1]));
    EXPECT_EQ(t[2], 7.0);
  }
  // -9.9e9 is voiced: it enters the mean and is scaled.
  {
    std::vector<double> t = {-9.9e9, 0.0, kUnvoiced};
    scalelogpitchrange(3, t.data(), 2.0);
    EXPECT_EQ(t[0], -1.485e10);  // mean -4.95e9; (-4.95e9)*2 + (-4.95e9)
    EXPECT_EQ(t[1], 4.95e9);
    EXPECT_EQ(t[2], kUnvoiced);
  }
  // The mean is taken before any frame changes: with a running mean the
  // second and third frames would move differently.
  {
    std::vector<double> t = {1.0, 2.0, 3.0, 10.0};
    scalelogpitchrange(4, t.data(), 3.0);
    const double expect[4] = {-5.0, -2.0, 1.0, 22.0};  // mean 4
    for (int i = 0; i < 4; ++i) EXPECT_EQ(t[i], expect[i]) << i;
  }
  // Factor exactly 1 returns at once, NaN payloads and all: otherwise 0.1
  // would come back as (0.1 - 0.4) + 0.4 = 0.10000000000000003.
  {
    std::vector<double> t = {0.1, -std::nan("0x55"), 0.7, kUnvoiced};
    const std::vector<double> before = t;
    scalelogpitchrange(static_cast<uint32_t>(t.size()), t.data(), 1.0);
    EXPECT_TRUE(samebits(t, before));
  }
  // A NaN factor is applied: voiced frames become NaN, unvoiced ones stay.
  {
    std::vector<double> t = {4.0, kUnvoiced, 6.0};
    scalelogpitchrange(3, t.data(), kNaN);
    EXPECT_TRUE(std::isnan(t[0]));
    // -0.0 scaled about a mean of 0 by 2: (-0 - 0) * 2 + 0 = +0.
    t = {-0.0, 0.0};
    scalelogpitchrange(2, t.data(), 2.0);
    EXPECT_FALSE(std::signbit(t[0]));
    t = {4.0, kUnvoiced, 6.0};
    scalelogpitchrange(3, t.data(), kNaN);
    EXPECT_TRUE(std::isnan(t[0]));
    EXPECT_EQ(t[1], kUnvoiced);
    EXPECT_TRUE(std::isnan(t[2]));
  }
  // In Hz the voiced mean is geometric: 100 and 400 Hz scale about 200 Hz.
  {
    std::vector<double> t = {100.0, 0.0, 400.0};
    f02logf0(3, t.data());
    scalelogpitchrange(3, t.data(), 0.5);
    logf02f0(3, t.data());
    EXPECT_NEAR(t[0], 141.4213562373095, 1e-9);
    EXPECT_EQ(t[1], 0.0);
    EXPECT_NEAR(t[2], 282.842712474619, 1e-9);
  }
}

}  // namespace
