// FFT throughput in the split layout the synthesis uses: one forward and one
// inverse transform per iteration at the frame sizes of the system.
#include "dft.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

std::vector<double> signal(size_t n) {
  std::mt19937_64 gen(42);
  std::uniform_real_distribution<double> dist(-1.0, 1.0);
  std::vector<double> v(n);
  for (double &d : v) d = dist(gen);
  return v;
}

// A round trip multiplies the data by n; scaling back keeps it bounded (the
// O(n) scaling is included in the timing).
void rescale(std::vector<double> &buf, double n) {
  const double inv = 1.0 / n;
  for (double &d : buf) d *= inv;
}

void BM_fftr_ifftr(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  std::vector<double> buf = signal(2 * static_cast<size_t>(n));  // re in [0, n), im in [n, 2n)
  for (auto _ : state) {
    fftr(n, buf.data(), buf.data() + n);
    ifftr(n, buf.data(), buf.data() + n);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
    rescale(buf, n);
  }
  state.counters["transforms/s"] = benchmark::Counter(2.0 * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_fftr(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  for (auto _ : state) {
    buf = input;  // a fresh frame each time, as in the synthesis (copy included)
    fftr(n, buf.data(), buf.data() + n);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  state.counters["transforms/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

void BM_ifftr(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  for (auto _ : state) {
    buf = input;
    ifftr(n, buf.data(), buf.data() + n);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  state.counters["transforms/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                      benchmark::Counter::kIsRate);
}

}  // namespace

BENCHMARK(BM_fftr)->Arg(256)->Arg(1024)->Arg(2048);
BENCHMARK(BM_ifftr)->Arg(256)->Arg(1024)->Arg(2048);
BENCHMARK(BM_fftr_ifftr)->Arg(256)->Arg(1024)->Arg(2048);

BENCHMARK_MAIN();
