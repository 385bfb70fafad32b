// Windows, windowed segments, overlap-add weights and the frame/length rules.
#include "windowing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace {

const long double kPiL = 3.141592653589793238462643383279502884L;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

TEST(Windowing, WindowValuesAgainstClosedForms) {
  struct Case {
    const char *name;
    uint32_t (*make)(double *, uint32_t, uint8_t);
    uint8_t flag;
    long double a, b;  // w[n] = a - b cos(2 pi n / (N-1))
  };
  const Case cases[] = {
      {"hamming", winhamming, 0, 0.54L, 0.46L},      {"hamming normalised", winhamming, 1, 0.8566L, 0.7297L},
      {"hamming flag 7", winhamming, 7, 0.8566L, 0.7297L}, {"hanning", winhanning, 0, 0.5L, 0.5L},
      {"hanning normalised", winhanning, 1, 0.8165L, 0.8165L},
  };
  for (const Case &c : cases) {
    for (uint32_t N : {2u, 3u, 5u, 8u, 401u, 1024u}) {
      std::vector<double> w(N, -99.0);
      EXPECT_EQ(c.make(w.data(), N, c.flag), 0u);
      for (uint32_t n = 0; n < N; ++n) {
        const long double ref = c.a - c.b * std::cos(2.0L * kPiL * n / (N - 1));
        EXPECT_NEAR(w[n], static_cast<double>(ref), 1e-15) << c.name << " N=" << N << " n=" << n;
      }
      // Symmetric form: both ends lie on the same point of the cosine.
      for (uint32_t n = 0; n < N; ++n) EXPECT_NEAR(w[n], w[N - 1 - n], 1e-15) << c.name << " N=" << N;
      EXPECT_NEAR(w[0], static_cast<double>(c.a - c.b), 1e-15) << c.name;
      EXPECT_NEAR(w[N - 1], static_cast<double>(c.a - c.b), 1e-15) << c.name;
    }
  }

  // The stated examples.
  double h[5];
  winhanning(h, 5, 0);
  const double hexp[5] = {0.0, 0.5, 1.0, 0.5, 0.0};
  for (int n = 0; n < 5; ++n) EXPECT_NEAR(h[n], hexp[n], 1e-15) << n;
  EXPECT_EQ(h[0], 0.0);  // cos(0) is exactly 1
  EXPECT_EQ(h[2], 1.0);  // cos(2 * (2pi/4)) rounds to exactly -1
  winhanning(h, 5, 1);
  EXPECT_NEAR(h[2], 1.633, 1e-12);
  EXPECT_EQ(h[0], 0.0);
  EXPECT_NEAR(h[4], 0.0, 1e-15);

  double m[7];
  winhamming(m, 7, 0);
  EXPECT_NEAR(m[0], 0.08, 1e-15);
  EXPECT_NEAR(m[6], 0.08, 1e-15);
  EXPECT_NEAR(m[3], 1.0, 1e-15);
  winhamming(m, 7, 1);
  EXPECT_NEAR(m[0], 0.1269, 1e-15);
  EXPECT_NEAR(m[6], 0.1269, 1e-15);
  EXPECT_NEAR(m[3], 0.8566 + 0.7297, 1e-15);

  // The normalised constants are the four-decimal ones, not a freshly
  // computed normalisation: the mean square comes out near 1, not exactly.
  const uint32_t N = 100001;
  std::vector<double> w(N);
  winhamming(w.data(), N, 1);
  long double ms = 0;
  for (double v : w) ms += static_cast<long double>(v) * v;
  ms /= N;
  EXPECT_NEAR(static_cast<double>(ms), 0.8566 * 0.8566 + 0.7297 * 0.7297 / 2, 2e-5);
  EXPECT_NE(static_cast<double>(ms), 1.0);
  winhanning(w.data(), N, 1);
  ms = 0;
  for (double v : w) ms += static_cast<long double>(v) * v;
  ms /= N;
  EXPECT_NEAR(static_cast<double>(ms), 1.5 * 0.8165 * 0.8165, 2e-5);
}

TEST(Windowing, ComplementaryWindowIsTheNegativeSineCompanion) {
  for (uint32_t N : {5u, 64u, 401u}) {
    std::vector<double> w(N), q(N, -99.0);
    winhanning(w.data(), N, 0);
    EXPECT_EQ(wincomplementary(w.data(), q.data(), N), 0u);
    for (uint32_t n = 0; n < N; ++n) {
      const long double ref = static_cast<long double>(w[n]) * std::sin(-2.0L * kPiL * n / (N - 1));
      EXPECT_NEAR(q[n], static_cast<double>(ref), 1e-15) << "N=" << N << " n=" << n;
      // Odd symmetry about the middle for an even window.
      EXPECT_NEAR(q[N - 1 - n], -q[n], 1e-15) << "N=" << N << " n=" << n;
    }
    // Negative on the first half (sin of a negative angle).
    EXPECT_LT(q[N / 4], 0.0);
  }
}

TEST(Windowing, WindowedSegmentEdgesAndResult) {
  const uint32_t len = 10;
  double x[len];
  for (uint32_t i = 0; i < len; ++i) x[i] = 1.0 + i;  // x[i] = i + 1, never 0
  struct Case {
    const char *what;
    uint32_t centre, half;
    int first_index;  // input index of out[0] (centre - half), may be negative
  };
  const Case cases[] = {
      {"centre 0", 0, 3, -3},
      {"centre 1", 1, 3, -2},
      {"centre == half", 3, 3, 0},
      {"interior", 5, 3, 2},
      {"last full", 6, 3, 3},
      {"tail clipped", 8, 3, 5},
      {"centre at last sample", 9, 3, 6},
      {"centre just past the signal", 11, 3, 8},
      {"segment wider than the signal", 4, 8, -4},
      {"half 0", 7, 0, 7},
  };
  for (const Case &c : cases) {
    const uint32_t L = 2 * c.half + 1;
    std::vector<double> out(L, 99.0);
    const uint32_t r = getwindowedsamples(x, len, c.centre, out.data(), c.half, nullptr);
    bool any = false;
    for (uint32_t k = 0; k < L; ++k) {
      const int idx = c.first_index + static_cast<int>(k);
      const double expect = (idx >= 0 && idx < static_cast<int>(len)) ? x[idx] : 0.0;
      any = any || expect != 0.0;
      EXPECT_EQ(out[k], expect) << c.what << " k=" << k;
    }
    EXPECT_EQ(r, any ? 1u : 0u) << c.what;
  }

  // With a window the copied samples are multiplied by it, index by index.
  {
    const double win[7] = {0.5, 2.0, -1.0, 4.0, 0.25, 3.0, 8.0};
    double out[7];
    EXPECT_EQ(getwindowedsamples(x, len, 1, out, 3, win), 1u);
    const double expect[7] = {0.0, 0.0, -1.0, 8.0, 0.75, 12.0, 40.0};  // x[0..4] = 1..5
    for (int k = 0; k < 7; ++k) EXPECT_EQ(out[k], expect[k]) << k;
  }

  // Segments wholly outside the signal, including ones whose unsigned bounds
  // would wrap, come back all zero with result 0 and read nothing.
  {
    const struct {
      const char *what;
      uint32_t len, centre, half;
    } outside[] = {
        {"far beyond the end", len, 100, 3},
        {"centre + half wraps past 2^32", len, 0xFFFFFFFEu, 3},
        {"largest centre", len, 0xFFFFFFFFu, 0},
        {"empty signal", 0, 0, 3},
        {"empty signal, centre 5", 0, 5, 2},
    };
    for (const auto &o : outside) {
      std::vector<double> out(2 * o.half + 1, 99.0);
      EXPECT_EQ(getwindowedsamples(x, o.len, o.centre, out.data(), o.half, nullptr), 0u) << o.what;
      for (double v : out) EXPECT_EQ(v, 0.0) << o.what;
    }
  }

  // Result: 1 at the first valid non-zero entry (NaN included), 0 when all
  // valid entries are zero (-0.0 is zero), whatever lies outside the segment.
  {
    const struct {
      const char *what;
      std::vector<double> signal;
      uint32_t centre;
      bool windowed;
      uint32_t expect;
    } results[] = {
        {"all zero", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 5, false, 0},
        {"negative zeros", {0, 0, 0, -0.0, -0.0, 0, 0, 0, 0, 0}, 5, false, 0},
        {"one non-zero at the right edge", {0, 0, 0, 0, 0, 0, 0, 0, 1e-300, 0}, 5, false, 1},
        {"one non-zero at the left edge", {0, 0, 1e-300, 0, 0, 0, 0, 0, 0, 0}, 5, false, 1},
        {"non-zero just outside the segment", {0, 5, 0, 0, 0, 0, 0, 0, 0, 7}, 5, false, 0},
        {"NaN", {0, 0, 0, 0, kNaN, 0, 0, 0, 0, 0}, 5, false, 1},
        {"non-zero under a zero window sample", {0, 0, 3, 0, 0, 0, 0, 0, 0, 0}, 5, true, 0},
        {"non-zero under a non-zero window sample", {0, 0, 0, 3, 0, 0, 0, 0, 0, 0}, 5, true, 1},
    };
    double win[7];
    winhanning(win, 7, 0);  // win[0] == 0 exactly
    for (const auto &c : results) {
      double out[7];
      EXPECT_EQ(getwindowedsamples(c.signal.data(), 10, c.centre, out, 3, c.windowed ? win : nullptr), c.expect)
          << c.what;
    }
  }
}

TEST(Windowing, TriangularOverlapAddWeights) {
  // The stated example: weights 0, 1/4, ..., 1, ..., 1/4; out[8] untouched.
  {
    // A NaN just past the frame's span would poison out[8] if it were read.
    std::vector<double> out(10, 0.0), frame(9, 1.0);
    frame[8] = kNaN;
    out[8] = 42.0;
    EXPECT_EQ(olatriang(out.data(), frame.data(), 0, 4, 8), 0u);
    const double expect[9] = {0.0, 0.25, 0.5, 0.75, 1.0, 0.75, 0.5, 0.25, 42.0};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(out[i], expect[i]) << i;
    EXPECT_EQ(out[9], 0.0);
  }
  // The frame sample is multiplied by the integer numerator and then divided:
  // 7*1/3 and 7*2/3 round differently from 7*(1/3) and 7*(2/3).  Also an
  // asymmetric frame (a = 3, b = 2) starting away from 0 and accumulating.
  {
    ASSERT_NE(7.0 * (1.0 / 3.0), 7.0 / 3.0);
    ASSERT_NE(7.0 * (2.0 / 3.0), 14.0 / 3.0);
    std::vector<double> out(9, 1.0), frame(5, 7.0);
    olatriang(out.data(), frame.data(), 2, 5, 7);
    const double expect[9] = {1.0, 1.0, 1.0, 1.0 + 7.0 / 3.0, 1.0 + 14.0 / 3.0, 8.0, 1.0 + 7.0 / 2.0, 1.0, 1.0};
    for (int i = 0; i < 9; ++i) EXPECT_EQ(out[i], expect[i]) << i;
  }
  // Neighbouring frames at centres P and 2P, as the synthesis lays them,
  // add up to exactly the constant on P .. 2P-1.
  for (uint32_t P : {1u, 3u, 7u, 80u, 160u, 257u}) {
    for (double v : {1.0, 7.0, -2.5}) {
      std::vector<double> out(3 * P + 1, 0.0), frame(2 * P, v);
      olatriang(out.data(), frame.data(), 0, P, 2 * P);
      olatriang(out.data(), frame.data(), P, 2 * P, 3 * P);
      for (uint32_t s = P; s < 2 * P; ++s) ASSERT_EQ(out[s], v) << "P=" << P << " v=" << v << " s=" << s;
      EXPECT_EQ(out[0], 0.0);
      EXPECT_EQ(out[3 * P], 0.0);
    }
  }
  // A frame with no rising side (start == centre) starts at weight 1.
  {
    double out[4] = {0, 0, 0, 0};
    const double frame[3] = {2.0, 2.0, 2.0};
    olatriang(out, frame, 0, 0, 3);
    EXPECT_EQ(out[0], 2.0);
    EXPECT_EQ(out[1], 2.0 * 2.0 / 3.0);
    EXPECT_EQ(out[2], 2.0 / 3.0);
    EXPECT_EQ(out[3], 0.0);
  }
}

TEST(Windowing, RaisedCosineOverlapAdd) {
  const struct {
    uint32_t start, centre, end;
  } cases[] = {{0, 4, 8}, {3, 8, 11}, {10, 90, 170}, {0, 1, 2}};
  for (const auto &c : cases) {
    const uint32_t a = c.centre - c.start, b = c.end - c.centre;
    std::vector<double> out(c.end + 2, 0.25), frame(c.end - c.start);
    for (uint32_t i = 0; i < frame.size(); ++i) frame[i] = 2.0 + i;
    out[c.centre] = 1000.0;
    EXPECT_EQ(olahann(out.data(), frame.data(), c.start, c.centre, c.end), 0u);
    // The centre is assigned, not accumulated.
    EXPECT_EQ(out[c.centre], frame[a]);
    for (uint32_t k = 1; k <= a; ++k) {
      const long double wgt = 0.5L * (1 + std::cos(k * kPiL / a));
      EXPECT_NEAR(out[c.centre - k], 0.25 + static_cast<double>(wgt * frame[a - k]), 1e-12)
          << c.start << "," << c.centre << "," << c.end << " left k=" << k;
    }
    for (uint32_t k = 1; k < b; ++k) {
      const long double wgt = 0.5L * (1 + std::cos(k * kPiL / b));
      EXPECT_NEAR(out[c.centre + k], 0.25 + static_cast<double>(wgt * frame[a + k]), 1e-12)
          << c.start << "," << c.centre << "," << c.end << " right k=" << k;
    }
    // start gets weight 0 (to rounding); nothing outside start .. end-1 moves.
    EXPECT_NEAR(out[c.start], 0.25, 1e-12);
    EXPECT_EQ(out[c.end], 0.25);
    EXPECT_EQ(out[c.end + 1], 0.25);
    for (uint32_t i = 0; i < c.start; ++i) EXPECT_EQ(out[i], 0.25);
  }
}

TEST(Windowing, LengthAndCountRules) {
  // Frame counts, including the unsigned wrap when nsamples <= first.
  const struct {
    uint32_t nsamples, shift, first, expect;
  } frames[] = {
      {16000, 80, 0, 200},
      {16001, 80, 0, 201},
      {16000, 80, 40, 200},  // centres 40 .. 15960
      {16000, 80, 79, 200},  // last centre 15999
      {16000, 80, 80, 199},
      {1, 80, 0, 1},
      {100, 1, 99, 1},
      {100, 80, 100, 53687092},      // 2^32-1 samples left: (4294967295/80) + 1
      {100, 80, 101, 53687092},      // 4294967294/80 truncates the same way
      {0, 7, 0, 613566757},          // 4294967295/7 = 613566756.4...
      {0xFFFFFFFFu, 1, 0, 0xFFFFFFFFu},
      {100, 1, 100, 0},              // 4294967295 + 1 wraps to 0
      {16000, 0, 0, 0},              // no grid without a shift
  };
  for (const auto &f : frames)
    EXPECT_EQ(getnumanalysisframes(f.nsamples, f.shift, f.first), f.expect)
        << f.nsamples << " " << f.shift << " " << f.first;

  const struct {
    uint32_t shift, nframes, expect;
  } lengths[] = {
      {80, 100, 8081}, {80, 0, 81}, {1, 1, 3}, {0, 50, 1},
      {65536, 65535, 1},            // 2^32 + 1 wraps to 1
      {80, 0xFFFFFFFFu, 1},         // nframes + 1 wraps to 0
      {2, 0x7FFFFFFFu, 1},          // 2 * 2^31 + 1 wraps to 1
      {3, 0x55555555u, 3}  // 3 * 0x55555556 + 1 = 2^32 + 3 wraps to 3
  };
  for (const auto &l : lengths)
    EXPECT_EQ(getolasynthesislength(l.shift, l.nframes), l.expect) << l.shift << " " << l.nframes;

  const struct {
    uint32_t n, expect;
  } pot2[] = {{0, 1},
              {1, 1},
              {2, 2},
              {3, 4},
              {5, 8},
              {8, 8},
              {160, 256},
              {1024, 1024},
              {1025, 2048},
              {0x40000001u, 0x80000000u},
              {0x80000000u, 0x80000000u},
              // No power of two fits 32 bits: refused with 0 instead of
              // doubling through the wrap to 0 forever.
              {0x80000001u, 0},
              {0xFFFFFFFFu, 0}};
  for (const auto &p : pot2) EXPECT_EQ(getwinlengthceilpot2(p.n), p.expect) << p.n;

  const struct {
    double nperiods, f0, fs;
    uint32_t expect;
  } periods[] = {
      {3, 100, 16000, 481},             // 480 made odd
      {3, 160, 16000, 301},             // 300 made odd
      {2.5, 100, 16000, 401},           // 400 made odd
      {3, 100.1, 16000, 481},           // ceil(479.5...) = 480, made odd
      {3, 99.9, 16000, 481},            // ceil(480.48...) = 481 stays
      // f0 is 48000/91 rounded down, so (3*16000)/f0 lies just above 91:
      // ceil gives 92 -> 93.  Dividing first, 3*(16000/f0) is exactly 91.
      {3, 48000.0 / 91.0, 16000, 93},
      {0, 100, 16000, 1},
      {1, 16000, 16000, 1},
  };
  for (const auto &p : periods)
    EXPECT_EQ(getwinlengthnperiodsodd(p.nperiods, p.f0, p.fs), p.expect)
        << p.nperiods << " " << p.f0 << " " << p.fs;

  const struct {
    double dur, fs;
    uint32_t expect;
  } durations[] = {
      {0.025, 16000, 401},  // 400 made odd
      {0.02, 16000, 321},   // 320 made odd
      {0.0201, 16000, 323},  // ceil(321.6) = 322 -> 323
      {0.07, 44100, 3089},  // 3087.0000000000005 -> ceil 3088 -> 3089
      {0.0, 16000, 1},
  };
  for (const auto &d : durations) EXPECT_EQ(getwinlengthdurodd(d.dur, d.fs), d.expect) << d.dur << " " << d.fs;

  // Lengths that are negative, NaN or beyond 32 bits are pinned instead of
  // being converted out of range.
  EXPECT_EQ(getwinlengthdurodd(-1.0, 16000), 1u);
  EXPECT_EQ(getwinlengthdurodd(kNaN, 16000), 1u);
  EXPECT_EQ(getwinlengthdurodd(1e12, 16000), 0xFFFFFFFFu);
  EXPECT_EQ(getwinlengthnperiodsodd(3, 0.0, 16000), 0xFFFFFFFFu);  // infinite length
}

}  // namespace
