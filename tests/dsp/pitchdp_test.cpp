// Whole-utterance pitch tracking: steady and gliding harmonic signals across
// the range, a missing fundamental, voicing across noise and silence gaps,
// the frame grid, and refused arguments.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "pitchanalysis.h"

namespace {

constexpr double kFs = 16000.0, kPi = 3.141592653589793;
constexpr uint32_t kShift = 80;

// Harmonics k = kfirst.. below 4 kHz of a track f(t) (Hz per sample), with
// amplitudes 1/k, phase-continuous.
std::vector<double> harmonics(const std::vector<double> &f, uint32_t kfirst = 1) {
  std::vector<double> x(f.size(), 0.0);
  double ph = 0.0;
  for (size_t i = 0; i < f.size(); ++i) {
    ph += 2.0 * kPi * f[i] / kFs;
    if (f[i] <= 0.0) continue;
    for (uint32_t k = kfirst; k * f[i] < 4000.0; ++k) x[i] += 0.3 / k * std::cos(k * ph);
  }
  return x;
}

uint32_t framesof(size_t n) { return static_cast<uint32_t>((n - 1) / kShift - 1); }

TEST(PitchTrackDp, FollowsHarmonicSignalsAcrossTheRange) {
  const struct { double from, to; uint32_t kfirst; } rows[] = {
      {70, 70, 1}, {150, 150, 1}, {300, 300, 1}, {480, 480, 1}, {90, 360, 1},
      {200, 200, 2},  // missing fundamental: still 200 Hz, not 400
      {120, 120, 3}};
  for (const auto &r : rows) {
    SCOPED_TRACE(testing::Message() << r.from << "-" << r.to << " Hz from harmonic " << r.kfirst);
    std::vector<double> f(24000);
    for (size_t i = 0; i < f.size(); ++i) f[i] = r.from * std::pow(r.to / r.from, double(i) / f.size());
    const std::vector<double> x = harmonics(f, r.kfirst);
    const uint32_t nf = framesof(x.size());
    std::vector<double> f0(nf, -1.0);
    ASSERT_EQ(getpitchdp(x.data(), uint32_t(x.size()), kFs, kShift, kShift, nf, 60, 500, f0.data()), 0);
    for (uint32_t k = 4; k + 4 < nf; ++k) {
      const double want = f[(k + 1) * kShift];
      ASSERT_NEAR(f0[k] / want, 1.0, 0.005) << "frame " << k << ": " << f0[k] << " Hz";
    }
  }
}

TEST(PitchTrackDp, NoiseAndSilenceGapsAreUnvoiced) {
  // 0.4 s voiced, 0.3 s white noise, 0.4 s voiced, 0.3 s silence, 0.4 s voiced.
  std::vector<double> f;
  for (const double v : {130, 0, 180, 0, 230}) f.insert(f.end(), v ? 6400 : 4800, v);
  std::vector<double> x = harmonics(f);
  std::mt19937 gen(3);
  std::normal_distribution<double> noise(0.0, 0.05);
  for (size_t i = 6400; i < 11200; ++i) x[i] = noise(gen);
  const uint32_t nf = framesof(x.size());
  std::vector<double> f0(nf);
  ASSERT_EQ(getpitchdp(x.data(), uint32_t(x.size()), kFs, kShift, kShift, nf, 60, 500, f0.data()), 0);
  // Frames at least 30 ms from a boundary.
  for (uint32_t k = 0; k < nf; ++k) {
    const size_t c = (k + 1) * kShift;
    bool near = c < 480 || c + 480 > f.size();
    for (const size_t b : {6400, 11200, 17600, 22400}) near = near || (c + 480 > b && c < b + 480);
    if (near) continue;
    if (f[c] > 0.0) EXPECT_NEAR(f0[k] / f[c], 1.0, 0.005) << "frame " << k;
    else EXPECT_EQ(f0[k], 0.0) << "frame " << k;
  }
}

TEST(PitchTrackDp, FramesSitOnTheGrid) {
  // 100 Hz up to sample 8000, 200 Hz after: with frames centred on
  // first + k shift, the change falls between the frames either side of 8000.
  std::vector<double> f(16000, 100.0);
  for (size_t i = 8000; i < f.size(); ++i) f[i] = 200.0;
  const std::vector<double> x = harmonics(f);
  for (const uint32_t first : {40u, 80u, 120u}) {
    std::vector<double> f0(190);
    ASSERT_EQ(getpitchdp(x.data(), 16000, kFs, kShift, first, 190, 60, 500, f0.data()), 0);
    for (uint32_t k = 0; k < 190; ++k) {
      const int64_t c = first + int64_t(k) * kShift;
      if (std::llabs(c - 8000) < 240 || c < 200 || c > 15800) continue;
      EXPECT_NEAR(f0[k], c < 8000 ? 100.0 : 200.0, 1.0) << "first " << first << " frame " << k;
    }
  }
}

TEST(PitchTrackDp, RefusedArgumentsGiveAnUnvoicedTrack) {
  const std::vector<double> x = harmonics(std::vector<double>(4000, 150.0));
  const struct { double fs; uint32_t shift; double f0max; } rows[] = {
      {0, 80, 500},     {-16000, 80, 500},     {NAN, 80, 500}, {INFINITY, 80, 500},
      {16000, 0, 500}, {16000, 80, INFINITY}, {1e9, 80, 500}};
  for (const auto &r : rows) {
    std::vector<double> f0(40, 7.0);
    EXPECT_EQ(getpitchdp(x.data(), 4000, r.fs, r.shift, 80, 40, 60, r.f0max, f0.data()), -1) << r.fs;
    EXPECT_EQ(f0, std::vector<double>(40, 0.0));
  }
  std::vector<double> f0(1, 7.0);
  EXPECT_EQ(getpitchdp(x.data(), 4000, kFs, 80, 80, 0, 60, 500, f0.data()), 0);
  EXPECT_EQ(f0[0], 7.0);
  // Defaults as getpitch's: f0min <= 0 is 60 Hz, f0max <= f0min (or NaN) is 500 Hz.
  std::vector<double> a(40), b(40), c(40);
  ASSERT_EQ(getpitchdp(x.data(), 4000, kFs, 80, 80, 40, 0, 0, a.data()), 0);
  ASSERT_EQ(getpitchdp(x.data(), 4000, kFs, 80, 80, 40, 60, NAN, b.data()), 0);
  ASSERT_EQ(getpitchdp(x.data(), 4000, kFs, 80, 80, 40, 60, 500, c.data()), 0);
  EXPECT_TRUE(a == c && b == c);
}

}  // namespace
