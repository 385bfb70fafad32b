// threads_eval: thread scaling of the analysis and the synthesis of one
// recording with kestrelana's defaults (80-sample frames at 16 kHz, order 59,
// alpha 0.42, method 0, the cross-correlation pitch tracker).
//
//   threads_eval REPEATS MAXTHREADS file.wav
//
// For 1 .. MAXTHREADS threads prints the median wall time of REPEATS runs of
// the analysis (getpitchdpthreads, getfvoicingthreads, waveform2ccthreads) and
// of the synthesis from its features (cc2waveformthreads), the speed-up over
// one thread, and whether every track, cepstrum and sample equals the
// one-thread one bit for bit.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "wavm1616io.h"

namespace {

constexpr double kFs = 16000.0;
constexpr uint32_t kShift = 80, kOrder = 59;

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t m = v.size() / 2;
  return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

template <class F>
double walltime(F f) {
  const auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char **argv) {
  const int repeats = argc > 1 ? std::atoi(argv[1]) : 0;
  const int maxthreads = argc > 2 ? std::atoi(argv[2]) : 0;
  if (argc != 4 || repeats < 1 || maxthreads < 1) {
    std::fprintf(stderr, "usage: threads_eval REPEATS MAXTHREADS file.wav\n");
    return 1;
  }
  double *raw = nullptr;
  const uint32_t n = wavreadm1616(argv[3], &raw);
  if (n <= kShift + 1) {
    std::fprintf(stderr, "Error: cannot read %s (or too short)\n", argv[3]);
    return 1;
  }
  const std::vector<double> x(raw, raw + n);
  std::free(raw);
  const uint32_t nframes = (n - 1 + kShift - 1) / kShift - 1;
  const uint32_t len = getwaveformlength(kShift, nframes);
  std::vector<double> f01, fv1, cc1, y1;
  std::printf("%s: %.1f s\nthreads\tanalysis_s\tspeedup\tsynthesis_s\tspeedup\tidentical\n", argv[3], n / kFs);
  double ana1 = 0, syn1 = 0;
  for (int t = 1; t <= maxthreads; ++t) {
    std::vector<double> f0(nframes), fv(nframes), cc(static_cast<size_t>(kOrder + 1) * nframes), y(len), ta, ts;
    for (int r = 0; r < repeats; ++r) {
      ta.push_back(walltime([&] {
        getpitchdpthreads(x.data(), n, kFs, kShift, kShift, nframes, 60.0, 500.0, f0.data(), t);
        getfvoicingthreads(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), fv.data(), t);
        waveform2ccthreads(x.data(), n, kFs, kShift, kShift, nframes, f0.data(), kOrder, cc.data(), 0.42, 0, t);
      }));
      std::vector<double> c = cc;
      ts.push_back(walltime([&] {
        cc2waveformthreads(y.data(), len, kFs, kShift, nframes, f0.data(), fv.data(), kOrder, c.data(), 0.42, t);
      }));
    }
    if (t == 1) {
      f01 = f0;
      fv1 = fv;
      cc1 = cc;
      y1 = y;
      ana1 = median(ta);
      syn1 = median(ts);
    }
    const bool same = f0 == f01 && fv == fv1 && std::memcmp(cc.data(), cc1.data(), cc.size() * sizeof(double)) == 0 &&
                      std::memcmp(y.data(), y1.data(), y.size() * sizeof(double)) == 0;
    std::printf("%d\t%.4f\t%.2f\t%.4f\t%.2f\t%s\n", t, median(ta), ana1 / median(ta), median(ts), syn1 / median(ts),
                same ? "yes" : "NO");
  }
  return 0;
}
