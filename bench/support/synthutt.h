// Benchmark support: a realistic utterance's synthesis features built in
// memory, without the analysis library, with its true f0 track.
//
// The utterance alternates unvoiced gaps and voiced stretches. In a voiced
// stretch f0 glides between two values in 80..300 Hz (with a slight vibrato),
// the maximum voiced frequency wanders between about 2 and 7 kHz, and the
// envelope is vowel-like: four formant resonances moving from one vowel to
// another, a spectral tilt, and a level that rises and falls over the stretch.
// Unvoiced frames get a flatter, quieter, fricative-like envelope with a random
// ripple (silence at the edges of the utterance).
//
// Cepstra are computed from the envelope directly: the natural-log amplitude is
// sampled at M warped-uniform frequencies w~ = 2 pi m / M over the full circle
// (linear frequency from fwarp(w~, -alpha)), and c0 = mean(logA),
// ck = mean(logA * cos(k w~)), matching log|H| = c0 + 2 sum ck cos(k w~).
//
// Everything is deterministic (own generator; rand() is left alone).
#ifndef KESTREL_BENCH_SUPPORT_SYNTHUTT_H
#define KESTREL_BENCH_SUPPORT_SYNTHUTT_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "ccanalysis.h"

namespace kestreltest {

constexpr double kSynthUttPi = 3.141592653589793;
constexpr double kUnvoicedLogF0 = -1e10;

struct SynthUttOptions {
  double seconds = 3.0;  // approximate duration (whole frames)
  uint32_t order = 39;
  double alpha = 0.42;
  double fs = 16000.0;
  uint32_t shift = 80;
  uint64_t seed = 1;
};

// logf0: natural log of f0, -1e10 in unvoiced frames; f0: Hz, 0 in unvoiced
// frames (exp of logf0); fv: maximum voiced frequency, Hz; cc: nframes rows of
// order + 1 (c0 .. c_order).
struct SynthUtterance {
  double fs = 16000.0;
  uint32_t shift = 80, order = 39;
  double alpha = 0.42;
  uint32_t nframes = 0;
  std::vector<double> logf0, f0, fv, cc;
  double *frame(uint32_t i) { return cc.data() + static_cast<size_t>(i) * (order + 1); }
  double seconds() const { return static_cast<double>(nframes) * shift / fs; }
};

// splitmix64: small, portable, independent of the C library's rand().
struct SynthUttRng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  double uniform() { return static_cast<double>(next() >> 11) * (1.0 / 9007199254740992.0); }  // [0, 1)
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
};

// Warped cepstrum c0..c_order of a natural-log amplitude envelope logenv(f Hz),
// f in [0, fs/2]; M warped-uniform points over the full circle.
template <class Env>
std::vector<double> warpedcepstrum(const Env &logenv, uint32_t order, double alpha, double fs, uint32_t M = 1024) {
  std::vector<double> logA(M);
  for (uint32_t m = 0; m < M; ++m) {
    const double wt = 2.0 * kSynthUttPi * m / M;
    const double w = std::fabs(fwarp(wt, -alpha));  // linear frequency, folded onto [0, pi]
    logA[m] = logenv(w * fs / (2.0 * kSynthUttPi));
  }
  std::vector<double> costab(M);
  for (uint32_t m = 0; m < M; ++m) costab[m] = std::cos(2.0 * kSynthUttPi * m / M);
  std::vector<double> c(order + 1);
  for (uint32_t k = 0; k <= order; ++k) {
    double acc = 0.0;
    for (uint32_t m = 0; m < M; ++m) acc += logA[m] * costab[(static_cast<uint64_t>(k) * m) % M];
    c[k] = acc / M;
  }
  return c;
}

// Natural-log gain of a unit-DC-gain two-pole resonance (centre F, bandwidth B) at f.
inline double resonancelog(double f, double F, double B, double fs) {
  const double r = std::exp(-kSynthUttPi * B / fs);
  const double th = 2.0 * kSynthUttPi * F / fs;
  const double w = 2.0 * kSynthUttPi * f / fs;
  auto mag = [&](double x) {
    // |1 - 2 r cos(th) z^-1 + r^2 z^-2| at z = e^{jx}
    const double re = 1.0 - 2.0 * r * std::cos(th) * std::cos(x) + r * r * std::cos(2.0 * x);
    const double im = 2.0 * r * std::cos(th) * std::sin(x) - r * r * std::sin(2.0 * x);
    return std::sqrt(re * re + im * im);
  };
  return std::log(mag(0.0)) - std::log(mag(w));
}

// Formants F1..F4 (Hz) of the vowels a, i, u, e, o.
constexpr double kSynthUttVowels[5][4] = {
    {730, 1090, 2440, 3400}, {270, 2290, 3010, 3500}, {300, 870, 2240, 3400}, {530, 1840, 2480, 3500}, {570, 840, 2410, 3400}};

inline SynthUtterance makesynthutterance(const SynthUttOptions &opt = SynthUttOptions()) {
  SynthUtterance u;
  u.fs = opt.fs, u.shift = opt.shift, u.order = opt.order, u.alpha = opt.alpha;
  const double frate = opt.fs / opt.shift;
  u.nframes = static_cast<uint32_t>(std::max(1.0, std::floor(opt.seconds * frate)));
  const uint32_t N = u.nframes;
  u.logf0.assign(N, kUnvoicedLogF0), u.f0.assign(N, 0.0), u.fv.assign(N, 1000.0);
  u.cc.assign(static_cast<size_t>(N) * (opt.order + 1), 0.0);
  SynthUttRng rng{opt.seed};

  // Segment plan: leading silence, then unvoiced gap / voiced stretch pairs.
  struct Segment { uint32_t begin, end; bool voiced; };
  std::vector<Segment> plan;
  uint32_t t = std::min<uint32_t>(N, static_cast<uint32_t>(0.08 * frate));
  plan.push_back({0, t, false});
  bool voiced = true;
  while (t < N) {
    const double dur = voiced ? rng.uniform(0.15, 0.6) : rng.uniform(0.04, 0.2);
    const uint32_t len = std::max<uint32_t>(1, static_cast<uint32_t>(dur * frate));
    const uint32_t end = std::min<uint32_t>(N, t + len);
    plan.push_back({t, end, voiced});
    t = end, voiced = !voiced;
  }
  // End in silence: the last few frames unvoiced whatever the plan said.
  const uint32_t tail = std::min<uint32_t>(N, static_cast<uint32_t>(0.05 * frate));

  unsigned vowel = static_cast<unsigned>(rng.next() % 5);
  for (const Segment &seg : plan) {
    const uint32_t len = seg.end - seg.begin;
    if (len == 0) continue;
    if (seg.voiced) {
      const double fa = rng.uniform(80.0, 300.0), fb = rng.uniform(80.0, 300.0), vib = rng.uniform(3.0, 6.0);
      const double fva = rng.uniform(2000.0, 7000.0), fvb = rng.uniform(2000.0, 7000.0);
      const unsigned v0 = vowel, v1 = vowel = static_cast<unsigned>(rng.next() % 5);
      const double peak = rng.uniform(-5.6, -4.6), tiltk = rng.uniform(0.3, 0.8);
      for (uint32_t i = seg.begin; i < seg.end; ++i) {
        const double x = len > 1 ? static_cast<double>(i - seg.begin) / (len - 1) : 0.5;
        const double s = x * x * (3.0 - 2.0 * x);  // smooth glide
        const double sec = static_cast<double>(i) / frate;
        double f0 = fa + (fb - fa) * s;
        f0 *= 1.0 + 0.01 * std::sin(2.0 * kSynthUttPi * vib * sec);
        f0 = std::min(300.0, std::max(80.0, f0));
        if (i + tail >= N) continue;  // trailing silence
        u.f0[i] = f0;
        u.logf0[i] = std::log(f0);
        u.fv[i] = fva + (fvb - fva) * x + 300.0 * std::sin(2.0 * kSynthUttPi * 2.0 * sec);
        const double *A = kSynthUttVowels[v0 % 5], *B = kSynthUttVowels[v1 % 5];
        double F[4];
        for (int k = 0; k < 4; ++k) F[k] = A[k] + (B[k] - A[k]) * s;
        const double Bw[4] = {80.0 + 20.0 * x, 100.0, 150.0, 250.0};
        const double level = peak - 1.5 * std::pow(std::fabs(2.0 * x - 1.0), 4.0);  // onset and decay
        auto env = [&](double f) {
          double v = -tiltk * std::log1p(f / 1000.0);
          for (int k = 0; k < 4; ++k) v += resonancelog(f, F[k], Bw[k], u.fs);
          // A floor about 55 dB down keeps the top of the band from vanishing.
          return v + std::log1p(std::exp(-6.3 - v));
        };
        // Normalise the envelope's maximum to the frame level.
        double vmax = -1e300;
        for (double f = 0.0; f <= u.fs / 2; f += 25.0) vmax = std::max(vmax, env(f));
        const std::vector<double> c = warpedcepstrum([&](double f) { return env(f) - vmax + level; }, u.order,
                                                     u.alpha, u.fs);
        std::copy(c.begin(), c.end(), u.frame(i));
      }
    }
    for (uint32_t i = seg.begin; i < seg.end; ++i) {
      if (u.f0[i] > 0.0) continue;
      const bool edge = i < plan.front().end || i + tail >= N;
      const double Fc = rng.uniform(3500.0, 6000.0);
      const double level = edge ? -10.0 + rng.uniform(-0.3, 0.3) : rng.uniform(-7.8, -6.8);
      const double ripple[3] = {rng.uniform(-0.3, 0.3), rng.uniform(-0.3, 0.3), rng.uniform(-0.3, 0.3)};
      auto env = [&](double f) {
        double v = level + 0.6 * resonancelog(f, Fc, 2500.0, u.fs) - 0.6 * resonancelog(4000.0, Fc, 2500.0, u.fs);
        for (int k = 0; k < 3; ++k) v += ripple[k] * std::cos((k + 2) * 2.0 * kSynthUttPi * f / u.fs);
        return v;
      };
      const std::vector<double> c = warpedcepstrum(env, u.order, u.alpha, u.fs);
      std::copy(c.begin(), c.end(), u.frame(i));
    }
  }
  return u;
}

}  // namespace kestreltest

#endif
