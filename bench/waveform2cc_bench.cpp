// Cepstral-analysis speed per method on a bundled recording (16 kHz, order
// 39, alpha 0.42, 5 ms frames centred on (k+1)*80, f0 from getpitch computed
// once). The counter "rtf" is the real-time factor: analysis seconds per
// second of audio (lower is faster); items/s are frames per second.
#include <benchmark/benchmark.h>

#include "benchutil.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ccanalysis.h"
#include "pitchanalysis.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kFs = 16000.0;
constexpr uint32_t kShift = 80;


// The male recording: the lowest f0, hence the most harmonics per frame.
const Recording &recording() {
  static const Recording r = [] {
    Recording rec;
    rec.x = loadrecording("m_aew_arctic_a0001.wav");
    const uint32_t n = static_cast<uint32_t>(rec.x.size());
    rec.nframes = (n - 1 + kShift - 1) / kShift - 1;
    rec.f0.resize(rec.nframes);
    getpitch(rec.x.data(), n, kFs, kShift, kShift, rec.nframes, 60.0, 500.0, rec.f0.data());
    return rec;
  }();
  return r;
}

void BM_waveform2cc(benchmark::State &state) {
  const Recording &r = recording();
  const uint8_t method = static_cast<uint8_t>(state.range(0));
  std::vector<double> cc(getccsize(r.nframes, 39));
  double seconds = 0.0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    waveform2cc(r.x.data(), static_cast<uint32_t>(r.x.size()), kFs, kShift, kShift, r.nframes, r.f0.data(), 39,
                cc.data(), 0.42, method);
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    benchmark::DoNotOptimize(cc.data());
    benchmark::ClobberMemory();
  }
  state.counters["rtf"] = seconds / (static_cast<double>(state.iterations()) * r.seconds());
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * r.nframes);
}
BENCHMARK(BM_waveform2cc)->DenseRange(0, 4)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
