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

TEST(Windowing, WindowsAgainstClosedForms) {
  // w[n] = a - b cos(2 pi n / (N-1)); the normalised forms use the four-decimal constants.
  const struct { const char *name; uint32_t (*make)(double *, uint32_t, uint8_t); uint8_t flag; long double a, b; }
  cases[] = {{"hamming", winhamming, 0, 0.54L, 0.46L}, {"hamming flag 7", winhamming, 7, 0.8566L, 0.7297L},
             {"hanning", winhanning, 0, 0.5L, 0.5L}, {"hanning normalised", winhanning, 1, 0.8165L, 0.8165L}};
  for (const auto &c : cases)
    for (uint32_t N : {2u, 5u, 401u}) {
      std::vector<double> w(N, -99.0), q(N, -99.0);
      EXPECT_TRUE(c.make(w.data(), N, c.flag) == 0u && wincomplementary(w.data(), q.data(), N) == 0u);
      for (uint32_t n = 0; n < N; ++n) {  // the complementary window is the negative-sine companion
        const long double ang = 2.0L * kPiL * n / (N - 1);
        EXPECT_TRUE(std::fabs(w[n] - static_cast<double>(c.a - c.b * std::cos(ang))) <= 1e-15 &&
                    std::fabs(q[n] - static_cast<double>(w[n] * -std::sin(ang))) <= 1e-15) << c.name << N << " " << n;
      }
    }
}

TEST(Windowing, WindowedSegmentEdgesAndResult) {
  const double x[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};  // never 0
  // out[k] is x[centre - half + k] where that lies in the signal, else 0; result 1 when any
  // sample was copied. Segments wider than the signal, wholly outside it, with unsigned bounds
  // that would wrap, and an empty signal.
  const struct { uint32_t n, centre, half; } cases[] = {{10, 0, 3},  {10, 2, 3},   {10, 3, 3}, {10, 6, 3},
                                                        {10, 9, 3},  {10, 11, 3},  {10, 4, 8}, {10, 100, 3},
                                                        {10, 0xFFFFFFFEu, 3}, {0, 0, 3}};
  for (const auto &c : cases) {
    const uint32_t L = 2 * c.half + 1;
    std::vector<double> out(L, 99.0), expect(L, 0.0);
    bool any = false;
    for (uint32_t k = 0; k < L; ++k) {
      const int64_t idx = int64_t{c.centre} - c.half + k;
      if (idx >= 0 && idx < int64_t{c.n}) expect[k] = x[idx], any = true;
    }
    EXPECT_EQ(getwindowedsamples(x, c.n, c.centre, out.data(), c.half, nullptr), any ? 1u : 0u) << c.centre;
    EXPECT_EQ(out, expect) << "centre " << c.centre << " half " << c.half;
  }
  // With a window the copied samples are multiplied by it, index by index.
  const double win[7] = {0.5, 2.0, -1.0, 4.0, 0.25, 3.0, 8.0};
  std::vector<double> out(7);
  EXPECT_TRUE(getwindowedsamples(x, 10, 1, out.data(), 3, win) == 1u &&
              out == (std::vector<double>{0.0, 0.0, -1.0, 8.0, 0.75, 12.0, 40.0}));  // x[0..4] = 1..5
  // Result: 1 at the first valid non-zero entry (NaN included), 0 when all valid entries are
  // zero (-0.0 is zero), whatever lies outside the segment 2 .. 8. One sample of a zero signal
  // is set; hann[0] is exactly 0.
  double hann[7];
  winhanning(hann, 7, 0);
  const struct { uint32_t at; double v; bool windowed; uint32_t expect; } results[] = {
      {4, -0.0, false, 0}, {8, -1e-300, false, 1}, {2, 1e-300, false, 1}, {1, 5.0, false, 0},
      {9, 7.0, false, 0},  {4, kNaN, false, 1},    {2, 3.0, true, 0}};
  for (const auto &c : results) {
    std::vector<double> signal(10, 0.0);
    signal[c.at] = c.v;
    EXPECT_EQ(getwindowedsamples(signal.data(), 10, 5, out.data(), 3, c.windowed ? hann : nullptr), c.expect) << c.at;
  }
}

TEST(Windowing, OverlapAddWeights) {
  // Weights 0, 1/4, ..., 1, ..., 1/4, a NaN just past the frame's span that would poison out[8]
  // if it were read; the sample multiplied by the integer numerator and then divided (7*1/3 and
  // 7*2/3 round differently from 7*(1/3) and 7*(2/3)), an asymmetric frame away from 0,
  // accumulating; a frame with no rising side (weight 1 first).
  const struct { std::vector<double> out, frame; uint32_t start, centre, end; std::vector<double> want; } cases[] = {
      {{0, 0, 0, 0, 0, 0, 0, 0, 42, 0}, {1, 1, 1, 1, 1, 1, 1, 1, kNaN}, 0, 4, 8,
       {0.0, 0.25, 0.5, 0.75, 1.0, 0.75, 0.5, 0.25, 42.0, 0.0}},
      {std::vector<double>(9, 1.0), std::vector<double>(5, 7.0), 2, 5, 7,
       {1, 1, 1, 1 + 7.0 / 3.0, 1 + 14.0 / 3.0, 8, 1 + 7.0 / 2.0, 1, 1}},
      {std::vector<double>(4, 0.0), std::vector<double>(3, 2.0), 0, 0, 3, {2.0, 2.0 * 2.0 / 3.0, 2.0 / 3.0, 0.0}}};
  for (const auto &c : cases) {
    std::vector<double> out = c.out;
    EXPECT_TRUE(olatriang(out.data(), c.frame.data(), c.start, c.centre, c.end) == 0u && out == c.want) << c.start;
  }
  std::vector<double> out, frame;
  // Neighbouring frames at centres P and 2P, as the synthesis lays them, add
  // up to exactly the constant on P .. 2P-1.
  for (uint32_t P : {1u, 7u, 80u, 257u})
    for (double v : {7.0, -2.5}) {
      out.assign(3 * P + 1, 0.0), frame.assign(2 * P, v);
      olatriang(out.data(), frame.data(), 0, P, 2 * P), olatriang(out.data(), frame.data(), P, 2 * P, 3 * P);
      for (uint32_t s = P; s < 2 * P; ++s) ASSERT_EQ(out[s], v) << "P=" << P << " v=" << v << " s=" << s;
      EXPECT_TRUE(out[0] == 0.0 && out[3 * P] == 0.0);
    }

  // Raised cosine: out[centre] is assigned, the rest accumulated with weights
  // 0.5 (1 + cos(k pi / side)); nothing outside start .. end-1 moves.
  const uint32_t spans[][3] = {{3, 8, 11}, {10, 90, 170}, {0, 1, 2}};
  for (const auto &c : spans) {
    const uint32_t start = c[0], centre = c[1], end = c[2], a = centre - start, b = end - centre;
    out.assign(end + 2, 0.25), frame.resize(end - start), out[centre] = 1000.0;
    for (uint32_t i = 0; i < frame.size(); ++i) frame[i] = 2.0 + i;
    EXPECT_EQ(olahann(out.data(), frame.data(), start, centre, end), 0u);
    for (uint32_t i = 0; i < out.size(); ++i) {
      const bool left = i < centre;
      const long double wgt = 0.5L * (1 + std::cos((left ? centre - i : i - centre) * kPiL / (left ? a : b)));
      const double want =
          (i < start || i >= end) ? 0.25 : i == centre ? frame[a] : 0.25 + double(wgt * frame[i - start]);
      EXPECT_NEAR(out[i], want, 1e-12) << start << "," << centre << "," << end << " i=" << i;
    }
  }
}

TEST(Windowing, LengthAndCountRules) {
  // Frame counts, including the unsigned wrap when nsamples <= first.
  const uint32_t frames[][4] = {
      {16000, 80, 0, 200}, {16001, 80, 0, 201}, {16000, 80, 79, 200}, {16000, 80, 80, 199}, {100, 1, 99, 1},
      {100, 80, 101, 53687092},  // 4294967294 samples left: (4294967294/80) + 1
      {0, 7, 0, 613566757},      // 4294967295/7 = 613566756.4...
      {100, 1, 100, 0} /* 4294967295 + 1 wraps to 0 */, {16000, 0, 0, 0} /* no grid without a shift */};
  for (const auto &f : frames) EXPECT_EQ(getnumanalysisframes(f[0], f[1], f[2]), f[3]) << f[0] << " " << f[2];

  const uint32_t lengths[][3] = {{80, 100, 8081}, {0, 50, 1},
                                 {80, 0xFFFFFFFFu, 1},   // nframes + 1 wraps to 0
                                 {3, 0x55555555u, 3}};   // 3 * 0x55555556 + 1 = 2^32 + 3
  for (const auto &l : lengths) EXPECT_EQ(getolasynthesislength(l[0], l[1]), l[2]) << l[0] << " " << l[1];

  // No power of two above 2^31 fits 32 bits: refused with 0 instead of doubling through the wrap forever.
  const uint32_t pot2[][2] = {{0, 1}, {3, 4}, {8, 8}, {1025, 2048}, {0x80000000u, 0x80000000u}, {0x80000001u, 0}};
  for (const auto &p : pot2) EXPECT_EQ(getwinlengthceilpot2(p[0]), p[1]) << p[0];

  const struct { double nperiods, f0, fs; uint32_t expect; } periods[] = {
      {2.5, 100, 16000, 401}, {3, 100.1, 16000, 481},  // even lengths made odd; ceil(479.5...) = 480, made odd
      // f0 is 48000/91 rounded down, so (3*16000)/f0 lies just above 91: ceil
      // gives 92 -> 93. Dividing first, 3*(16000/f0) is exactly 91.
      {3, 48000.0 / 91.0, 16000, 93},
      {0, 100, 16000, 1}, {3, 0.0, 16000, 0xFFFFFFFFu}};  // infinite length pinned
  for (const auto &p : periods)
    EXPECT_EQ(getwinlengthnperiodsodd(p.nperiods, p.f0, p.fs), p.expect) << p.nperiods << " " << p.f0 << " " << p.fs;

  // Negative, NaN or beyond-32-bit lengths are pinned instead of converted out of range.
  const struct { double dur, fs; uint32_t expect; } durations[] = {
      {0.025, 16000, 401}, {0.0201, 16000, 323} /* ceil(321.6) = 322 */,
      {0.07, 44100, 3089} /* 3087.0000000000005 -> 3088 -> 3089 */, {-1.0, 16000, 1}, {kNaN, 16000, 1},
      {1e12, 16000, 0xFFFFFFFFu}};
  for (const auto &d : durations) EXPECT_EQ(getwinlengthdurodd(d.dur, d.fs), d.expect) << d.dur << " " << d.fs;
}

}  // namespace
