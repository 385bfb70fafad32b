// threads_eval: thread scaling of the analysis and the synthesis of one
// recording with kestrelana's defaults (80-sample frames at 16 kHz, order 59,
// alpha 0.42, method 0, the cross-correlation pitch tracker).
//
//   threads_eval REPEATS MAXTHREADS file.wav
//
// For 1 .. MAXTHREADS threads (taking turns) prints the median wall time of REPEATS runs of
// the analysis (getpitchdpthreads, getfvoicingthreads, waveform2ccthreads) and
// of the synthesis from its features (cc2waveformthreads), the speed-up over
// one thread, and whether every track, cepstrum and sample equals the
// one-thread one bit for bit.
//
// The ceiling columns give what the machine allows: N single-thread runs at
// once, each on its own copy of the data, sharing nothing, do N times the work
// in the time shown; their speed-up is N times the single run's time over it.
// Cores that slow down while all of them compute (shared caches, memory, or a
// host that runs other machines) lower the ceiling, not the threading.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
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
  std::printf("%s: %.1f s\nthreads\tanalysis_s\tspeedup\tceiling\tsynthesis_s\tspeedup\tceiling\tidentical\n",
              argv[3], n / kFs);
  // Thread counts take turns within each repeat, so that a machine whose speed
  // drifts slows every count alike.
  struct Run {
    std::vector<double> f0, fv, cc, y, ta, ts, ca, cs;
  };
  std::vector<Run> runs(static_cast<size_t>(maxthreads));
  for (Run &u : runs) {
    u.f0.resize(nframes), u.fv.resize(nframes), u.y.resize(len);
    u.cc.resize(static_cast<size_t>(kOrder + 1) * nframes);
  }
  const auto analyse = [&](Run &u, int t) {
    getpitchdpthreads(x.data(), n, kFs, kShift, kShift, nframes, 60.0, 500.0, u.f0.data(), t);
    getfvoicingthreads(x.data(), n, kFs, kShift, kShift, nframes, u.f0.data(), u.fv.data(), t);
    waveform2ccthreads(x.data(), n, kFs, kShift, kShift, nframes, u.f0.data(), kOrder, u.cc.data(), 0.42, 0, t);
  };
  const auto synthesise = [&](Run &u, std::vector<double> &c, int t) {
    cc2waveformthreads(u.y.data(), len, kFs, kShift, nframes, u.f0.data(), u.fv.data(), kOrder, c.data(), 0.42, t);
  };
  // t single-thread runs at once, each with its own data.
  const auto alone = [&](int t, bool synthesis) {
    std::vector<Run> own(static_cast<size_t>(t), runs[0]);
    std::vector<std::vector<double>> cs(static_cast<size_t>(t), runs[0].cc);
    return walltime([&] {
      std::vector<std::thread> crew;
      for (int k = 0; k < t; ++k)
        crew.emplace_back([&, k] {
          if (synthesis)
            synthesise(own[static_cast<size_t>(k)], cs[static_cast<size_t>(k)], 1);
          else
            analyse(own[static_cast<size_t>(k)], 1);
        });
      for (std::thread &th : crew) th.join();
    });
  };
  for (int r = 0; r < repeats; ++r)
    for (int t = 1; t <= maxthreads; ++t) {
      Run &u = runs[static_cast<size_t>(t - 1)];
      u.ta.push_back(walltime([&] { analyse(u, t); }));
      std::vector<double> c = u.cc;
      u.ts.push_back(walltime([&] { synthesise(u, c, t); }));
      if (t > 1) {
        u.ca.push_back(alone(t, false));
        u.cs.push_back(alone(t, true));
      }
    }
  const Run &one = runs[0];
  for (int t = 1; t <= maxthreads; ++t) {
    const Run &u = runs[static_cast<size_t>(t - 1)];
    const bool same = u.f0 == one.f0 && u.fv == one.fv &&
                      std::memcmp(u.cc.data(), one.cc.data(), u.cc.size() * sizeof(double)) == 0 &&
                      std::memcmp(u.y.data(), one.y.data(), u.y.size() * sizeof(double)) == 0;
    const double ca = t > 1 ? t * median(one.ta) / median(u.ca) : 1.0;
    const double cs = t > 1 ? t * median(one.ts) / median(u.cs) : 1.0;
    std::printf("%d\t%.4f\t%.2f\t%.2f\t%.4f\t%.2f\t%.2f\t%s\n", t, median(u.ta), median(one.ta) / median(u.ta), ca,
                median(u.ts), median(one.ts) / median(u.ts), cs, same ? "yes" : "NO");
  }
  return 0;
}
