// Analysis speed on a 16 kHz recording (examples/speech/m_awb_arctic_a0007.wav,
// 4 s): getpitch (60-500 Hz, 5 ms frames) and getfvoicing on the resulting
// track. The counter "rtf" is the real-time factor: processing seconds per
// second of audio (lower is faster); items/s counts frames per second.
#include <benchmark/benchmark.h>

#include "benchutil.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "windowing.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kFs = 16000;
constexpr uint32_t kShift = 80;


const Recording &recording() {
  static const Recording r = [] {
    Recording r;
    r.x = loadrecording("m_awb_arctic_a0007.wav");
    const uint32_t n = static_cast<uint32_t>(r.x.size());
    r.nframes = getnumanalysisframes(n, kShift, 0);
    r.f0.resize(r.nframes);
    getpitch(r.x.data(), n, kFs, kShift, 0, r.nframes, 60, 500, r.f0.data());
    return r;
  }();
  return r;
}

template <class Run>
void timed(benchmark::State &state, const Recording &r, Run run) {
  double seconds = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    run();
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    benchmark::ClobberMemory();
  }
  state.counters["rtf"] = seconds / (static_cast<double>(state.iterations()) * r.seconds());
  state.counters["audio_s"] = r.seconds();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * r.nframes);
}

void BM_getpitch(benchmark::State &state) {
  const Recording &r = recording();
  std::vector<double> f0(r.nframes);
  timed(state, r, [&] {
    getpitch(r.x.data(), static_cast<uint32_t>(r.x.size()), kFs, kShift, 0, r.nframes, 60, 500, f0.data());
    benchmark::DoNotOptimize(f0.data());
  });
}

void BM_getfvoicing(benchmark::State &state) {
  const Recording &r = recording();
  std::vector<double> fv(r.nframes);
  timed(state, r, [&] {
    getfvoicing(r.x.data(), static_cast<uint32_t>(r.x.size()), kFs, kShift, 0, r.nframes, r.f0.data(),
                fv.data());
    benchmark::DoNotOptimize(fv.data());
  });
}

void BM_applyfftfilter(benchmark::State &state) {
  const Recording &r = recording();
  timed(state, r, [&] {
    double *y = applyfftfilter(r.x.data(), static_cast<uint32_t>(r.x.size()), kFs);
    benchmark::DoNotOptimize(y);
    std::free(y);
  });
}

BENCHMARK(BM_getpitch)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_getfvoicing)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_applyfftfilter)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
