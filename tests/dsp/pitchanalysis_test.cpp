// Pitch estimation: the candidate slots (slot 0 never filled, the weakest slot
// replaced, the scan's stop at a zero strength), peak interpolation at the lag
// limits, the octave-cost two-step, the path search's costs and tie rules, the
// final choice, island removal with its carried-over ratios, the
// autocorrelation against a direct sum, and whole tracks of harmonic signals,
// silence and degenerate arguments.
#include "pitchanalysis.h"
#include "pitchtrack.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <vector>

namespace {

namespace pt = kestrel::pitchtrack;
constexpr double kPi = 3.141592653589793;

// A record that owns its strength array.
struct Frame {
  pt::PitchFrameCandidates rec;
  Frame() { pt::initframe(&rec); }
  ~Frame() { std::free(rec.strength); }
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;
  // Sets slot j to frequency f (Hz) with strength (or cost) s.
  Frame &set(uint32_t j, double f, double s) {
    rec.frequency[j] = f;
    rec.strength[j] = s;
    return *this;
  }
};

const pt::TrackerCosts kCosts16k80 = pt::trackercosts(16000, 80);  // t = 2

TEST(PitchCandidates, TrackerConstants) {
  EXPECT_EQ(kCosts16k80.voicingthreshold, 0.45);
  EXPECT_EQ(kCosts16k80.silencethreshold, 0.03);
  EXPECT_EQ(kCosts16k80.octavecost, 0.01);
  EXPECT_DOUBLE_EQ(kCosts16k80.octavejumpcost, 0.7);
  EXPECT_DOUBLE_EQ(kCosts16k80.voicedunvoicedcost, 0.28);
  const pt::TrackerCosts k = pt::trackercosts(8000, 160);  // t = 0.5
  EXPECT_DOUBLE_EQ(k.octavejumpcost, 0.175);
  EXPECT_DOUBLE_EQ(k.voicedunvoicedcost, 0.07);
}

TEST(PitchCandidates, UnvoicedStrength) {
  // V + max(0, 2 - a / (S / (1 + V))), a = min(P/G, 1); the bonus vanishes
  // once the local peak reaches S/(1+V)*2 = 0.0414 of the global one.
  struct Case {
    double P, G, s;
  } cases[] = {
      {0, 1, 2.45},          {1, 1, 0.45},   {2, 1, 0.45},  {0.5, 1, 0.45},
      {0.03 / 1.45, 1, 1.45}, {0.01, 1, 0.45 + 2 - 0.01 / (0.03 / 1.45)},
      {0, 0, 0.45},  // silence (0/0): no bonus, and no NaN
  };
  for (const Case &c : cases) EXPECT_NEAR(pt::unvoicedstrength(c.P, c.G, kCosts16k80), c.s, 1e-12) << c.P;
}

TEST(PitchCandidates, SlotChoice) {
  struct Offer {
    double s, T;
  };
  struct Case {
    const char *what;
    std::vector<double> initial;  // strengths of slots 1..4 (frequency 100 Hz when non-zero)
    // Offers are at 250 Hz (T = 4 ms), so a replacement is visible in the frequency too.
    Offer offer;
    int slot;  // slot that takes it, -1 for none
  } cases[] = {
      {"empty table fills slot 1", {0, 0, 0, 0}, {0.5, 0.004}, 1},
      {"first empty slot after filled ones", {0.9, 0.8, 0, 0}, {0.3, 0.004}, 3},
      {"full: weakest replaced", {0.9, 0.6, 0.8, 0.7}, {0.65, 0.004}, 2},
      {"full: equal to the weakest replaces it", {0.9, 0.6, 0.8, 0.7}, {0.6, 0.004}, 2},
      {"full: weaker than all is dropped", {0.9, 0.6, 0.8, 0.7}, {0.59, 0.004}, -1},
      {"full: tie of weakest, first wins", {0.9, 0.6, 0.8, 0.6}, {0.7, 0.004}, 2},
      // The scan stops at the first strength of exactly 0 even when a later
      // slot holds a smaller (negative) one.
      {"scan stops at a zero strength", {0.9, 0, -0.5, 0.7}, {0.1, 0.004}, 2},
      {"negative before any zero is found", {0.9, -0.5, 0, 0.7}, {0.1, 0.004}, 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Frame f;
    for (uint32_t j = 1; j <= 4; ++j) f.set(j, c.initial[j - 1] != 0 ? 100 : 0, c.initial[j - 1]);
    pt::offercandidate(&f.rec, c.offer.s, c.offer.T);
    for (uint32_t j = 0; j <= 5; ++j) {
      if (static_cast<int>(j) == c.slot) {
        EXPECT_EQ(f.rec.frequency[j], 1 / c.offer.T);
        EXPECT_EQ(f.rec.strength[j], c.offer.s);
      } else if (j >= 1 && j <= 4) {
        EXPECT_EQ(f.rec.strength[j], c.initial[j - 1]) << j;
      }
    }
    EXPECT_EQ(f.rec.frequency[0], 0.0);
    EXPECT_EQ(f.rec.strength[0], 0.0);
  }
}

// Normalised autocorrelation with given peaks: value `base` elsewhere, and for
// each peak p at lag L of height hgt, nr[L] = hgt, nr[L-1] = hgt - dl, nr[L+1] = hgt - dr.
struct Peak {
  uint32_t lag;
  double hgt, dl, dr;
};
std::vector<double> makenr(uint32_t len, const std::vector<Peak> &peaks, double base = 0.1) {
  std::vector<double> nr(len, base);
  for (const Peak &p : peaks) {
    nr[p.lag] = p.hgt;
    nr[p.lag - 1] = p.hgt - p.dl;
    nr[p.lag + 1] = p.hgt - p.dr;
  }
  return nr;
}

TEST(PitchCandidates, PeakPickingAndInterpolation) {
  const double fs = 16000, f0min = 60;
  const uint32_t minlag = 32, maxlag = 266;
  const double C = 0.01;
  auto ranked = [&](double h, double T) { return h - C * std::log2(f0min * T); };
  struct Expect {
    double freq, strength;
  };
  struct Case {
    const char *what;
    std::vector<Peak> peaks;
    std::vector<Expect> slots;  // slots 1.. in order
  } cases[] = {
      {"symmetric peak: no offset", {{100, 0.8, 0.1, 0.1}}, {{fs / 100, ranked(0.8, 100 / fs)}}},
      // Right neighbour higher: vertex offset d = -b/(2a) with a = (0.7+0.6-1.6)/2, b = 0.05.
      {"asymmetric peak", {{100, 0.8, 0.2, 0.1}}, {{fs / (100 + 0.05 / 0.3), ranked(0.8 + 0.0025 / 0.6, (100 + 0.05 / 0.3) / fs)}}},
      {"at minlag, vertex below: raw lag", {{minlag, 0.8, 0.05, 0.2}}, {{fs / minlag, ranked(0.8, minlag / fs)}}},
      {"at minlag, vertex above: interpolated",
       {{minlag, 0.8, 0.2, 0.1}},
       {{fs / (minlag + 0.05 / 0.3), ranked(0.8 + 0.0025 / 0.6, (minlag + 0.05 / 0.3) / fs)}}},
      {"at maxlag, vertex above: raw lag", {{maxlag, 0.8, 0.2, 0.05}}, {{fs / maxlag, ranked(0.8, maxlag / fs)}}},
      {"height above 1 is folded", {{100, 1.25, 0.1, 0.1}}, {{fs / 100, ranked(0.8, 100 / fs)}}},
      {"threshold 0.225 is exclusive", {{100, 0.225, 0.1, 0.1}}, {}},
      {"just above the threshold", {{100, 0.2251, 0.1, 0.1}}, {{fs / 100, ranked(0.2251, 100 / fs)}}},
      {"plateau is no peak", {{100, 0.8, 0.0, 0.1}}, {}},
      {"outside the lag range", {{minlag - 1, 0.8, 0.1, 0.1}, {maxlag + 1, 0.8, 0.1, 0.1}}, {}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    const std::vector<double> nr = makenr(400, c.peaks);
    Frame f;
    pt::findvoicedcandidates(nr.data(), minlag, maxlag, fs, f0min, kCosts16k80, &f.rec);
    for (uint32_t j = 0; j <= 4; ++j) {
      if (j >= 1 && j <= c.slots.size()) {
        EXPECT_NEAR(f.rec.frequency[j], c.slots[j - 1].freq, 1e-9 * c.slots[j - 1].freq);
        EXPECT_NEAR(f.rec.strength[j], c.slots[j - 1].strength, 1e-12);
      } else {
        EXPECT_EQ(f.rec.frequency[j], 0.0) << j;
      }
    }
  }
}

TEST(PitchCandidates, FiveEqualPeaksKeepFourAndSlotZeroStaysEmpty) {
  // Equal heights at lags 50 .. 250: the octave cost ranks shorter lags higher,
  // so the four shortest survive in slots 1..4 and lag 250 is dropped.
  const double fs = 16000, f0min = 60;
  const std::vector<double> nr =
      makenr(400, {{50, 0.9, 0.1, 0.1}, {100, 0.9, 0.1, 0.1}, {150, 0.9, 0.1, 0.1}, {200, 0.9, 0.1, 0.1},
                   {250, 0.9, 0.1, 0.1}});
  Frame f;
  pt::findvoicedcandidates(nr.data(), 32, 266, fs, f0min, kCosts16k80, &f.rec);
  EXPECT_EQ(f.rec.frequency[0], 0.0);
  EXPECT_EQ(f.rec.strength[0], 0.0);
  const double expect[] = {fs / 50, fs / 100, fs / 150, fs / 200};
  for (uint32_t j = 1; j <= 4; ++j) EXPECT_DOUBLE_EQ(f.rec.frequency[j], expect[j - 1]);

  // A fifth, stronger peak replaces the weakest (lag 200), not slot 0.
  const std::vector<double> nr2 =
      makenr(400, {{50, 0.9, 0.1, 0.1}, {100, 0.9, 0.1, 0.1}, {150, 0.9, 0.1, 0.1}, {200, 0.9, 0.1, 0.1},
                   {250, 0.95, 0.1, 0.1}});
  Frame g;
  pt::findvoicedcandidates(nr2.data(), 32, 266, fs, f0min, kCosts16k80, &g.rec);
  EXPECT_EQ(g.rec.frequency[0], 0.0);
  EXPECT_DOUBLE_EQ(g.rec.frequency[4], fs / 250);

  // Octave-cost removal leaves the folded peak height itself (to rounding).
  pt::removeoctavecost(&g.rec, f0min, kCosts16k80);
  EXPECT_EQ(g.rec.strength[0], 0.0);
  for (uint32_t j = 1; j <= 3; ++j) EXPECT_NEAR(g.rec.strength[j], 0.9, 1e-15);
  EXPECT_NEAR(g.rec.strength[4], 0.95, 1e-15);
}

TEST(PitchPath, TransitionCostsAndTies) {
  // t = 2: J = 0.7, voicing change 0.28.
  struct Case {
    const char *what;
    std::vector<std::pair<uint32_t, std::pair<double, double>>> prev, cur;  // slot, (freq, cost/strength)
    uint32_t slot;  // slot of cur examined
    double cost;
    uint32_t back;
  } cases[] = {
      {"unvoiced to unvoiced is free", {{5, {0, -1.0}}}, {{5, {0, 0.5}}}, 5, -1.5, 5},
      {"unvoiced to voiced", {{5, {0, -1.0}}}, {{1, {100, 0.5}}}, 1, -1.5 + 0.28, 5},
      {"voiced to unvoiced", {{2, {100, -1.0}}}, {{5, {0, 0.5}}}, 5, -1.5 + 0.28, 2},
      {"octave jump", {{2, {100, -1.0}}}, {{3, {200, 0.5}}}, 3, -1.5 + 0.7, 2},
      {"half octave down", {{2, {200, -1.0}}}, {{3, {200 / std::sqrt(2.0), 0.5}}}, 3, -1.5 + 0.35, 2},
      {"cheapest predecessor wins",
       {{1, {100, -1.0}}, {2, {200, -1.2}}, {5, {0, -0.9}}},
       {{1, {100, 0.5}}},
       1,
       -1.5,
       1},
      {"exact tie: lowest index wins",
       {{1, {100, -1.0}}, {2, {100, -1.0}}, {5, {0, -0.72}}},
       {{3, {100, 0.5}}},
       3,
       -1.5,
       1},
      {"tie with the unvoiced slot: voiced (lower index) wins",
       {{4, {100, -1.0}}, {5, {0, -1.28}}},
       {{1, {100, 0.5}}},
       1,
       -1.5,
       4},
      {"empty slots are not predecessors",
       {{0, {0, -100.0}}, {1, {0, -50.0}}, {5, {0, -1.0}}},
       {{5, {0, 0.0}}},
       5,
       -1.0,
       5},
      {"nothing below the bound: back 0, cost largest double",
       {{5, {0, std::numeric_limits<double>::infinity()}}},
       {{5, {0, 0.0}}},
       5,
       DBL_MAX,
       0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    Frame prev, cur;
    for (const auto &p : c.prev) prev.set(p.first, p.second.first, p.second.second);
    for (const auto &p : c.cur) cur.set(p.first, p.second.first, p.second.second);
    pt::linkframe(&prev.rec, &cur.rec, kCosts16k80);
    EXPECT_NEAR(cur.rec.strength[c.slot], c.cost, 1e-12);
    EXPECT_EQ(cur.rec.back[c.slot], c.back);
  }
}

TEST(PitchPath, FinalChoiceAndBacktrack) {
  {
    Frame last;
    last.set(0, 0, -100).set(1, 100, -1).set(2, 120, -1).set(3, 0, -50).set(5, 0, -0.5);
    EXPECT_EQ(pt::finalslot(&last.rec), 1u);  // slots 0 and 3 are empty; 1 and 2 tie
  }
  {
    Frame last;
    last.set(1, 100, -1).set(5, 0, -1.5);
    EXPECT_EQ(pt::finalslot(&last.rec), 5u);
  }
  {
    Frame last;  // only the unvoiced slot usable
    last.set(5, 0, 3);
    EXPECT_EQ(pt::finalslot(&last.rec), 5u);
  }
  // Three frames: follow the back pointers.
  Frame a, b, c;
  a.set(1, 100, 0).set(2, 200, 0);
  b.set(3, 110, 0);
  b.rec.back[3] = 2;
  b.rec.back[5] = 1;
  c.set(4, 120, 0);
  c.rec.back[4] = 5;
  c.rec.back[2] = 3;
  std::vector<pt::PitchFrameCandidates> recs = {a.rec, b.rec, c.rec};
  double f0[3];
  pt::backtrack(recs.data(), 3, 4, f0);
  EXPECT_EQ(f0[2], 120);
  EXPECT_EQ(f0[1], 0);  // slot 5
  EXPECT_EQ(f0[0], 100);
}

TEST(PitchPath, StartCostsAreNegatedStrengths) {
  Frame f;
  f.set(1, 100, 0.7).set(5, 0, 2.45);
  pt::startpath(&f.rec);
  EXPECT_EQ(f.rec.strength[1], -0.7);
  EXPECT_EQ(f.rec.strength[5], -2.45);
  EXPECT_EQ(f.rec.strength[0], 0.0);
}

// Track pieces for the island tests.
std::vector<double> run(size_t n, double f) { return std::vector<double>(n, f); }
std::vector<double> cat(std::initializer_list<std::vector<double>> parts) {
  std::vector<double> v;
  for (const auto &p : parts) v.insert(v.end(), p.begin(), p.end());
  return v;
}

TEST(ElimIslands, RemovesShortJumpingRuns) {
  // fs 16000, shift 80: M = 10, runs of up to 11 frames are islands.
  const auto gap = run(3, 0);
  struct Case {
    const char *what;
    std::vector<double> in, out;
  } cases[] = {
      {"11-frame octave island removed", cat({run(20, 100), gap, run(11, 200), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(11, 0), gap, run(20, 100)})},
      {"12-frame run is never removed", cat({run(20, 100), gap, run(12, 200), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(12, 200), gap, run(20, 100)})},
      {"two-frame island at twice the neighbours", cat({run(20, 100), gap, run(2, 200), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(2, 0), gap, run(20, 100)})},
      {"ratio 1.6 kept", cat({run(20, 100), gap, run(5, 160), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(5, 160), gap, run(20, 100)})},
      {"ratio exactly 1.7 kept", cat({run(20, 100), gap, run(5, 170), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(5, 170), gap, run(20, 100)})},
      {"ratio 1.71 removed", cat({run(20, 100), gap, run(5, 171), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(5, 0), gap, run(20, 100)})},
      {"downward jump removed (ratio inverted)", cat({run(20, 200), gap, run(5, 100), gap, run(20, 200)}),
       cat({run(20, 200), gap, run(5, 0), gap, run(20, 200)})},
      // 180 after 100 is a step of 1.8 before and of 1.03 after: one side is enough.
      {"jump on one side only is enough",
       cat({run(20, 100), gap, run(5, 180), gap, run(3, 175), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(5, 0), gap, run(3, 0), gap, run(20, 100)})},
      {"inside the range of long runs: kept (upper edge inclusive)",
       cat({run(20, 100), gap, run(5, 250), gap, run(20, 100), gap, run(20, 250)}),
       cat({run(20, 100), gap, run(5, 250), gap, run(20, 100), gap, run(20, 250)})},
      {"just above the range: removed",
       cat({run(20, 100), gap, run(5, 250.001), gap, run(20, 100), gap, run(20, 250)}),
       cat({run(20, 100), gap, run(5, 0), gap, run(20, 100), gap, run(20, 250)})},
      {"no long run: unchanged", cat({run(5, 100), gap, run(5, 300), gap, run(11, 100)}),
       cat({run(5, 100), gap, run(5, 300), gap, run(11, 100)})},
      {"single-frame island",
       cat({run(20, 100), gap, run(1, 400), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(1, 0), gap, run(20, 100)})},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<double> v = c.in;
    EXPECT_EQ(elimislands(static_cast<uint32_t>(v.size()), v.data(), 16000, 80), 0);
    EXPECT_EQ(v, c.out);
  }
}

TEST(ElimIslands, RatiosCarryOverWhenANeighbourIsMissing) {
  const auto gap = run(3, 0);
  struct Case {
    const char *what;
    std::vector<double> in, out;
  } cases[] = {
      // Nothing voiced after the island and no ratio computed before: the
      // after-ratio still holds the largest double, so even a 5 % step goes.
      {"last island, no earlier ratio: removed", cat({run(20, 100), gap, run(5, 105), gap}),
       cat({run(20, 100), gap, run(5, 0), gap})},
      // An earlier island left r2 = 1.05, which the last island reuses.
      {"last island reuses the previous after-ratio",
       cat({run(20, 100), gap, run(5, 105), gap, run(20, 100), gap, run(5, 105)}),
       cat({run(20, 100), gap, run(5, 105), gap, run(20, 100), gap, run(5, 105)})},
      // The latest computed after-ratio is the one reused: X leaves 2, then Y
      // (kept) leaves 1.05, so the last island is kept.
      {"last island reuses the latest after-ratio",
       cat({run(20, 100), gap, run(3, 210), gap, run(3, 105), gap, run(20, 100), gap, run(5, 105)}),
       cat({run(20, 100), gap, run(3, 0), gap, run(3, 105), gap, run(20, 100), gap, run(5, 105)})},
      // First island with nothing voiced before: r1 starts at 0, only r2 counts.
      {"first island, small step after: kept", cat({run(5, 110), gap, run(20, 100)}),
       cat({run(5, 110), gap, run(20, 100)})},
      {"first island, octave step after: removed", cat({run(5, 200), gap, run(20, 100)}),
       cat({run(5, 0), gap, run(20, 100)})},
      // The second island looks back past the removed first one (150/100 = 1.5,
      // where 150/300 would have removed it).
      {"removed island is skipped when looking back",
       cat({run(20, 100), gap, run(3, 300), gap, run(3, 150), gap, run(20, 100)}),
       cat({run(20, 100), gap, run(3, 0), gap, run(3, 150), gap, run(20, 100)})},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<double> v = c.in;
    elimislands(static_cast<uint32_t>(v.size()), v.data(), 16000, 80);
    EXPECT_EQ(v, c.out);
  }
}

TEST(ElimIslands, IslandLengthFollowsRateAndShift) {
  // fs 16000, shift 160: M = 5, islands up to 6 frames.
  const auto gap = run(2, 0);
  std::vector<double> six = cat({run(20, 100), gap, run(6, 200), gap, run(20, 100)});
  std::vector<double> seven = cat({run(20, 100), gap, run(7, 200), gap, run(20, 100)});
  elimislands(static_cast<uint32_t>(six.size()), six.data(), 16000, 160);
  elimislands(static_cast<uint32_t>(seven.size()), seven.data(), 16000, 160);
  EXPECT_EQ(six[23], 0.0);
  EXPECT_EQ(seven[23], 200.0);
  // Degenerate arguments leave the track alone.
  std::vector<double> v = cat({run(20, 100), gap, run(2, 200), gap, run(20, 100)});
  const std::vector<double> orig = v;
  EXPECT_EQ(elimislands(static_cast<uint32_t>(v.size()), v.data(), 16000, 0), 0);
  EXPECT_EQ(elimislands(static_cast<uint32_t>(v.size()), v.data(), std::nan(""), 80), 0);
  EXPECT_EQ(elimislands(0, nullptr, 16000, 80), 0);
  EXPECT_EQ(v, orig);
}

TEST(Autocorrelation, MatchesDirectCircularSum) {
  std::mt19937 gen(3);
  std::uniform_real_distribution<double> u(-1, 1);
  for (uint32_t nfft : {1u, 2u, 8u, 64u}) {
    std::vector<double> x(nfft), buf(2 * nfft);
    for (uint32_t i = 0; i < nfft; ++i) buf[2 * i] = x[i] = u(gen);
    ASSERT_EQ(autocorrelation(nfft, buf.data()), 0);
    for (uint32_t lag = 0; lag < nfft; ++lag) {
      double r = 0;
      for (uint32_t j = 0; j < nfft; ++j) r += x[j] * x[(j + lag) % nfft];
      EXPECT_NEAR(buf[2 * lag], nfft * r, 1e-12 * nfft) << nfft << " " << lag;  // unscaled inverse
      EXPECT_NEAR(buf[2 * lag + 1], 0.0, 1e-12 * nfft);
    }
  }
  std::vector<double> buf(24, 1.0);
  EXPECT_EQ(autocorrelation(12, buf.data()), -1);
  EXPECT_EQ(autocorrelation(0, buf.data()), -1);
  EXPECT_EQ(buf[0], 1.0);
}

// A harmonic signal: sum of nh harmonics of f0 with 1/k amplitudes.
std::vector<double> harmonic(double f0, double fs, uint32_t n, uint32_t nh, double amp = 0.3) {
  std::vector<double> x(n, 0.0);
  for (uint32_t k = 1; k <= nh && k * f0 < fs / 2; ++k)
    for (uint32_t i = 0; i < n; ++i) x[i] += amp / k * std::sin(2 * kPi * k * f0 * i / fs + 0.4 * k);
  return x;
}

TEST(GetPitch, HarmonicSignalsAndRanges) {
  const double fs = 16000;
  const uint32_t n = 16000, shift = 80;
  struct Case {
    double f0, f0min, f0max, expect;
  } cases[] = {
      {100, 60, 500, 100},  {150, 0, 0, 150},      {220, 60, 500, 220},  {380, 60, 500, 380},
      {75, 60, 500, 75},    {300, 100, 80, 300},   // f0max below f0min becomes 500
      {440, 60, 600, 440},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "f0 " << c.f0);
    const std::vector<double> x = harmonic(c.f0, fs, n, 12);
    const uint32_t nframes = 190;
    std::vector<double> f0(nframes, -1.0);
    ASSERT_EQ(getpitch(x.data(), n, fs, shift, shift, nframes, c.f0min, c.f0max, f0.data()), 0);
    uint32_t good = 0;
    for (uint32_t k = 10; k < nframes - 10; ++k) good += std::fabs(f0[k] - c.expect) < 0.01 * c.expect;
    EXPECT_EQ(good, nframes - 20);
  }
  // Above f0max the true f0 cannot be reported.
  const std::vector<double> x = harmonic(550, fs, n, 12);
  std::vector<double> f0(190);
  ASSERT_EQ(getpitch(x.data(), n, fs, shift, shift, 190, 0, 0, f0.data()), 0);
  for (double v : f0) EXPECT_LE(v, 500.0);
}

TEST(GetPitch, SilenceIsUnvoicedAndEdgesAreSafe) {
  const double fs = 16000;
  std::vector<double> silence(8000, 0.0);
  std::vector<double> f0(120, -1.0);
  ASSERT_EQ(getpitch(silence.data(), 8000, fs, 80, 0, 120, 60, 500, f0.data()), 0);
  for (double v : f0) EXPECT_EQ(v, 0.0);

  // Empty signal, frames past the end, first centre beyond the signal.
  std::fill(f0.begin(), f0.end(), -1.0);
  ASSERT_EQ(getpitch(nullptr, 0, fs, 80, 0, 5, 60, 500, f0.data()), 0);
  for (int k = 0; k < 5; ++k) EXPECT_EQ(f0[k], 0.0);
  const std::vector<double> x = harmonic(200, fs, 4000, 10);
  std::vector<double> g(120, -1.0);
  ASSERT_EQ(getpitch(x.data(), 4000, fs, 80, 0, 120, 60, 500, g.data()), 0);
  for (uint32_t k = 60; k < 120; ++k) EXPECT_EQ(g[k], 0.0) << k;  // centres past 4000 + window
  for (uint32_t k = 5; k < 45; ++k) EXPECT_NEAR(g[k], 200, 2) << k;
  ASSERT_EQ(getpitch(x.data(), 4000, fs, 80, 4000000000u, 3, 60, 500, g.data()), 0);

  // nframes == 0 writes nothing.
  double untouched = 7;
  EXPECT_EQ(getpitch(x.data(), 4000, fs, 80, 0, 0, 60, 500, &untouched), 0);
  EXPECT_EQ(untouched, 7);
}

TEST(GetPitch, InputIsKeptAndResultIsDeterministic) {
  std::vector<double> x = harmonic(130, 16000, 8000, 15);
  std::mt19937 gen(11);
  std::normal_distribution<double> g(0, 0.01);
  for (double &v : x) v += g(gen);
  const std::vector<double> copy = x;
  std::vector<double> a(90), b(90);
  getpitch(x.data(), 8000, 16000, 80, 80, 90, 60, 400, a.data());
  getpitch(x.data(), 8000, 16000, 80, 80, 90, 60, 400, b.data());
  EXPECT_EQ(x, copy);
  EXPECT_EQ(a, b);
}

TEST(GetPitch, NanSamplesAndRefusedArguments) {
  std::vector<double> x = harmonic(200, 16000, 16000, 10);
  x[8000] = std::nan("");
  std::vector<double> f0(190, -1.0);
  ASSERT_EQ(getpitch(x.data(), 16000, 16000, 80, 80, 190, 60, 500, f0.data()), 0);
  for (double v : f0) EXPECT_TRUE(v == 0 || (v >= 60 && v <= 500)) << v;
  EXPECT_NEAR(f0[20], 200, 2);  // far from the NaN

  const std::vector<double> y = harmonic(200, 16000, 4000, 10);
  struct Case {
    double fs;
    uint32_t shift;
    double f0min;
  } refused[] = {
      {16000, 0, 60},             // no frame step
      {0, 80, 60},                {std::nan(""), 80, 60}, {std::numeric_limits<double>::infinity(), 80, 60},
      {16000, 80, 1e-6},          // window of 4.8e10 samples
      {16000, 80, std::numeric_limits<double>::infinity()},
      {16000, 80, 16001},         // 3-sample window (5 is the shortest accepted)
  };
  for (const Case &c : refused) {
    std::vector<double> out(10, -1.0);
    EXPECT_EQ(getpitch(y.data(), 4000, c.fs, c.shift, 0, 10, c.f0min, 0, out.data()), -1) << c.f0min;
    for (double v : out) EXPECT_EQ(v, 0.0);
  }
  // A tiny but accepted window (5 samples) runs without reading out of bounds.
  std::vector<double> out(10, -1.0);
  EXPECT_EQ(getpitch(y.data(), 4000, 16000, 80, 0, 10, 9600, 0, out.data()), 0);
}

}  // namespace
