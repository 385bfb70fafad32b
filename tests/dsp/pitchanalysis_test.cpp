// Pitch estimation: the candidate slots, peak interpolation at the lag limits,
// the octave-cost two-step, the path search's costs and tie rules, island
// removal with its carried-over ratios, the autocorrelation against a direct
// sum, whole tracks of harmonic signals, gaps, silence and degenerate
// arguments from both trackers (getpitch and the dynamic-programming getpitchdp),
// and track modification: sentinel handling, voiced-only statistics and the
// early returns that leave a track bit for bit as it was.
#include "pitchanalysis.h"
#include "pitchtrack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "support/synthref.h"

namespace {

using namespace kestreltest;
namespace pt = kestrel::pitchtrack;
const pt::TrackerCosts kCosts = pt::trackercosts(16000, 80);  // t = 2
const double kUnvoiced = -1e10;

// A candidate record that owns its strength array.
struct Frame {
  pt::PitchFrameCandidates rec;
  Frame() { pt::initframe(&rec); }
  ~Frame() { std::free(rec.strength); }
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;
  struct Slot { uint32_t j; double f, s; };
  explicit Frame(const std::vector<Slot> &slots) : Frame() {
    for (const Slot &x : slots) rec.frequency[x.j] = x.f, rec.strength[x.j] = x.s;
  }
};

TEST(PitchCandidates, CostScalingAndUnvoicedStrength) {
  // Costs scale with t = 0.01 fs / shift (the transition tests below use t = 2).
  const pt::TrackerCosts k8 = pt::trackercosts(8000, 160);  // t = 0.5
  EXPECT_TRUE(k8.voicingthreshold == 0.45 && k8.silencethreshold == 0.03 && k8.octavecost == 0.01);
  EXPECT_TRUE(std::fabs(k8.octavejumpcost - 0.175) < 1e-15 && std::fabs(k8.voicedunvoicedcost - 0.07) < 1e-15);
  // V + max(0, 2 - a / (S / (1 + V))), a = min(P/G, 1); silence (0/0) gets no bonus and no NaN.
  const double cases[][3] = {{0, 1, 2.45}, {2, 1, 0.45}, {0.01, 1, 0.45 + 2 - 0.01 / (0.03 / 1.45)}, {0, 0, 0.45}};
  for (const auto &c : cases) EXPECT_NEAR(pt::unvoicedstrength(c[0], c[1], kCosts), c[2], 1e-12) << c[0];
}

TEST(PitchCandidates, SlotChoice) {
  // Slots 1..4 hold these strengths (at 100 Hz when non-zero); an offer of 250 Hz arrives.
  // slot: the slot that takes the offer, -1 for none.
  const struct { double initial[4], s; int slot; } cases[] = {
      {{0.9, 0.8, 0, 0}, 0.3, 3},       {{0.9, 0.6, 0.8, 0.7}, 0.6, 2},   // first empty slot; weakest, also when equal
      {{0.9, 0.6, 0.8, 0.7}, 0.59, -1}, {{0.9, 0.6, 0.8, 0.6}, 0.7, 2},  // dropped; first of tied weakest
      {{0.9, 0, -0.5, 0.7}, 0.1, 2},   {{0.9, -0.5, 0, 0.7}, 0.1, 2},    // scan stops at a zero strength
  };
  for (const auto &c : cases) {
    Frame f;
    for (uint32_t j = 1; j <= 4; ++j)
      f.rec.frequency[j] = c.initial[j - 1] != 0 ? 100 : 0, f.rec.strength[j] = c.initial[j - 1];
    pt::offercandidate(&f.rec, c.s, 0.004);
    for (uint32_t j = 0; j <= 4; ++j) {
      const bool taken = static_cast<int>(j) == c.slot;
      EXPECT_EQ(f.rec.frequency[j], taken ? 1 / 0.004 : j && c.initial[j - 1] != 0 ? 100 : 0) << c.s << " " << j;
      EXPECT_EQ(f.rec.strength[j], taken ? c.s : j ? c.initial[j - 1] : 0.0) << c.s << " " << j;
    }
  }
}

// Normalised autocorrelation at 0.1 with peaks {lag, height, drop to the left, drop to the right}.
std::vector<double> makenr(std::initializer_list<std::array<double, 4>> peaks) {
  std::vector<double> nr(400, 0.1);
  for (const auto &p : peaks) {
    const size_t L = static_cast<size_t>(p[0]);
    nr[L] = p[1], nr[L - 1] = p[1] - p[2], nr[L + 1] = p[1] - p[3];
  }
  return nr;
}

TEST(PitchCandidates, PeakPickingAndInterpolation) {
  const double fs = 16000, f0min = 60, m = 32, M = 266;  // lag limits
  auto ranked = [&](double h, double lag) { return h - 0.01 * std::log2(f0min * lag / fs); };
  const double off = 0.05 / 0.3, top = 0.8 + 0.0025 / 0.6;  // vertex of the parabola through 0.6, 0.8, 0.7
  // The (lag, strength) expected in slots 1.. for each autocorrelation.
  const struct { std::vector<double> nr; std::vector<std::pair<double, double>> slots; } cases[] = {
      {makenr({{100, 0.8, 0.1, 0.1}}), {{100, ranked(0.8, 100)}}},                      // symmetric
      {makenr({{100, 0.8, 0.2, 0.1}}), {{100 + off, ranked(top, 100 + off)}}},          // asymmetric
      {makenr({{m, 0.8, 0.05, 0.2}}), {{m, ranked(0.8, m)}}},                           // minlag, vertex below
      {makenr({{m, 0.8, 0.2, 0.1}}), {{m + off, ranked(top, m + off)}}},                // minlag, vertex above
      {makenr({{M, 0.8, 0.2, 0.05}}), {{M, ranked(0.8, M)}}},                           // maxlag, vertex above
      {makenr({{100, 1.25, 0.1, 0.1}}), {{100, ranked(0.8, 100)}}},                     // above 1: folded
      {makenr({{100, 0.225, 0.1, 0.1}}), {}},                                           // threshold exclusive
      {makenr({{100, 0.2251, 0.1, 0.1}}), {{100, ranked(0.2251, 100)}}},
      {makenr({{100, 0.8, 0.0, 0.1}}), {}},                                             // plateau
      {makenr({{m - 1, 0.8, 0.1, 0.1}, {M + 1, 0.8, 0.1, 0.1}}), {}},                   // outside the lags
      // Five equal peaks: the octave cost ranks shorter lags higher, lag 250 is dropped.
      {makenr({{50, .9, .1, .1}, {100, .9, .1, .1}, {150, .9, .1, .1}, {200, .9, .1, .1}, {250, .9, .1, .1}}),
       {{50, ranked(.9, 50)}, {100, ranked(.9, 100)}, {150, ranked(.9, 150)}, {200, ranked(.9, 200)}}},
      // A stronger fifth replaces the weakest (lag 200), never slot 0.
      {makenr({{50, .9, .1, .1}, {100, .9, .1, .1}, {150, .9, .1, .1}, {200, .9, .1, .1}, {250, .95, .1, .1}}),
       {{50, ranked(.9, 50)}, {100, ranked(.9, 100)}, {150, ranked(.9, 150)}, {250, ranked(.95, 250)}}},
  };
  for (const auto &c : cases) {
    Frame f;
    pt::findvoicedcandidates(c.nr.data(), 32, 266, fs, f0min, kCosts, &f.rec);
    EXPECT_TRUE(f.rec.frequency[0] == 0.0 && f.rec.strength[0] == 0.0);
    for (uint32_t j = 1; j <= 4; ++j) {
      const bool filled = j <= c.slots.size();
      EXPECT_NEAR(f.rec.frequency[j], filled ? fs / c.slots[j - 1].first : 0.0, filled ? 1e-9 * fs / 32 : 0.0) << j;
      EXPECT_NEAR(f.rec.strength[j], filled ? c.slots[j - 1].second : 0.0, filled ? 1e-12 : 0.0) << j;
    }
    // Removing the octave cost leaves the folded peak height (to rounding).
    pt::removeoctavecost(&f.rec, f0min, kCosts);
    EXPECT_EQ(f.rec.strength[0], 0.0);
    for (uint32_t j = 1; j <= c.slots.size(); ++j)
      EXPECT_NEAR(f.rec.strength[j], c.slots[j - 1].second - ranked(0, c.slots[j - 1].first), 1e-12);
  }
}

TEST(PitchPath, TransitionCostsAndTies) {
  // t = 2: octave jump J = 0.7, voicing change 0.28; prev holds path costs, cur strengths.
  // Cost and back pointer of slot `slot` of cur.
  const struct { std::vector<Frame::Slot> prev, cur; uint32_t slot; double cost; uint32_t back; } cases[] = {
      {{{5, 0, -1.0}}, {{5, 0, 0.5}}, 5, -1.5, 5},                    // unvoiced to unvoiced is free
      {{{5, 0, -1.0}}, {{1, 100, 0.5}}, 1, -1.5 + 0.28, 5},           // unvoiced to voiced
      {{{2, 100, -1.0}}, {{5, 0, 0.5}}, 5, -1.5 + 0.28, 2},           // voiced to unvoiced
      {{{2, 100, -1.0}}, {{3, 200, 0.5}}, 3, -1.5 + 0.7, 2},          // octave jump
      {{{1, 100, -1.0}, {2, 200, -1.2}, {5, 0, -0.9}}, {{1, 100, 0.5}}, 1, -1.5, 1},  // cheapest predecessor
      {{{1, 100, -1.0}, {2, 100, -1.0}, {5, 0, -0.72}}, {{3, 100, 0.5}}, 3, -1.5, 1},  // exact tie: lowest index
      {{{4, 100, -1.0}, {5, 0, -1.28}}, {{1, 100, 0.5}}, 1, -1.5, 4},  // tie with unvoiced: voiced wins
      {{{1, 0, -50.0}, {5, 0, -1.0}}, {{5, 0, 0.0}}, 5, -1.0, 5},  // empty slots are no predecessors
      {{{5, 0, kInf}}, {{5, 0, 0.0}}, 5, DBL_MAX, 0},  // nothing below the bound
  };
  for (const auto &c : cases) {
    Frame prev(c.prev), cur(c.cur);
    pt::linkframe(&prev.rec, &cur.rec, kCosts);
    EXPECT_NEAR(cur.rec.strength[c.slot], c.cost, 1e-12) << c.slot << " " << c.cost;
    EXPECT_EQ(cur.rec.back[c.slot], c.back) << c.slot << " " << c.cost;
  }
}

TEST(PitchPath, StartFinalChoiceAndBacktrack) {
  Frame first({{1, 100, 0.7}, {5, 0, 2.45}});
  pt::startpath(&first.rec);
  EXPECT_TRUE(first.rec.strength[1] == -0.7 && first.rec.strength[5] == -2.45 && first.rec.strength[0] == 0.0);
  // Slots 0 and 3 are empty; 1 and 2 tie, the first wins.
  const Frame f1({{0, 0, -100}, {1, 100, -1}, {2, 120, -1}, {3, 0, -50}, {5, 0, -0.5}}),
      f2({{1, 100, -1}, {5, 0, -1.5}});
  EXPECT_TRUE(pt::finalslot(&f1.rec) == 1u && pt::finalslot(&f2.rec) == 5u);
  Frame a({{1, 100, 0}, {2, 200, 0}}), b({{3, 110, 0}}), c({{4, 120, 0}});
  b.rec.back[3] = 2, b.rec.back[5] = 1, c.rec.back[4] = 5, c.rec.back[2] = 3;
  const pt::PitchFrameCandidates recs[] = {a.rec, b.rec, c.rec};
  double f0[3];
  pt::backtrack(recs, 3, 4, f0);
  EXPECT_TRUE(f0[2] == 120 && f0[1] == 0 && f0[0] == 100);  // 4 -> 5 -> 1
}

using Runs = std::vector<std::pair<uint32_t, double>>;

// A track of runs {frames, f0}, with the runs listed in `zeroed` set to 0.
std::vector<double> track(const Runs &rs, const std::vector<int> &zeroed = {}) {
  std::vector<double> v;
  for (size_t i = 0; i < rs.size(); ++i)
    v.insert(v.end(), rs[i].first, std::count(zeroed.begin(), zeroed.end(), i) ? 0.0 : rs[i].second);
  return v;
}

TEST(ElimIslands, RemovesShortJumpingRunsWithCarriedRatios) {
  // fs 16000, shift 80: islands are runs of up to 11 frames (6 with shift 160); a jump is a ratio above 1.7.
  const std::pair<uint32_t, double> G = {3, 0}, L = {20, 100}, g = {2, 0};
  // removed: runs set to 0. Degenerate arguments (no frame step, a NaN rate, an empty track)
  // leave the track alone.
  const struct { uint32_t shift; Runs rs; std::vector<int> removed; double fs = 16000; } cases[] = {
      {80, {L, G, {11, 200}, G, L}, {2}}, {80, {L, G, {12, 200}, G, L}, {}},  // 11 frames: an island; 12: never one
      {80, {L, G, {1, 400}, G, L}, {2}}, {80, {L, G, {5, 170}, G, L}, {}},  // ratio exactly 1.7 kept
      {80, {L, G, {5, 171}, G, L}, {2}},
      {80, {{20, 200}, G, {5, 100}, G, {20, 200}}, {2}},  // downward jump
      {80, {L, G, {5, 180}, G, {3, 175}, G, L}, {2, 4}},  // a jump on one side is enough (1.8 before, 1.03 after)
      // Within the long runs' range (upper edge inclusive).
      {80, {L, G, {5, 250}, G, L, G, {20, 250}}, {}}, {80, {L, G, {5, 250.001}, G, L, G, {20, 250}}, {2}},
      {80, {{5, 100}, G, {5, 300}, G, {11, 100}}, {}},  // no long run
      // Nothing voiced after the last island and no earlier ratio: the after-ratio is still DBL_MAX ...
      {80, {L, G, {5, 105}, G}, {2}},
      // ... otherwise the latest computed after-ratio is reused (1.05 from the island before: kept).
      {80, {L, G, {5, 105}, G, L, G, {5, 105}}, {}},
      {80, {L, G, {3, 210}, G, {3, 105}, G, L, G, {5, 105}}, {2}},
      {80, {{5, 110}, G, L}, {}},  // first island, nothing voiced before: only the after-ratio counts
      {80, {L, G, {3, 300}, G, {3, 150}, G, L}, {2}},  // a removed island is skipped looking back (150/100)
      {160, {L, g, {6, 200}, g, L}, {2}}, {160, {L, g, {7, 200}, g, L}, {}},
      {0, {L, G, {2, 200}, G, L}, {}},  {80, {L, G, {2, 200}, G, L}, {}, kNaN},  {80, {}, {}},
  };
  for (const auto &c : cases) {
    std::vector<double> v = track(c.rs);
    EXPECT_TRUE(elimislands(static_cast<uint32_t>(v.size()), v.data(), c.fs, c.shift) == 0 &&
                v == track(c.rs, c.removed)) << "case " << &c - cases;
  }
}

TEST(Autocorrelation, MatchesDirectCircularSum) {
  for (uint32_t nfft : {1u, 8u, 64u}) {
    const std::vector<double> x = uniformvec(nfft, nfft);
    std::vector<double> buf(2 * nfft, 0.0);
    for (uint32_t i = 0; i < nfft; ++i) buf[2 * i] = x[i];
    ASSERT_EQ(autocorrelation(nfft, buf.data()), 0);
    for (uint32_t lag = 0; lag < nfft; ++lag) {
      double r = 0;
      for (uint32_t j = 0; j < nfft; ++j) r += x[j] * x[(j + lag) % nfft];
      EXPECT_NEAR(buf[2 * lag], nfft * r, 1e-12 * nfft) << nfft << " " << lag;  // unscaled inverse
      EXPECT_NEAR(buf[2 * lag + 1], 0.0, 1e-12 * nfft);
    }
  }
  std::vector<double> buf(24, 1.0);
  EXPECT_EQ(autocorrelation(12, buf.data()) + autocorrelation(0, buf.data()), -2);
  EXPECT_EQ(buf, std::vector<double>(24, 1.0));
}

// Harmonics k = kfirst.. below 4 kHz of a track f (Hz per sample, 0: silence), amplitudes
// 0.3/k, phase-continuous.
std::vector<double> harmonics(const std::vector<double> &f, uint32_t kfirst = 1) {
  std::vector<double> x(f.size(), 0.0);
  double ph = 0.0;
  for (size_t i = 0; i < f.size(); ++i) {
    ph += 2.0 * kPi * f[i] / 16000;
    for (uint32_t k = kfirst; f[i] > 0.0 && k * f[i] < 4000.0; ++k) x[i] += 0.3 / k * std::cos(k * ph);
  }
  return x;
}

// The two whole-utterance trackers share their arguments, frame grid, defaults and refusals.
using Tracker = int (*)(const double *, uint32_t, double, uint32_t, uint32_t, uint32_t, double, double, double *);
const struct { const char *name; Tracker run; double tol; } kTrackers[] = {{"getpitch", getpitch, 0.01},
                                                                           {"getpitchdp", getpitchdp, 0.005}};

TEST(PitchTrack, FollowsHarmonicSignalsAcrossTheRangeAndGapsOnTheFrameGrid) {
  // Runs {samples, f0 at the start, f0 at the end (a glide)}; f0 0 is a gap, white noise when
  // `noise` (the second run). Frames centred on first + k shift at least 30 ms from a run's edge
  // find f0, 0 in gaps. Missing fundamentals (still 200 Hz, not 400); f0max below f0min (or 0)
  // taken as 500; 550 Hz lies above the default range and is never reported.
  struct Run { uint32_t n; double from, to; };
  const std::vector<Run> gaps = {{6400, 130, 130}, {4800, 0, 0}, {6400, 180, 180}, {4800, 0, 0}, {6400, 230, 230}};
  const struct { std::vector<Run> runs; uint32_t kfirst; double f0min, f0max; uint32_t first = 80; bool noise = false; }
  rows[] = {{{{24000, 70, 70}}, 1, 60, 500},   {{{24000, 150, 150}}, 1, 0, 0},   {{{24000, 300, 300}}, 1, 100, 80},
            {{{24000, 480, 480}}, 1, 60, 500}, {{{24000, 90, 360}}, 1, 60, 500},  {{{24000, 200, 200}}, 2, 60, 500},
            {{{24000, 120, 120}}, 3, 60, 500}, {{{24000, 550, 550}}, 1, 0, 0},    {gaps, 1, 60, 500, 40, true},
            {gaps, 1, 60, 500, 80, true},      {gaps, 1, 60, 500, 120, true}};
  for (const auto &t : kTrackers)
    for (const auto &r : rows) {
      SCOPED_TRACE(testing::Message() << t.name << " " << r.runs[0].from << "-" << r.runs[0].to << " Hz from harmonic "
                                      << r.kfirst << ", first " << r.first);
      std::vector<double> f, f0(298, -1.0);
      std::vector<size_t> edges = {0};
      for (const Run &u : r.runs) {
        for (uint32_t i = 0; i < u.n; ++i) f.push_back(u.from > 0 ? u.from * std::pow(u.to / u.from, double(i) / u.n) : 0);
        edges.push_back(f.size());
      }
      std::vector<double> x = harmonics(f, r.kfirst);
      std::mt19937 gen(3);
      std::normal_distribution<double> noise(0.0, 0.05);
      for (size_t i = edges[1]; r.noise && i < edges[2]; ++i) x[i] = noise(gen);
      ASSERT_EQ(t.run(x.data(), 24000, 16000, 80, r.first, 298, r.f0min, r.f0max, f0.data()), 0);
      for (uint32_t k = 0; k < 298; ++k) {
        const size_t c = r.first + k * 80;
        if (std::any_of(edges.begin(), edges.end(), [&](size_t b) { return c + 480 > b && c < b + 480; })) continue;
        if (f[c] > 500) ASSERT_LE(f0[k], 500.0) << k;
        else ASSERT_NEAR(f0[k], f[c], t.tol * f[c]) << "frame " << k;
      }
    }
}

TEST(PitchTrack, SilenceEdgesNaNDefaultsAndRefusals) {
  const std::vector<double> silence(8000, 0.0), x = harmonics(std::vector<double>(4000, 200.0));
  std::vector<double> z = harmonics(std::vector<double>(16000, 200.0));
  z[8000] = kNaN;
  const std::vector<double> copy = z;
  // Refused, track zeroed {fs, shift, f0min, f0max}: no frame step, bad rates, windows beyond reason.
  const double refused[][4] = {{16000, 0, 60, 500}, {kNaN, 80, 60, 500}, {kInf, 80, 60, 500}, {0, 80, 60, 500},
                               {-16000, 80, 60, 500}, {1e9, 80, 60, 500}, {16000, 80, 1e-6, 500}};
  for (const auto &t : kTrackers) {
    SCOPED_TRACE(t.name);
    std::vector<double> f0(120, -1.0), a(40), b(40), c(40);
    const std::vector<double> zeros(120, 0.0);
    EXPECT_TRUE(t.run(silence.data(), 8000, 16000, 80, 0, 120, 60, 500, f0.data()) == 0 && f0 == zeros);
    // Empty signal; frames past the end (centres beyond 4000 + window); nframes == 0 writes nothing.
    f0.assign(120, -1.0);
    ASSERT_EQ(t.run(nullptr, 0, 16000, 80, 0, 5, 60, 500, f0.data()), 0);
    EXPECT_EQ(std::vector<double>(f0.begin(), f0.begin() + 6), (std::vector<double>{0, 0, 0, 0, 0, -1}));
    ASSERT_EQ(t.run(x.data(), 4000, 16000, 80, 0, 120, 60, 500, f0.data()), 0);
    for (uint32_t k = 5; k < 120; ++k) EXPECT_NEAR(f0[k], k < 45 ? 200 : 0, k < 45 ? 2 : k < 60 ? 500 : 0) << k;
    EXPECT_EQ(t.run(x.data(), 4000, 16000, 80, 0, 0, 60, 500, nullptr) +
                  t.run(x.data(), 4000, 16000, 80, 4000000000u, 3, 60, 500, f0.data()), 0);
    // A NaN sample: the input stays as it is; every value is 0 or within the range, and far from
    // the NaN the pitch is found.
    ASSERT_TRUE(t.run(z.data(), 16000, 16000, 80, 80, 120, 60, 500, f0.data()) == 0 && samebits(z, copy));
    for (double v : f0) EXPECT_TRUE(v == 0 || (v >= 60 && v <= 500)) << v;
    EXPECT_NEAR(f0[20], 200, 2);
    // Defaults: f0min <= 0 is 60 Hz, f0max <= f0min (or NaN) is 500 Hz.
    ASSERT_EQ(t.run(x.data(), 4000, 16000, 80, 80, 40, 0, 0, a.data()) +
                  t.run(x.data(), 4000, 16000, 80, 80, 40, 60, kNaN, b.data()) +
                  t.run(x.data(), 4000, 16000, 80, 80, 40, 60, 500, c.data()), 0);
    EXPECT_TRUE(a == c && b == c);
    for (const auto &r : refused) {
      std::vector<double> out(10, -1.0);
      EXPECT_TRUE(t.run(x.data(), 4000, r[0], static_cast<uint32_t>(r[1]), 0, 10, r[2], r[3], out.data()) == -1 &&
                  out == std::vector<double>(zeros.begin(), zeros.begin() + 10)) << r[0];
    }
  }
  // Each tracker's own window limits: getpitch's window of 3 periods of f0min must hold 5
  // samples, getpitchdp refuses an infinite f0max.
  std::vector<double> out(10, -1.0);
  EXPECT_EQ(getpitch(x.data(), 4000, 16000, 80, 0, 10, kInf, 0, out.data()) +
                getpitch(x.data(), 4000, 16000, 80, 0, 10, 16001, 0, out.data()) +
                getpitchdp(x.data(), 4000, 16000, 80, 0, 10, 60, kInf, out.data()), -3);
  EXPECT_EQ(getpitch(x.data(), 4000, 16000, 80, 0, 10, 9600, 0, out.data()), 0);  // a 5-sample window
}

TEST(PitchModification, ConversionShiftAndRangeScalingMoveVoicedFramesOnly) {
  // Hz to log: f0 <= 0 and NaN are unvoiced. Log to Hz: unvoiced frames give +0, and so does a
  // voiced -9.9e9, whose exp underflows. Voiced means strictly above the sentinel: -9.9e9 and
  // -9999999999 are, NaN is not (neither counted nor summed in the mean). The mean is taken
  // before any frame changes; a NaN shift or factor is applied to voiced frames.
  using Op = uint32_t (*)(uint32_t, double *, double);
  const Op tolog = [](uint32_t n, double *t, double) { return f02logf0(n, t); };
  const Op tohz = [](uint32_t n, double *t, double) { return logf02f0(n, t); };
  const Op shift = shiftlogpitch, scale = scalelogpitchrange;
  const struct { Op op; std::vector<double> in; double amount; std::vector<double> out; } cases[] = {
      {tolog, {0.0, -5.0, kNaN, kInf}, 0.0, {kUnvoiced, kUnvoiced, kUnvoiced, kInf}},
      {tohz, {kUnvoiced, kNaN, -9.9e9}, 0.0, {0.0, 0.0, 0.0}},
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
  double v = 100.0;  // there and back, to rounding
  EXPECT_TRUE(f02logf0(1, &v) == 0u && std::fabs(v - 4.605170185988092) <= 1e-15) << v;
  EXPECT_TRUE(logf02f0(1, &v) == 0u && std::fabs(v - 100.0) <= 1e-12) << v;
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
