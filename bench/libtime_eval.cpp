// libtime_eval: CPU time of the library calls behind the two commands, per
// recording: analysis = getpitchdp (60..500 Hz) + getfvoicing + waveform2cc
// (order 59, alpha 0.42, method 0), synthesis = cc2waveform with the fv track;
// 80-sample frames at 16 kHz, as the commands' defaults.
//
//   libtime_eval REPEATS file.wav ...
//
// Prints one tab-separated line per file: name, seconds of audio, and the
// median over REPEATS runs of the process CPU seconds of analysis and of
// synthesis.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

namespace {

constexpr double kFs = 16000.0;
constexpr uint32_t kShift = 80, kOrder = 59;

double cpuseconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

}  // namespace

int main(int argc, char **argv) {
  const int repeats = argc > 1 ? std::atoi(argv[1]) : 0;
  if (argc < 3 || repeats < 1) {
    std::fprintf(stderr, "usage: libtime_eval REPEATS file.wav ...\n");
    return 1;
  }
  for (int a = 2; a < argc; ++a) {
    double *raw = nullptr;
    const uint32_t n = wavreadm1616(argv[a], &raw);
    if (n <= kShift + 1) {
      std::fprintf(stderr, "Error: cannot read %s (or too short)\n", argv[a]);
      return 1;
    }
    const std::vector<double> x(raw, raw + n);
    std::free(raw);
    const uint32_t nframes = (n - 1 + kShift - 1) / kShift - 1;  // as kestrelana counts them
    const uint32_t len = getwaveformlength(kShift, nframes);
    std::vector<double> f0(nframes), fv(nframes), cc(static_cast<size_t>(kOrder + 1) * nframes), y(len);
    std::vector<double> ana, syn;
    for (int r = 0; r < repeats; ++r) {
      const double t0 = cpuseconds();
      getpitchdp(x.data(), n, kFs, kShift, kShift, nframes, 60.0, 500.0, f0.data());
      getfvoicing(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), fv.data());
      waveform2cc(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), kOrder, cc.data(), 0.42, 0);
      const double t1 = cpuseconds();
      std::vector<double> c = cc;  // the synthesis adjusts c0 in place and back
      const double t2 = cpuseconds();
      cc2waveform(y.data(), len, kFs, kShift, nframes, f0.data(), fv.data(), kOrder, c.data(), 0.42);
      const double t3 = cpuseconds();
      ana.push_back(t1 - t0);
      syn.push_back(t3 - t2);
    }
    std::string name = argv[a];
    name = name.substr(name.find_last_of('/') + 1);
    if (name.size() > 4 && name.compare(name.size() - 4, 4, ".wav") == 0) name.resize(name.size() - 4);
    std::printf("%s\t%.3f\t%.6f\t%.6f\n", name.c_str(), n / kFs, median(ana), median(syn));
  }
  return 0;
}
