// Cepstral enhancement filters (16 kHz, alpha 0.42): the compressor's gain
// curve and knees, the postfilter's projection and weights, the loudness
// shape, and the three fixed tables checked against sums of their entries
// worked out by hand.
#include "ccanalysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <vector>

// The compressor takes its work array from the nothrow array new; this
// replacement lets a test make that allocation fail.
namespace {
bool gFailNothrowArrayNew = false;
int gNothrowArrayNewCalls = 0;
}  // namespace

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

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const double kDbToLogAmp = 0.1151292546497023;  // ln(10)/20

// The postfilter's reference shape and the loudness weights, entry by entry.
const double kPostShape[100] = {
    0.0,      0.038499, 0.008488, 0.01002,  0.005314, 0.005522, 0.003769, 0.003807, 0.002896, 0.002905,
    0.002345, 0.002347, 0.001967, 0.001968, 0.001693, 0.001693, 0.001484, 0.001484, 0.001321, 0.001321,
    0.001189, 0.001189, 0.001081, 0.001081, 0.00099,  0.00099,  0.000913, 0.000913, 0.000847, 0.000847,
    0.000789, 0.000789, 0.000739, 0.000739, 0.000694, 0.000694, 0.000654, 0.000654, 0.000619, 0.000618,
    0.000586, 0.000586, 0.000557, 0.000557, 0.000531, 0.000531, 0.000507, 0.000506, 0.000484, 0.000484,
    0.000464, 0.000464, 0.000445, 0.000445, 0.000427, 0.000427, 0.000411, 0.000411, 0.000396, 0.000395,
    0.000381, 0.000381, 0.000368, 0.000368, 0.000356, 0.000355, 0.000344, 0.000344, 0.000333, 0.000333,
    0.000322, 0.000322, 0.000312, 0.000312, 0.000303, 0.000303, 0.000294, 0.000294, 0.000286, 0.000286,
    0.000278, 0.000278, 0.00027,  0.00027,  0.000263, 0.000263, 0.000256, 0.000256, 0.000249, 0.000249,
    0.000243, 0.000243, 0.000237, 0.000237, 0.000231, 0.000231, 0.000226, 0.000225, 0.00022,  0.00022,
};
const double kDrcWeights[40] = {
    9.3548,  9.5034,  13.2856, 8.5283,  6.7815,  6.7028,  5.8989,  4.8194,  3.0412,  0.9842,
    1.1115,  2.9367,  0.6398,  1.9756,  0.8612,  -0.7755, -0.2643, -1.2187, -2.6671, -2.9419,
    -2.7885, -4.6615, -2.9509, -4.4856, -3.4965, -4.5608, -3.6405, -5.9302, -3.8724, -7.5799,
    -3.8302, -4.7725, -4.1459, -3.8386, -4.9377, -5.6,    -5.3026, -6.2338, -6.025,  -4.6858,
};

bool samebits(const std::vector<double> &a, const std::vector<double> &b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
}

std::vector<double> randommatrix(size_t count, uint64_t seed, double scale) {
  std::mt19937_64 gen(seed);
  std::uniform_real_distribution<double> dist(-scale, scale);
  std::vector<double> v(count);
  for (double &d : v) d = dist(gen);
  return v;
}

// Loudness in dB of a frame whose only non-zero coefficient is c0.
double loudnessofc0(double c0) { return 53.9683 + 9.3548 * c0; }

// A c0 whose frame lies exactly db dB (as a double) from a frame with c0 = loud.
double c0atdb(double loud, double db) {
  double up = loud + db / 9.3548, down = up;
  for (int i = 0; i < 4000; ++i) {
    if (loudnessofc0(up) - loudnessofc0(loud) == db) return up;
    if (loudnessofc0(down) - loudnessofc0(loud) == db) return down;
    up = std::nextafter(up, kInf);
    down = std::nextafter(down, -kInf);
  }
  return kNaN;
}

// ---------------------------------------------------------------------------
// Dynamic-range compressor

TEST(CepstralEnhancement, CompressorGainCurveAndKnees) {
  const double fortyplus = std::nextafter(-40.0, 0.0), fortyminus = std::nextafter(-40.0, -100.0);
  // d: level of the quieter frame relative to the louder one; rise: the
  // change of its level in dB, from the curve y(d) worked out by hand.
  const struct {
    double d, rise;
  } cases[] = {
      {-50.0, 0.0},
      {-45.0, 0.0},
      {fortyminus, 0.0},        // below the first knee: unchanged
      {-40.0, 0.0},             // 4*(-40) + 120 = -40
      {-39.0, 3.0},             // y = -36
      {-36.0, 12.0},            // y = -24
      {-35.0, 15.0},            // both neighbouring pieces give y = -20
      {-34.0, 14.8},            // y = 0.8*(-34) + 8 = -19.2
      {-30.0, 14.0},            // y = -16
      {-26.0, 13.2},            // y = -12.8
      {-25.0, 13.0},            // y = -12 from either side
      {-24.0, 12.4},            // y = 0.4*(-24) - 2 = -11.6
      {-21.0, 10.6},            // y = -10.4
      {-20.0, 10.0},            // y = -10 from either side
      {-19.0, 9.0},             // y = -10
      {-10.0, 0.0},             // y = -10
      {-0.5, -9.5},
      // A quarter dB to each side of every knee pins where each piece starts.
      {-40.25, 0.0},            // y = d
      {-39.75, 0.75},           // y = -39
      {-35.25, 14.25},          // y = -21
      {-34.75, 14.95},          // y = -19.8
      {-25.25, 13.05},          // y = -12.2
      {-24.75, 12.85},          // y = -11.9
      {-20.25, 10.15},          // y = -10.1
      {-19.75, 9.75},           // y = -10
  };
  for (const auto &c : cases) {
    const double quiet = c0atdb(1.0, c.d);
    ASSERT_FALSE(std::isnan(quiet)) << "no c0 found for d=" << c.d;
    std::vector<double> cc = {1.0, quiet};  // order 0: one c0 per frame
    EXPECT_EQ(applycdrc16k042(cc.data(), 0, 2, 1.0), 0u);
    EXPECT_NEAR(cc[0], 1.0 - 10 * kDbToLogAmp, 1e-14) << "d=" << c.d;  // the loudest goes to -10 dB
    EXPECT_NEAR(cc[1], quiet + c.rise * kDbToLogAmp, 1e-13) << "d=" << c.d;
    if (c.rise == 0.0) {
      EXPECT_EQ(cc[1], quiet) << "d=" << c.d;
    }
  }
  // One step above -40 dB the raising piece 4d + 120 already applies.
  {
    const double quiet = c0atdb(1.0, fortyplus);
    std::vector<double> cc = {1.0, quiet};
    applycdrc16k042(cc.data(), 0, 2, 1.0);
    EXPECT_GT(cc[1], quiet);
    EXPECT_LT(cc[1], quiet + 1e-13);
  }
  // The factor scales the change in dB: f = 0.5 and f = -1 at d = -35.
  for (double f : {0.5, -1.0, 2.0}) {
    const double quiet = c0atdb(1.0, -35.0);
    std::vector<double> cc = {1.0, quiet};
    applycdrc16k042(cc.data(), 0, 2, f);
    EXPECT_NEAR(cc[0], 1.0 - f * 10 * kDbToLogAmp, 1e-14) << f;
    EXPECT_NEAR(cc[1], quiet + f * 15 * kDbToLogAmp, 1e-14) << f;
  }
  // The worked example: frames 35 dB apart, f = 1.
  {
    const double quiet = c0atdb(1.0, -35.0);
    std::vector<double> cc = {quiet, 1.0};
    applycdrc16k042(cc.data(), 0, 2, 1.0);
    EXPECT_NEAR(cc[0] - quiet, 1.72694, 5e-6);
    EXPECT_NEAR(cc[1] - 1.0, -1.15129, 5e-6);
  }
}

TEST(CepstralEnhancement, CompressorSingleFrameDropsByTenDecibels) {
  // d = 0 whatever the frame: c0 falls by f * 10 dB, nothing else moves.
  for (uint32_t order : {0u, 12u, 39u, 60u}) {
    for (double f : {1.0, 0.5, 3.0, -1.0}) {
      std::vector<double> cc = randommatrix(order + 1, 11 + order, 2.0);
      const std::vector<double> before = cc;
      EXPECT_EQ(applycdrc16k042(cc.data(), order, 1, f), 0u);
      EXPECT_NEAR(cc[0], before[0] - f * 1.151292546497023, 1e-14) << order << " " << f;
      for (uint32_t k = 1; k <= order; ++k) EXPECT_EQ(cc[k], before[k]) << order << " k=" << k;
    }
  }
  std::vector<double> cc = {0.0};
  applycdrc16k042(cc.data(), 0, 1, 1.0);
  EXPECT_NEAR(cc[0], -1.1513, 1e-4);
}

TEST(CepstralEnhancement, CompressorUsesOnlyTheFirstFortyCoefficientsAndSkipsNaNFrames) {
  // Order 120: huge values from c40 on do not make a frame louder, and only
  // c0 of each row changes.
  const uint32_t order = 120, stride = order + 1;
  std::vector<double> cc(2 * stride, 0.0);
  cc[0] = 1.0;
  const double quiet = c0atdb(1.0, -30.0);
  cc[stride] = quiet;
  for (uint32_t k = 40; k <= order; ++k) cc[stride + k] = 1e6 + k;
  const std::vector<double> before = cc;
  applycdrc16k042(cc.data(), order, 2, 1.0);
  EXPECT_NEAR(cc[0], 1.0 - 10 * kDbToLogAmp, 1e-14);
  EXPECT_NEAR(cc[stride], quiet + 14 * kDbToLogAmp, 1e-13);
  for (uint32_t i = 0; i < cc.size(); ++i)
    if (i != 0 && i != stride) {
      EXPECT_EQ(cc[i], before[i]) << i;
    }

  // A NaN loudness never becomes the maximum, even in the first frame: the
  // others are still compressed against the loudest real frame.
  std::vector<double> withnan = {kNaN, 1.0, c0atdb(1.0, -30.0)};
  const double q = withnan[2];
  applycdrc16k042(withnan.data(), 0, 3, 1.0);
  EXPECT_TRUE(std::isnan(withnan[0]));
  EXPECT_NEAR(withnan[1], 1.0 - 10 * kDbToLogAmp, 1e-14);
  EXPECT_NEAR(withnan[2], q + 14 * kDbToLogAmp, 1e-13);

  // Wherever the NaN frame sits, it is skipped when taking the maximum.
  for (int nanpos = 0; nanpos < 3; ++nanpos) {
    std::vector<double> frames = {1.0, c0atdb(1.0, -30.0)};
    const double quieter = frames[1];
    frames.insert(frames.begin() + nanpos, kNaN);
    applycdrc16k042(frames.data(), 0, 3, 1.0);
    std::vector<double> rest;
    for (int i = 0; i < 3; ++i) {
      if (i == nanpos)
        EXPECT_TRUE(std::isnan(frames[i]));
      else
        rest.push_back(frames[i]);
    }
    EXPECT_NEAR(rest[0], 1.0 - 10 * kDbToLogAmp, 1e-14) << nanpos;
    EXPECT_NEAR(rest[1], quieter + 14 * kDbToLogAmp, 1e-13) << nanpos;
  }

  // The maximum starts from the most negative finite double, so a single
  // frame of loudness around -9.5e307 dB is still its own loudest frame.
  std::vector<double> faint = {0.0, -1e307};
  applycdrc16k042(faint.data(), 1, 1, 1.0);
  EXPECT_NEAR(faint[0], -10 * kDbToLogAmp, 1e-15);
  EXPECT_EQ(faint[1], -1e307);

  // Equal loudest frames both go to -10 dB.
  std::vector<double> ties = {2.0, 2.0};
  applycdrc16k042(ties.data(), 0, 2, 1.0);
  EXPECT_EQ(ties[0], ties[1]);
  EXPECT_NEAR(ties[0], 2.0 - 10 * kDbToLogAmp, 1e-14);
}

TEST(CepstralEnhancement, CompressorWeightsMatchTheTable) {
  // Recover each weight from the compressor itself: a frame of zeros and a
  // frame with c_j = s placed about 30 dB louder.  The quieter frame then sits
  // on the 0.8 d + 8 piece, so its rise (8 - 0.2 d dB) gives d, and d gives w_j.
  const uint32_t order = 39, stride = order + 1;
  std::vector<double> w(40);
  for (uint32_t j = 0; j < 40; ++j) {
    const double s = 30.0 / kDrcWeights[j];
    std::vector<double> cc(2 * stride, 0.0);
    cc[stride + j] = s;
    applycdrc16k042(cc.data(), order, 2, 1.0);
    const double d = (8.0 - cc[0] / kDbToLogAmp) / 0.2;
    ASSERT_GT(d, -35.0) << j;
    ASSERT_LT(d, -25.0) << j;
    w[j] = -d / s;
    EXPECT_NEAR(w[j], kDrcWeights[j], 1e-9) << "weight " << j;
  }
  // Sums of the table's entries, worked out by hand.
  double sum = 0, ksum = 0, rows[4] = {0, 0, 0, 0};
  for (uint32_t k = 0; k < 40; ++k) {
    sum += w[k];
    ksum += k * w[k];
    rows[k / 10] += w[k];
  }
  EXPECT_NEAR(sum, -24.7815, 1e-9);
  EXPECT_NEAR(ksum, -2649.0482, 1e-8);
  const double rowsums[4] = {68.9001, -0.3427, -43.9668, -49.3721};
  for (int r = 0; r < 4; ++r) EXPECT_NEAR(rows[r], rowsums[r], 1e-9) << "row " << r;
}

TEST(CepstralEnhancement, CompressorLeavesTheMatrixWhenItsWorkArrayCannotBeHad) {
  std::vector<double> cc = {1.0, c0atdb(1.0, -30.0), -0.5};
  const std::vector<double> before = cc;
  gNothrowArrayNewCalls = 0;
  gFailNothrowArrayNew = true;
  EXPECT_EQ(applycdrc16k042(cc.data(), 0, 3, 1.0), 0u);
  gFailNothrowArrayNew = false;
  ASSERT_GE(gNothrowArrayNewCalls, 1) << "the work array no longer comes from nothrow new[]";
  EXPECT_TRUE(samebits(cc, before));
  // With the allocation available the same call does change the frames.
  applycdrc16k042(cc.data(), 0, 3, 1.0);
  EXPECT_FALSE(samebits(cc, before));
}

// ---------------------------------------------------------------------------
// Postfilter

TEST(CepstralEnhancement, PostfilterKeepsTheReferenceShapeAndAmplifiesTheRest) {
  // A multiple of the reference shape is left as it is (to rounding), for
  // order 99, for order 24 (the projection uses only c1..c24) and for order
  // 120 (c100..c120 pass through).
  for (uint32_t order : {99u, 24u, 120u, 1u}) {
    const uint32_t stride = order + 1, K = order < 99 ? order : 99;
    for (double a : {3.7, -120.0}) {
      std::vector<double> cc(2 * stride);
      for (uint32_t t = 0; t < 2; ++t) {
        cc[t * stride] = 5.5 + t;
        for (uint32_t k = 1; k <= order; ++k) cc[t * stride + k] = k <= 99 ? a * (t + 1) * kPostShape[k] : 0.25 * k;
      }
      const std::vector<double> before = cc;
      EXPECT_EQ(applycpostfilt16k042(cc.data(), order, 2, 0.8, nullptr), 0u);
      for (uint32_t t = 0; t < 2; ++t) {
        EXPECT_EQ(cc[t * stride], before[t * stride]);
        for (uint32_t k = 1; k <= K; ++k)
          EXPECT_NEAR(cc[t * stride + k], before[t * stride + k], 1e-15 * std::fabs(a))
              << "order " << order << " a " << a << " k " << k;
        for (uint32_t k = K + 1; k <= order; ++k) EXPECT_EQ(cc[t * stride + k], before[t * stride + k]);
      }
    }
  }

  // A frame orthogonal to the shape (pairs (t[k+1], -t[k]) give an exactly
  // zero projection) has c1.. multiplied by 1 + f; c0 never changes.
  for (double f : {0.5, 1.0, 0.25, -0.5}) {
    std::vector<double> cc(100, 0.0);
    cc[0] = -3.0;
    for (uint32_t k = 1; k + 1 <= 99; k += 2) {
      cc[k] = kPostShape[k + 1];
      cc[k + 1] = -kPostShape[k];
    }
    const std::vector<double> before = cc;
    applycpostfilt16k042(cc.data(), 99, 1, f, nullptr);
    EXPECT_EQ(cc[0], -3.0);
    for (uint32_t k = 1; k <= 99; ++k) EXPECT_EQ(cc[k], before[k] * (1 + f)) << "f " << f << " k " << k;
  }

  // A general frame: the component along the shape is kept, the rest scaled.
  {
    std::vector<double> cc = randommatrix(100, 5, 0.5);
    const std::vector<double> before = cc;
    const double f = 0.6;
    applycpostfilt16k042(cc.data(), 99, 1, f, nullptr);
    long double dot = 0, energy = 0;
    for (int k = 1; k <= 99; ++k) {
      dot += static_cast<long double>(kPostShape[k]) * before[k];
      energy += static_cast<long double>(kPostShape[k]) * kPostShape[k];
    }
    const long double p = dot / energy;
    EXPECT_EQ(cc[0], before[0]);
    for (int k = 1; k <= 99; ++k) {
      const long double along = kPostShape[k] * p;
      EXPECT_NEAR(cc[k], static_cast<double>(along + (before[k] - along) * (1 + f)), 1e-14) << k;
    }
  }

  // Order 0: no coefficient beyond c0, nothing to do.
  std::vector<double> c0only = {1.5, -2.5};
  applycpostfilt16k042(c0only.data(), 0, 2, 1.0, nullptr);
  EXPECT_EQ(c0only[0], 1.5);
  EXPECT_EQ(c0only[1], -2.5);
}

TEST(CepstralEnhancement, PostfilterWeightsAreClampedPerFrame) {
  const double f = 0.8;
  const struct {
    double weight, gain;  // effective strength g = f * clamp(weight)
  } cases[] = {
      {2.0, f}, {kNaN, f}, {-1.0, 0.0}, {0.5, 0.5 * f}, {1.0, f},
      {0.0, 0.0}, {kInf, f}, {-kInf, 0.0}, {0.25, 0.25 * f}, {-0.0, 0.0},
  };
  const uint32_t n = sizeof(cases) / sizeof(cases[0]);
  std::vector<double> frame(100, 0.0);
  frame[0] = 0.75;
  for (uint32_t k = 1; k + 1 <= 99; k += 2) {
    frame[k] = kPostShape[k + 1];
    frame[k + 1] = -kPostShape[k];
  }
  std::vector<double> cc, weights;
  for (uint32_t t = 0; t < n; ++t) {
    cc.insert(cc.end(), frame.begin(), frame.end());
    weights.push_back(cases[t].weight);
  }
  applycpostfilt16k042(cc.data(), 99, n, f, weights.data());
  for (uint32_t t = 0; t < n; ++t) {
    EXPECT_EQ(cc[t * 100], 0.75);
    for (uint32_t k = 1; k <= 99; ++k) {
      if (cases[t].gain == 0.0)
        EXPECT_EQ(cc[t * 100 + k], frame[k]) << "weight " << cases[t].weight << " k " << k;
      else
        EXPECT_DOUBLE_EQ(cc[t * 100 + k], frame[k] * (1 + cases[t].gain)) << "weight " << cases[t].weight;
    }
  }
}

TEST(CepstralEnhancement, PostfilterShapeMatchesTheTable) {
  // A unit c1 comes back as c1 = 2 - t1^2/E and ck = -t1 tk / E (k >= 2), so
  // the filter reveals its shape up to scale: tk/t1 = -ck / (2 - c1).
  std::vector<double> cc(100, 0.0);
  cc[1] = 1.0;
  applycpostfilt16k042(cc.data(), 99, 1, 1.0, nullptr);
  const double s = 2.0 - cc[1];
  // t1^2 / E with t1 = 0.038499 and E = 0.001814518258, the sum of the
  // squares of entries 1..99.
  EXPECT_NEAR(s, 0.8168410510422099, 1e-13);
  double ratiosum = 1.0, kratiosum = 1.0;
  for (int k = 2; k <= 99; ++k) {
    const double ratio = -cc[k] / s;
    ratiosum += ratio;
    kratiosum += k * ratio;
  }
  // Sum of entries 1..99 (0.137028) and of k*t[k] (2.324806), over t1.
  EXPECT_NEAR(ratiosum, 0.137028 / 0.038499, 1e-11);
  EXPECT_NEAR(kratiosum, 2.324806 / 0.038499, 1e-10);

  // Order 24: the energy is that of entries 1..24 (0.001797396379).
  std::vector<double> c24(25, 0.0);
  c24[1] = 1.0;
  applycpostfilt16k042(c24.data(), 24, 1, 1.0, nullptr);
  EXPECT_NEAR(2.0 - c24[1], 0.038499 * 0.038499 / 0.001797396379, 1e-13);
}

// ---------------------------------------------------------------------------
// Loudness filter

TEST(CepstralEnhancement, LoudnessFilterAddsTheScaledShape) {
  // f = 1 on zeros of order 99 gives the shape itself; its sums, by hand from
  // the table's entries, check it in groups of ten.
  std::vector<double> shape(100, 0.0);
  EXPECT_EQ(applycloudfilt16k042(shape.data(), 99, 1, 1.0), 0u);
  double sum = 0, ksum = 0, rows[10] = {};
  for (int k = 0; k < 100; ++k) {
    sum += shape[k];
    ksum += k * shape[k];
    rows[k / 10] += shape[k];
  }
  EXPECT_NEAR(sum, -0.086091, 1e-13);
  EXPECT_NEAR(ksum, -2.024694, 1e-12);
  const double rowsums[10] = {-0.030123, -0.032405, -0.009295, -0.004552, -0.003002,
                              -0.002534, -0.001604, -0.000960, -0.000834, -0.000782};
  for (int r = 0; r < 10; ++r) EXPECT_NEAR(rows[r], rowsums[r], 1e-14) << "row " << r;
  EXPECT_EQ(shape[0], 0.216217);
  EXPECT_EQ(shape[99], -0.000008);

  // Order 24: every row receives entries 0..24; order 120: columns 100..120
  // stay 0.  f = 2 adds exactly twice the shape, on top of what was there.
  for (uint32_t order : {24u, 120u}) {
    const uint32_t stride = order + 1, nframes = 3;
    std::vector<double> cc(nframes * stride, 0.0);
    applycloudfilt16k042(cc.data(), order, nframes, 1.0);
    for (uint32_t t = 0; t < nframes; ++t)
      for (uint32_t k = 0; k <= order; ++k)
        EXPECT_EQ(cc[t * stride + k], k < 100 ? shape[k] : 0.0) << "order " << order << " t " << t << " k " << k;
    std::vector<double> base = randommatrix(nframes * stride, 77, 1.0);
    std::vector<double> scaled = base;
    applycloudfilt16k042(scaled.data(), order, nframes, 2.0);
    for (uint32_t t = 0; t < nframes; ++t)
      for (uint32_t k = 0; k <= order; ++k)
        EXPECT_EQ(scaled[t * stride + k], base[t * stride + k] + (k < 100 ? 2.0 * shape[k] : 0.0));
  }
}

// ---------------------------------------------------------------------------
// All three

TEST(CepstralEnhancement, FactorZeroNoFramesAndNaNFactor) {
  const uint32_t order = 39, nframes = 4, stride = order + 1;
  std::vector<double> cc = randommatrix(nframes * stride, 3, 3.0);
  cc[0] = -std::nan("0x7");
  cc[stride + 1] = -0.0;
  cc[2 * stride + 2] = kInf;
  const std::vector<double> before = cc;
  const std::vector<double> weights = {0.5, kNaN, 2.0, -1.0};
  EXPECT_EQ(applycdrc16k042(cc.data(), order, nframes, 0.0), 0u);
  EXPECT_EQ(applycpostfilt16k042(cc.data(), order, nframes, 0.0, nullptr), 0u);
  EXPECT_EQ(applycpostfilt16k042(cc.data(), order, nframes, -0.0, weights.data()), 0u);
  EXPECT_EQ(applycloudfilt16k042(cc.data(), order, nframes, 0.0), 0u);
  EXPECT_TRUE(samebits(cc, before));

  // No frames: nothing is read or written.
  EXPECT_EQ(applycdrc16k042(nullptr, order, 0, 1.0), 0u);
  EXPECT_EQ(applycpostfilt16k042(nullptr, order, 0, 1.0, nullptr), 0u);
  EXPECT_EQ(applycloudfilt16k042(nullptr, order, 0, 1.0), 0u);

  // A NaN factor is not 0 and is applied.
  std::vector<double> c = {1.0, 0.5, 2.0, 0.25};
  applycdrc16k042(c.data(), 1, 2, kNaN);
  EXPECT_TRUE(std::isnan(c[0]) && std::isnan(c[2]));
  EXPECT_EQ(c[1], 0.5);
  c = {1.0, 0.5, 2.0, 0.25};
  applycloudfilt16k042(c.data(), 1, 2, kNaN);
  for (double v : c) EXPECT_TRUE(std::isnan(v));
  c = {1.0, 0.5, 2.0, 0.25};
  applycpostfilt16k042(c.data(), 1, 2, kNaN, nullptr);
  EXPECT_EQ(c[0], 1.0);
  EXPECT_EQ(c[2], 2.0);
  EXPECT_TRUE(std::isnan(c[1]) && std::isnan(c[3]));
}

}  // namespace
