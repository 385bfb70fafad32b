// pitch_eval: quality of the pitch and maximum-voiced-frequency estimators on
// signals whose truth is known, and plain statistics on the bundled recordings.
//
//   pitch_eval            prints two Markdown tables
//
// Known truth (16 kHz, 5 ms frames, analysis frame k centred on (k+1)*80):
//  - harmonic: harmonics of f0 (amplitude falling as k^-0.7) up to fv, tapered
//    over the last 100 Hz, plus white noise high-passed at fv (its rms equal to
//    the amplitude of the harmonic at fv); unvoiced frames hold low full-band
//    noise. f0, fv and voicing are interpolated between frame centres.
//  - synth: this project's own synthesis (cc2waveform) of a realistic feature
//    track (bench/support/synthutt.h: formant envelopes, fv 2-7 kHz, unvoiced
//    gaps), with its f0 as built (gliding 80-300 Hz), replaced by a steady
//    120 Hz, or by one glide 80 -> 400 Hz over the utterance.
// Figures, for getpitch and getpitchdp: GPE = frames voiced in both truth and
// estimate whose f0 is off by more than 20 %, over those frames; VDE = frames
// whose voicing decision differs, over all frames; fine = median |error| in
// cents over the voiced-in-both frames without a gross error; fv error = median |estimate - truth| over frames
// voiced in the truth, fv estimated with the true f0 track (so that it
// measures the fv estimator alone); bias = median of estimate - truth.
// Both trackers search 60 .. 500 Hz; the recordings' statistics use getpitchdp.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "spectralanalysis.h"
#include "support/synthutt.h"
#include "wavm1616io.h"
#include "windowing.h"

namespace {

constexpr double kFs = 16000;
constexpr uint32_t kShift = 80;
constexpr double kPi = 3.141592653589793;

struct Truth {
  std::string name;
  std::vector<double> x;
  std::vector<double> f0, fv;  // per analysis frame; f0 0 = unvoiced
};

double median(std::vector<double> v) {
  if (v.empty()) return std::nan("");
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

// Value of a per-frame track at sample t (frame k centred on (k+1)*shift),
// linear between centres, held beyond the ends.
double atsample(const std::vector<double> &track, double t) {
  const double pos = t / kShift - 1;
  if (pos <= 0) return track.front();
  const size_t k = static_cast<size_t>(pos);
  if (k + 1 >= track.size()) return track.back();
  const double a = pos - k;
  return track[k] * (1 - a) + track[k + 1] * a;
}

// Harmonic-plus-noise signal from per-frame f0 (0 = unvoiced) and fv tracks.
std::vector<double> harmonicsignal(const std::vector<double> &f0, const std::vector<double> &fv, uint32_t seed) {
  const size_t nframes = f0.size();
  const uint32_t n = static_cast<uint32_t>((nframes + 1) * kShift + 1);
  // f0 held through unvoiced stretches so that the glide stays continuous.
  std::vector<double> f0held(f0), voicing(nframes);
  double last = 0;
  for (size_t k = 0; k < nframes; ++k) last = f0[k] > 0 ? f0[k] : last;
  for (size_t k = nframes; k-- > 0;) {
    if (f0[k] > 0) last = f0[k];
    f0held[k] = f0[k] > 0 ? f0[k] : last;
  }
  for (size_t k = 0; k < nframes; ++k) voicing[k] = f0[k] > 0 ? 1 : 0;

  std::mt19937 gen(seed);
  std::normal_distribution<double> g;
  std::vector<double> white(n), hp(n, 0.0), x(n, 0.0);
  for (double &v : white) v = g(gen);
  // Noise high-passed at the (constant) median fv of the voiced frames.
  const double cut = fv[nframes / 2];
  const double tf[] = {0, cut - 50, cut + 50, 1e6}, tdb[] = {-60, -60, 0, 0};
  fftfilter(white.data(), n, hp.data(), kFs, 2048, tf, tdb, 4);
  for (double &v : white) v = g(gen);

  double phase = 0;
  for (uint32_t t = 0; t < n; ++t) {
    const double f = atsample(f0held, t), v = atsample(voicing, t), fvt = atsample(fv, t);
    phase += 2 * kPi * f / kFs;
    if (phase > 2 * kPi * 1e6) phase = std::fmod(phase, 2 * kPi);
    double h = 0, afv = 0;
    for (uint32_t k = 1; k * f < kFs / 2 - 100; ++k) {
      const double F = k * f;
      const double a = 0.1 * std::pow(static_cast<double>(k), -0.7);
      if (F <= fvt) afv = a;
      const double taper = F < fvt - 100 ? 1 : (F > fvt ? 0 : (fvt - F) / 100);
      h += a * taper * std::sin(k * phase + 0.3 * k * k);
    }
    x[t] = v * (h + afv * hp[t]) + (1 - v) * 0.01 * white[t];
  }
  return x;
}

std::vector<Truth> harmoniccases() {
  std::vector<Truth> cases;
  const size_t nframes = 400;  // 2 s
  auto add = [&](const char *name, auto f0of, double fv, bool gaps, uint32_t seed) {
    Truth t;
    t.name = name;
    t.f0.resize(nframes);
    t.fv.assign(nframes, fv);
    for (size_t k = 0; k < nframes; ++k) {
      const bool unvoiced = gaps && (k % 110) >= 80;  // 0.4 s voiced, 0.15 s unvoiced
      t.f0[k] = unvoiced ? 0 : f0of(static_cast<double>(k) / (nframes - 1));
    }
    t.x = harmonicsignal(t.f0, t.fv, seed);
    cases.push_back(std::move(t));
  };
  add("harmonic, steady 100 Hz, fv 4 kHz", [](double) { return 100.0; }, 4000, false, 1);
  add("harmonic, steady 250 Hz, fv 3 kHz", [](double) { return 250.0; }, 3000, false, 2);
  add("harmonic, glide 80-400 Hz, fv 5 kHz", [](double a) { return 80 * std::pow(5.0, a); }, 5000, false, 3);
  add("harmonic, glide 80-400 Hz with unvoiced gaps, fv 2.5 kHz",
      [](double a) { return 80 * std::pow(5.0, a); }, 2500, true, 4);
  return cases;
}

Truth synthcase(const char *name, uint64_t seed, int f0mode) {
  kestreltest::SynthUttOptions o;
  o.seconds = 3.0;
  o.seed = seed;
  kestreltest::SynthUtterance u = kestreltest::makesynthutterance(o);
  for (uint32_t i = 0; i < u.nframes; ++i) {
    if (u.f0[i] <= 0) continue;
    if (f0mode == 1) u.f0[i] = 120;
    if (f0mode == 2) u.f0[i] = 80 * std::pow(5.0, static_cast<double>(i) / (u.nframes - 1));
  }
  Truth t;
  t.name = name;
  t.x.assign(getwaveformlength(u.shift, u.nframes), 0.0);
  std::vector<double> cc = u.cc;
  cc2waveform(t.x.data(), static_cast<uint32_t>(t.x.size()), u.fs, u.shift, u.nframes, u.f0.data(), u.fv.data(),
              u.order, cc.data(), u.alpha);
  t.f0 = u.f0;
  t.fv = u.fv;
  return t;
}

using Tracker = int (*)(const double *, uint32_t, double, uint32_t, uint32_t, uint32_t, double, double, double *);

struct Scores {
  double gpe, vde, fine;
};

Scores evaluate(const Truth &t, Tracker tracker) {
  const uint32_t nframes = static_cast<uint32_t>(t.f0.size());
  std::vector<double> f0(nframes);
  tracker(t.x.data(), static_cast<uint32_t>(t.x.size()), kFs, kShift, kShift, nframes, 60, 500, f0.data());
  size_t both = 0, gross = 0, vdiff = 0;
  std::vector<double> cents;
  for (uint32_t k = 0; k < nframes; ++k) {
    const bool tv = t.f0[k] > 0, ev = f0[k] > 0;
    vdiff += tv != ev;
    if (tv && ev) {
      ++both;
      if (std::fabs(f0[k] / t.f0[k] - 1) > 0.2)
        ++gross;
      else
        cents.push_back(std::fabs(1200.0 * std::log2(f0[k] / t.f0[k])));
    }
  }
  return {both ? 100.0 * gross / both : 0.0, 100.0 * vdiff / nframes, median(cents)};
}

// fv estimated with the true f0: median |error| and median bias, Hz.
std::pair<double, double> evaluatefv(const Truth &t) {
  const uint32_t nframes = static_cast<uint32_t>(t.f0.size());
  std::vector<double> fv(nframes), err, bias;
  getfvoicing(t.x.data(), static_cast<uint32_t>(t.x.size()), kFs, kShift, kShift, nframes, t.f0.data(), fv.data());
  for (uint32_t k = 0; k < nframes; ++k)
    if (t.f0[k] > 0) {
      err.push_back(std::fabs(fv[k] - t.fv[k]));
      bias.push_back(fv[k] - t.fv[k]);
    }
  return {median(err), median(bias)};
}

}  // namespace

int main() {
  std::vector<Truth> cases = harmoniccases();
  cases.push_back(synthcase("synthetic speech, f0 glides 80-300 Hz (seed 1)", 1, 0));
  cases.push_back(synthcase("synthetic speech, f0 glides 80-300 Hz (seed 2)", 2, 0));
  cases.push_back(synthcase("synthetic speech, steady 120 Hz", 3, 1));
  cases.push_back(synthcase("synthetic speech, glide 80-400 Hz", 4, 2));

  std::printf("| signal (known truth) | frames | GPE %% | VDE %% | fine, cents | GPE %% (dp) | VDE %% (dp) "
              "| fine, cents (dp) | fv median abs. error, Hz | fv median bias, Hz |\n");
  std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const Truth &t : cases) {
    const Scores a = evaluate(t, getpitch), b = evaluate(t, getpitchdp);
    const std::pair<double, double> fv = evaluatefv(t);
    std::printf("| %s | %zu | %.1f | %.1f | %.1f | %.1f | %.1f | %.1f | %.0f | %+.0f |\n", t.name.c_str(), t.f0.size(),
                a.gpe, a.vde, a.fine, b.gpe, b.vde, b.fine, fv.first, fv.second);
  }
  const char *files[] = {"m_awb_arctic_a0007.wav", "m_aew_arctic_a0001.wav", "f_axb_arctic_a0004.wav",
                         "f_vctk_p225_001.wav"};
  std::printf("\n| recording (no ground truth) | seconds | voiced %% | median f0, Hz | median fv, Hz |\n");
  std::printf("|---|---:|---:|---:|---:|\n");
  for (const char *f : files) {
    const std::string path = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/" + f;
    double *x = nullptr;
    const uint32_t n = wavreadm1616(path.c_str(), &x);
    if (n == 0) {
      std::printf("| %s | cannot read | | | |\n", f);
      continue;
    }
    const uint32_t nframes = getnumanalysisframes(n, kShift, 0);
    std::vector<double> f0(nframes), fv(nframes);
    getpitchdp(x, n, kFs, kShift, 0, nframes, 60, 500, f0.data());
    getfvoicing(x, n, kFs, kShift, 0, nframes, f0.data(), fv.data());
    std::free(x);
    std::vector<double> vf0, vfv;
    for (uint32_t k = 0; k < nframes; ++k)
      if (f0[k] > 0) {
        vf0.push_back(f0[k]);
        vfv.push_back(fv[k]);
      }
    std::printf("| %s | %.2f | %.1f | %.0f | %.0f |\n", f, n / kFs, 100.0 * vf0.size() / nframes, median(vf0),
                median(vfv));
  }
  return 0;
}
