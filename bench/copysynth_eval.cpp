// copysynth_eval: quality of copy synthesis through each cepstral-analysis
// method. For every recording:
//   getpitchdp or getpitch (60..500 Hz) -> getfvoicing -> waveform2cc (order
//   59 or as given, alpha 0.42, method 0..4) -> cc2waveform -> compare with
//   the recording.
// Frame k is centred on sample (k+1)*80, the decoder's grid; nframes is the
// smallest count whose resynthesis, (nframes+1)*80+1 samples, covers the
// recording.
//
//   copysynth_eval [--pitch=0|1] [--order=P] [--ref-f0=DIR] [file.wav ...]
//     (default: getpitchdp, as kestrelana; order 59; examples/speech/*.wav)
//     --ref-f0=DIR: reference tracks DIR/NAME.f0 (text, Hz per frame, 0 =
//     unvoiced, frame t centred on sample 80 t, as the WORLD anchor script
//     writes them): the analysis track's voicing decision error, gross
//     pitch error and fine error (mean |cents| without gross errors)
//     against them, per file.
//
// Figures, per method and file:
//  - LSD (dB): 25 ms Hann frames (400 samples) every 5 ms from sample 0,
//    512-point power spectra P = |X|^2 + 1e-10, per frame the RMS over bins
//    0..256 (0..8 kHz) of 10 log10(P_orig / P_resynth), averaged over the
//    frames within 60 dB of the loudest original frame; separately for
//    voiced and unvoiced frames (the pitch track's frame nearest the LSD
//    frame's centre decides).
//  - level (dB): 20 log10 of the RMS of the resynthesis over that of the
//    recording (same span, the recording's length).
//  - f0: the resynthesis re-analysed with the same tracker; over the frames voiced in
//    both tracks, the gross error rate (relative error above 20 %) and the
//    median absolute relative error.
//  - analysis RTF: seconds spent in waveform2cc per second of audio (one
//    run, wall clock; the benchmark waveform2cc_bench measures it properly).
// Prints Markdown tables (per file, then the mean over files per method).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ccanalysis.h"
#include "dft.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"
#include "windowing.h"

namespace {

constexpr double kFs = 16000.0;
constexpr uint32_t kShift = 80;
constexpr double kAlpha = 0.42;
constexpr double kF0Min = 60.0, kF0Max = 500.0;
constexpr uint32_t kLsdFrame = 400, kLsdHop = 80;
constexpr int32_t kLsdFft = 512;
constexpr double kLsdFloor = 1e-10, kLsdRangeDb = 60.0;
constexpr double kGross = 0.2;
const char *const kMethodNames[5] = {"0 harmonic envelope", "1 discrete cepstrum", "2 quasi-harmonic d.c.",
                                     "3 smoothed spectrum", "4 peak envelope"};

struct Result {
  double lsdv = 0, lsdu = 0, level = 0, ger = 0, mre = 0, rtf = 0;
  uint32_t nv = 0, nu = 0, nboth = 0;
};

std::vector<double> framespectra(const std::vector<double> &x, uint32_t nframes, const std::vector<double> &win,
                                 std::vector<double> *level) {
  std::vector<double> db;
  std::vector<double> re(kLsdFft), im(kLsdFft);
  for (uint32_t f = 0; f < nframes; ++f) {
    const double *seg = x.data() + static_cast<size_t>(f) * kLsdHop;
    double energy = 0.0;
    for (int32_t i = 0; i < kLsdFft; ++i) {
      re[i] = (static_cast<uint32_t>(i) < kLsdFrame) ? seg[i] * win[i] : 0.0;
      im[i] = 0.0;
      energy += re[i] * re[i];
    }
    if (level) level->push_back(10.0 * std::log10(energy + kLsdFloor));
    fftr(kLsdFft, re.data(), im.data());
    for (int32_t k = 0; k <= kLsdFft / 2; ++k)
      db.push_back(10.0 * std::log10(re[k] * re[k] + im[k] * im[k] + kLsdFloor));
  }
  return db;
}

double median(std::vector<double> v) {
  if (v.empty()) return NAN;
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

using Tracker = int (*)(const double *, uint32_t, double, uint32_t, uint32_t, uint32_t, double, double, double *);
Tracker gTracker = getpitchdp;

Result compare(const std::vector<double> &x, const std::vector<double> &y, const std::vector<double> &f0x) {
  Result r;
  const uint32_t n = static_cast<uint32_t>(x.size());
  std::vector<double> win(kLsdFrame);
  winhanning(win.data(), kLsdFrame, 0);
  const uint32_t nl = n >= kLsdFrame ? (n - kLsdFrame) / kLsdHop + 1 : 0;
  std::vector<double> level;
  const std::vector<double> dx = framespectra(x, nl, win, &level);
  const std::vector<double> dy = framespectra(y, nl, win, nullptr);
  const double loudest = level.empty() ? 0.0 : *std::max_element(level.begin(), level.end());
  const uint32_t bins = kLsdFft / 2 + 1;
  double sv = 0, su = 0;
  for (uint32_t f = 0; f < nl; ++f) {
    if (level[f] < loudest - kLsdRangeDb) continue;
    double acc = 0;
    for (uint32_t k = 0; k < bins; ++k) {
      const double d = dx[f * bins + k] - dy[f * bins + k];
      acc += d * d;
    }
    const double lsd = std::sqrt(acc / bins);
    // Pitch frame k is centred on (k+1)*80; the LSD frame on f*80 + 200.
    const double centre = static_cast<double>(f) * kLsdHop + kLsdFrame / 2.0;
    long k = std::lround(centre / kShift) - 1;
    k = std::max(0L, std::min(k, static_cast<long>(f0x.size()) - 1));
    if (f0x[k] > 0) {
      sv += lsd;
      ++r.nv;
    } else {
      su += lsd;
      ++r.nu;
    }
  }
  r.lsdv = r.nv ? sv / r.nv : NAN;
  r.lsdu = r.nu ? su / r.nu : NAN;
  double ex = 0, ey = 0;
  for (uint32_t i = 0; i < n; ++i) {
    ex += x[i] * x[i];
    ey += y[i] * y[i];
  }
  r.level = 10.0 * std::log10(ey / ex);

  std::vector<double> f0y(f0x.size());
  gTracker(y.data(), n, kFs, kShift, kShift, static_cast<uint32_t>(f0y.size()), kF0Min, kF0Max, f0y.data());
  std::vector<double> rel;
  uint32_t gross = 0;
  for (size_t k = 0; k < f0x.size(); ++k) {
    if (!(f0x[k] > 0 && f0y[k] > 0)) continue;
    const double e = std::fabs(f0y[k] - f0x[k]) / f0x[k];
    rel.push_back(e);
    if (e > kGross) ++gross;
  }
  r.nboth = static_cast<uint32_t>(rel.size());
  r.ger = rel.empty() ? NAN : 100.0 * gross / rel.size();
  r.mre = 100.0 * median(rel);
  return r;
}

void printrow(const char *method, const std::string &file, const Result &r) {
  std::printf("| %s | %s | %.2f | %.2f | %+.2f | %.1f | %.2f | %.3f |\n", method, file.c_str(), r.lsdv, r.lsdu, r.level,
              r.ger, r.mre, r.rtf);
}

// Voicing decision error, gross pitch error (%) and fine error (mean |cents|
// over the voiced-in-both frames without a gross error) of track f0 (frame k
// centred on (k+1)*80) against the text track in path (frame t on 80 t).
bool comparef0(const std::string &path, const std::vector<double> &f0, double out[3]) {
  FILE *fp = std::fopen(path.c_str(), "r");
  if (!fp) return false;
  std::vector<double> ref;
  double v;
  while (std::fscanf(fp, "%lf", &v) == 1) ref.push_back(v);
  std::fclose(fp);
  size_t frames = 0, vdiff = 0, both = 0, gross = 0;
  double cents = 0;
  for (size_t k = 0; k < f0.size() && k + 1 < ref.size(); ++k, ++frames) {
    const bool rv = ref[k + 1] > 0, ev = f0[k] > 0;
    vdiff += rv != ev;
    if (!(rv && ev)) continue;
    ++both;
    if (std::fabs(f0[k] / ref[k + 1] - 1.0) > kGross)
      ++gross;
    else
      cents += std::fabs(1200.0 * std::log2(f0[k] / ref[k + 1]));
  }
  if (!frames) return false;
  out[0] = 100.0 * vdiff / frames;
  out[1] = both ? 100.0 * gross / both : NAN;
  out[2] = both > gross ? cents / (both - gross) : NAN;
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> files;
  uint32_t kOrder = 59;
  std::string refdir;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--pitch=0")
      gTracker = getpitch;
    else if (a == "--pitch=1")
      gTracker = getpitchdp;
    else if (a.rfind("--order=", 0) == 0)
      kOrder = static_cast<uint32_t>(std::strtoul(a.c_str() + 8, nullptr, 10));
    else if (a.rfind("--ref-f0=", 0) == 0)
      refdir = a.substr(9);
    else if (a.rfind("--", 0) == 0) {
      std::printf("Unknown option %s\n", a.c_str());
      return 1;
    } else
      files.push_back(a);
  }
  if (kOrder > 255) kOrder = 255;
  std::vector<std::string> f0rows;
  if (files.empty()) {
    const std::filesystem::path dir = std::filesystem::path(KESTREL_SOURCE_DIR) / "examples" / "speech";
    for (const auto &e : std::filesystem::directory_iterator(dir))
      if (e.path().extension() == ".wav") files.push_back(e.path().string());
    std::sort(files.begin(), files.end());
  }
  if (files.empty()) {
    std::printf("No WAV files found.\n");
    return 1;
  }
  std::vector<Result> results(5 * files.size());
  for (size_t fi = 0; fi < files.size(); ++fi) {
    double *raw = nullptr;
    const uint32_t n = wavreadm1616(files[fi].c_str(), &raw);
    if (n == 0) {
      std::printf("Cannot read %s\n", files[fi].c_str());
      return 1;
    }
    std::vector<double> x(raw, raw + n);
    std::free(raw);
    // (nframes + 1) * 80 + 1 >= n: the resynthesis covers the recording.
    const uint32_t nframes = (n > kShift + 1) ? (n - 1 + kShift - 1) / kShift - 1 : 1;
    std::vector<double> f0(nframes), fv(nframes);
    gTracker(x.data(), n, kFs, kShift, kShift, nframes, kF0Min, kF0Max, f0.data());
    double e[3];
    const std::string stem = std::filesystem::path(files[fi]).stem().string();
    if (!refdir.empty() && comparef0(refdir + "/" + stem + ".f0", f0, e)) {
      char row[256];
      std::snprintf(row, sizeof row, "| %s | %.1f | %.1f | %.1f |", stem.c_str(), e[0], e[1], e[2]);
      f0rows.push_back(row);
    }
    getfvoicing(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), fv.data());
    const uint32_t len = getwaveformlength(kShift, nframes);
    for (uint8_t m = 0; m < 5; ++m) {
      std::vector<double> cc(getccsize(nframes, kOrder));
      const auto t0 = std::chrono::steady_clock::now();
      waveform2cc(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), kOrder, cc.data(), kAlpha, m);
      const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
      std::vector<double> y(len);
      cc2waveform(y.data(), len, kFs, kShift, nframes, f0.data(), fv.data(), kOrder, cc.data(), kAlpha);
      y.resize(n);
      results[m * files.size() + fi] = compare(x, y, f0);
      results[m * files.size() + fi].rtf = secs / (n / kFs);
    }
  }
  std::printf("| method | file | LSD voiced (dB) | LSD unvoiced (dB) | level (dB) | f0 gross err (%%) | f0 median err (%%) "
              "| analysis RTF |\n");
  std::printf("|---|---|---:|---:|---:|---:|---:|---:|\n");
  for (uint8_t m = 0; m < 5; ++m)
    for (size_t fi = 0; fi < files.size(); ++fi)
      printrow(kMethodNames[m], std::filesystem::path(files[fi]).stem().string(), results[m * files.size() + fi]);
  std::printf("\n| method | LSD voiced (dB) | LSD unvoiced (dB) | level (dB) | f0 gross err (%%) | f0 median err (%%) "
              "| analysis RTF |\n");
  std::printf("|---|---:|---:|---:|---:|---:|---:|\n");
  for (uint8_t m = 0; m < 5; ++m) {
    Result mean;
    for (size_t fi = 0; fi < files.size(); ++fi) {
      const Result &r = results[m * files.size() + fi];
      mean.lsdv += r.lsdv / files.size();
      mean.lsdu += r.lsdu / files.size();
      mean.level += r.level / files.size();
      mean.ger += r.ger / files.size();
      mean.mre += r.mre / files.size();
      mean.rtf += r.rtf / files.size();
    }
    std::printf("| %s | %.2f | %.2f | %+.2f | %.1f | %.2f | %.3f |\n", kMethodNames[m], mean.lsdv, mean.lsdu, mean.level,
                mean.ger, mean.mre, mean.rtf);
  }
  if (!f0rows.empty()) {
    std::printf("\n| file | VDE (%%) | GPE (%%) | fine error (cents) |\n|---|---:|---:|---:|\n");
    for (const std::string &r : f0rows) std::printf("%s\n", r.c_str());
  }
  return 0;
}
