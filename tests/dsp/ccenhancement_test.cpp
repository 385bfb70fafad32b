// Cepstral enhancement filters (16 kHz, alpha 0.42): the compressor's gain
// curve and knees, the postfilter's projection and weights, the loudness
// shape, and the three fixed tables checked against hand-worked sums.
#include "ccanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <new>
#include <vector>

#include "support/synthref.h"

// The compressor's work array comes from the nothrow array new; this
// replacement lets a test make that allocation fail.
static bool gFailNothrowArrayNew = false;
static int gNothrowArrayNewCalls = 0;

void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
  ++gNothrowArrayNewCalls;
  if (gFailNothrowArrayNew) return nullptr;
  try {
    return ::operator new[](size);
  } catch (...) {
    return nullptr;
  }
}

namespace {

using namespace kestreltest;

const double kDbToLogAmp = 0.1151292546497023;  // ln(10)/20

// A c0 whose loudness (53.9683 + 9.3548 c0 dB, order 0) lies exactly db dB, as a double, from c0 = 1.
double c0atdb(double db) {
  auto loud = [](double c0) { return 53.9683 + 9.3548 * c0; };
  double up = 1.0 + db / 9.3548, down = up;
  for (int i = 0; i < 4000; ++i, up = std::nextafter(up, kInf), down = std::nextafter(down, -kInf)) {
    if (loud(up) - loud(1.0) == db) return up;
    if (loud(down) - loud(1.0) == db) return down;
  }
  return kNaN;
}

TEST(CepstralEnhancement, CompressorGainCurveAndKnees) {
  // d: level of the quieter frame relative to the louder one; rise: its change
  // in dB from y(d) by hand, scaled by the factor f (the loudest goes to -10 f dB).
  const struct { double d, rise, f = 1.0; } cases[] = {
      {-45.0, 0.0},   {-40.0, 0.0},  {-39.0, 3.0},   {-35.25, 14.25}, {-35.0, 15.0}, {-34.0, 14.8},
      {-25.25, 13.05}, {-25.0, 13.0}, {-24.75, 12.85}, {-20.25, 10.15}, {-20.0, 10.0}, {-19.0, 9.0},
      {-0.5, -9.5},   {-35.0, 15.0, 0.5}, {-35.0, 15.0, -1.0},
  };
  for (const auto &c : cases) {
    const double quiet = c0atdb(c.d);
    ASSERT_FALSE(std::isnan(quiet)) << c.d;
    std::vector<double> cc = {1.0, quiet};  // order 0: one c0 per frame
    EXPECT_EQ(applycdrc16k042(cc.data(), 0, 2, c.f), 0u);
    EXPECT_NEAR(cc[0], 1.0 - c.f * 10 * kDbToLogAmp, 1e-14) << c.d;
    EXPECT_NEAR(cc[1], quiet + c.f * c.rise * kDbToLogAmp, c.rise == 0.0 ? 0.0 : 1e-13) << c.d << " " << c.f;
  }
}

TEST(CepstralEnhancement, CompressorMaximumSkipsNaNAndUsesFortyCoefficients) {
  // Order 120: huge values from c40 on do not make a frame louder; only c0 of each row changes.
  // A NaN loudness, first in line, never becomes the maximum.
  const uint32_t stride = 121;
  std::vector<double> cc(3 * stride, 0.0);
  cc[0] = kNaN, cc[stride] = 1.0, cc[2 * stride] = c0atdb(-30.0);
  for (uint32_t k = 40; k <= 120; ++k) cc[2 * stride + k] = 1e6 + k;
  std::vector<double> want = cc;
  want[stride] = 1.0 - 10 * kDbToLogAmp, want[2 * stride] += 14 * kDbToLogAmp;
  applycdrc16k042(cc.data(), 120, 3, 1.0);
  EXPECT_TRUE(std::isnan(cc[0]));
  for (size_t i = 1; i < cc.size(); ++i) EXPECT_NEAR(cc[i], want[i], i % stride ? 0.0 : 1e-13) << i;
  // The maximum starts from the lowest finite double: a frame of about -9.5e307 dB is its own loudest
  // and goes to exactly -10 dB (the dB-to-log-amplitude constant to the last bit).
  std::vector<double> faint = {0.0, -1e307};
  applycdrc16k042(faint.data(), 1, 1, 1.0);
  EXPECT_TRUE(faint[0] == -10 * kDbToLogAmp && faint[1] == -1e307);
}

TEST(CepstralEnhancement, CompressorWeightsMatchTheTable) {
  // A frame of zeros and one with c_j = 1 differ by w_j dB (|w_j| < 20): both sit on the
  // top piece, the louder rises by -10 dB and the quieter by -10 - d, so w_j is the
  // rise of the zero frame minus that of the other, whichever is louder.
  double sum = 0, ksum = 0, rows[4] = {0, 0, 0, 0};
  for (uint32_t j = 0; j < 40; ++j) {
    std::vector<double> cc(80, 0.0);
    cc[40 + j] = 1.0;
    applycdrc16k042(cc.data(), 39, 2, 1.0);
    const double w = (cc[0] - (cc[40] - (j == 0 ? 1.0 : 0.0))) / kDbToLogAmp;
    sum += w, ksum += j * w, rows[j / 10] += w;
  }
  // Sums of the table's entries, worked out by hand.
  EXPECT_NEAR(sum, -24.7815, 1e-9);
  EXPECT_NEAR(ksum, -2649.0482, 1e-8);
  const double rowsums[4] = {68.9001, -0.3427, -43.9668, -49.3721};
  for (int r = 0; r < 4; ++r) EXPECT_NEAR(rows[r], rowsums[r], 1e-9) << "row " << r;
}

TEST(CepstralEnhancement, CompressorLeavesTheMatrixWhenItsWorkArrayCannotBeHad) {
  std::vector<double> cc = {1.0, c0atdb(-30.0), -0.5};
  const std::vector<double> before = cc;
  gNothrowArrayNewCalls = 0, gFailNothrowArrayNew = true;
  EXPECT_EQ(applycdrc16k042(cc.data(), 0, 3, 1.0), 0u);
  gFailNothrowArrayNew = false;
  ASSERT_GE(gNothrowArrayNewCalls, 1) << "the work array no longer comes from nothrow new[]";
  EXPECT_TRUE(samebits(cc, before));
}

TEST(CepstralEnhancement, PostfilterShapeMatchesTheTableAndWeightsAreClampedPerFrame) {
  // A unit c1 comes back as c1 = 2 - t1^2/E and ck = -t1 tk / E (k >= 2): tk/t1 = -ck / (2 - c1).
  // Order 120: c0 and c100.. pass through.
  std::vector<double> u(121, 0.0), c24(25, 0.0);
  u[1] = c24[1] = 1.0, u[0] = u[100] = u[120] = 0.5;
  applycpostfilt16k042(u.data(), 120, 1, 1.0, nullptr);
  EXPECT_TRUE(u[0] == 0.5 && u[100] == 0.5 && u[120] == 0.5);
  applycpostfilt16k042(c24.data(), 24, 1, 1.0, nullptr);
  const double s = 2.0 - u[1];
  // t1 = 0.038499; E = 0.001814518258 (entries 1..99) and 0.001797396379 (1..24), sums of squares by hand.
  EXPECT_NEAR(s, 0.038499 * 0.038499 / 0.001814518258, 1e-12);
  EXPECT_NEAR(2.0 - c24[1], 0.038499 * 0.038499 / 0.001797396379, 1e-13);
  double ratiosum = 1.0, kratiosum = 1.0;
  for (int k = 2; k <= 99; ++k) ratiosum -= u[k] / s, kratiosum -= k * u[k] / s;
  // Sum of entries 1..99 (0.137028) and of k t[k] (2.324806), over t1.
  EXPECT_NEAR(ratiosum, 0.137028 / 0.038499, 1e-11);
  EXPECT_NEAR(kratiosum, 2.324806 / 0.038499, 1e-10);
  // Per-frame weights: the effective strength f * clamp(weight, 0, 1), a NaN weight at full
  // strength. Pairs (t[k+1], -t[k]) are orthogonal to the shape (to rounding): c1.. times 1 + gain.
  const double f = 0.8;
  const struct { double weight, gain; } cases[] = {{2.0, f}, {kNaN, f}, {-1.0, 0.0}, {0.5, 0.5 * f}, {-kInf, 0.0}};
  std::vector<double> frame(100, 0.0), cc, weights;
  frame[0] = 0.75;
  for (uint32_t k = 1; k + 1 <= 99; k += 2) frame[k] = -u[k + 1], frame[k + 1] = k == 1 ? -s : u[k];
  for (const auto &c : cases) cc.insert(cc.end(), frame.begin(), frame.end()), weights.push_back(c.weight);
  applycpostfilt16k042(cc.data(), 99, 5, f, weights.data());
  for (uint32_t t = 0; t < 5; ++t)
    for (uint32_t k = 0; k <= 99; ++k)  // exact where nothing changes
      EXPECT_NEAR(cc[t * 100 + k], frame[k] * (1 + (k ? cases[t].gain : 0.0)), cases[t].gain && k ? 1e-15 : 0.0)
          << "weight " << cases[t].weight << " k " << k;
}

TEST(CepstralEnhancement, LoudnessFilterAddsTheScaledShape) {
  // f = 1 on zeros of order 99 gives the shape itself, checked by hand-worked sums in rows of ten.
  std::vector<double> shape(100, 0.0);
  EXPECT_EQ(applycloudfilt16k042(shape.data(), 99, 1, 1.0), 0u);
  double ksum = 0, rows[10] = {};
  for (int k = 0; k < 100; ++k) ksum += k * shape[k], rows[k / 10] += shape[k];
  EXPECT_NEAR(ksum, -2.024694, 1e-12);
  const double rowsums[10] = {-0.030123, -0.032405, -0.009295, -0.004552, -0.003002,
                              -0.002534, -0.001604, -0.000960, -0.000834, -0.000782};
  for (int r = 0; r < 10; ++r) EXPECT_NEAR(rows[r], rowsums[r], 1e-14) << "row " << r;
  EXPECT_TRUE(shape[0] == 0.216217 && shape[99] == -0.000008);
  // Every row gets entries 0..min(order, 99), f times, on top of what is there.
  for (uint32_t order : {24u, 120u}) {
    const uint32_t stride = order + 1;
    std::vector<double> cc = uniformvec(3 * stride, 77), want = cc;
    for (uint32_t i = 0; i < cc.size(); ++i) want[i] += i % stride < 100 ? 2.0 * shape[i % stride] : 0.0;
    applycloudfilt16k042(cc.data(), order, 3, 2.0);
    EXPECT_TRUE(samebits(cc, want)) << order;
  }
}

TEST(CepstralEnhancement, FactorZeroNoFramesAndNaNFactor) {
  // Factor 0 (either sign) leaves every bit, NaN payloads and -0.0 included.
  std::vector<double> cc = uniformvec(160, 3, 3.0);
  cc[0] = -std::nan("0x7"), cc[41] = -0.0, cc[82] = kInf;
  const std::vector<double> before = cc, weights = {0.5, kNaN, 2.0, -1.0};
  EXPECT_EQ(applycdrc16k042(cc.data(), 39, 4, 0.0), 0u);
  EXPECT_EQ(applycpostfilt16k042(cc.data(), 39, 4, 0.0, nullptr), 0u);
  EXPECT_EQ(applycpostfilt16k042(cc.data(), 39, 4, -0.0, weights.data()), 0u);
  EXPECT_EQ(applycloudfilt16k042(cc.data(), 39, 4, 0.0), 0u);
  EXPECT_TRUE(samebits(cc, before));
  // No frames: nothing is read or written.
  EXPECT_EQ(applycdrc16k042(nullptr, 39, 0, 1.0) + applycpostfilt16k042(nullptr, 39, 0, 1.0, nullptr) +
            applycloudfilt16k042(nullptr, 39, 0, 1.0), 0u);
  // A NaN factor is not 0 and is applied (to c0, to c1.., to everything).
  std::vector<double> d = {1.0, 0.5, 2.0, 0.25}, p = d, l = d;
  applycdrc16k042(d.data(), 1, 2, kNaN);
  applycpostfilt16k042(p.data(), 1, 2, kNaN, nullptr);
  applycloudfilt16k042(l.data(), 1, 2, kNaN);
  EXPECT_TRUE(std::isnan(d[0]) && d[1] == 0.5 && std::isnan(d[2]) && d[3] == 0.25);
  EXPECT_TRUE(p[0] == 1.0 && std::isnan(p[1]) && p[2] == 2.0 && std::isnan(p[3]));
  for (double v : l) EXPECT_TRUE(std::isnan(v));
}

}  // namespace
