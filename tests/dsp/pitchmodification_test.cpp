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

TEST(PitchModification, ShiftAndRangeScalingMoveVoicedFramesOnly) {
  // Voiced means strictly above the sentinel: -9.9e9 and -9999999999 are, NaN is not (neither
  // counted nor summed in the mean). The mean is taken before any frame changes; a NaN shift or
  // factor is applied to voiced frames.
  using Op = uint32_t (*)(uint32_t, double *, double);
  const Op shift = shiftlogpitch, scale = scalelogpitchrange;
  const struct { Op op; std::vector<double> in; double amount; std::vector<double> out; } cases[] = {
      {shift, {4.0, kUnvoiced, -9.9e9, -2e10, kNaN, -kInf, -9999999999.0}, 0.5,
       {4.5, kUnvoiced, -9.9e9 + 0.5, -2e10, kNaN, -kInf, -9999999998.5}},
      {shift, {4.0, kUnvoiced, -9.9e9, kNaN}, kNaN, {kNaN, kUnvoiced, kNaN, kNaN}},
      {scale, {4.0, kUnvoiced, 6.0, -3e10}, 2.0, {3.0, kUnvoiced, 7.0, -3e10}},
      {scale, {4.0, kNaN, 6.0}, 2.0, {3.0, kNaN, 7.0}}, {scale, {1.0, 2.0, 3.0, 10.0}, 3.0, {-5.0, -2.0, 1.0, 22.0}},
      {scale, {-9.9e9, 0.0, kUnvoiced}, 2.0, {-1.485e10, 4.95e9, kUnvoiced}},
      {scale, {kUnvoiced, -2e10}, 2.0, {kUnvoiced, -2e10}},
      {scale, {4.0, kUnvoiced, 6.0}, kNaN, {kNaN, kUnvoiced, kNaN}},
      {scale, {-0.0, 0.0}, 2.0, {0.0, 0.0}}};  // (-0 - 0) * 2 + 0 = +0
  for (const auto &c : cases) {
    std::vector<double> t = c.in;
    EXPECT_EQ(c.op(static_cast<uint32_t>(t.size()), t.data(), c.amount), 0u);
    EXPECT_TRUE(samebits(t, c.out)) << "case " << &c - cases;
  }
  // A zero shift (either sign) and a factor of exactly 1 return at once: a voiced -0.0 would
  // become +0.0, NaN payloads would be at risk, 0.1 would come back as 0.10000000000000003.
  const std::vector<double> before = {0.1, -std::nan("0x55"), -0.0, 0.7, kUnvoiced};
  const std::pair<Op, double> noops[] = {{shift, 0.0}, {shift, -0.0}, {scale, 1.0}};
  for (const auto &n : noops) {
    std::vector<double> t = before;
    n.first(5, t.data(), n.second);
    EXPECT_TRUE(samebits(t, before)) << n.second;
  }
}

}  // namespace
