// FFT throughput in both layouts at the frame sizes of the system: a fresh
// frame per iteration (copy included), reported as nanoseconds per point.
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

void perpoint(benchmark::State &state, int32_t n) {
  state.counters["ns/point"] = benchmark::Counter(static_cast<double>(state.iterations()) * n,
                                                  benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// direction 1 forward, -1 inverse; split layout: re in [0, n), im in [n, 2n).
template <int8_t Direction>
void BM_split(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  for (auto _ : state) {
    buf = input;
    dofftr(n, buf.data(), buf.data() + n, Direction);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  perpoint(state, n);
}

template <int8_t Direction>
void BM_interleaved(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  for (auto _ : state) {
    buf = input;
    dofftc(n, buf.data(), Direction);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  perpoint(state, n);
}

// The same with a plan made once outside the loop.
template <int8_t Direction>
void BM_plansplit(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  FFTPLAN *plan = fftplancreate(n, Direction);
  for (auto _ : state) {
    buf = input;
    fftplanr(plan, buf.data(), buf.data() + n);
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  fftplanfree(plan);
  perpoint(state, n);
}

template <int8_t Direction>
void BM_planinterleaved(benchmark::State &state) {
  const int32_t n = static_cast<int32_t>(state.range(0));
  const std::vector<double> input = signal(2 * static_cast<size_t>(n));
  std::vector<double> buf = input;
  FFTPLAN *plan = fftplancreate(n, Direction);
  for (auto _ : state) {
    buf = input;
    fftplanc(plan, buf.data());
    benchmark::DoNotOptimize(buf.data());
    benchmark::ClobberMemory();
  }
  fftplanfree(plan);
  perpoint(state, n);
}

}  // namespace

BENCHMARK_TEMPLATE(BM_split, 1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);
BENCHMARK_TEMPLATE(BM_split, -1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);
BENCHMARK_TEMPLATE(BM_interleaved, 1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);
BENCHMARK_TEMPLATE(BM_interleaved, -1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);
BENCHMARK_TEMPLATE(BM_plansplit, 1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);
BENCHMARK_TEMPLATE(BM_planinterleaved, 1)->Arg(256)->Arg(1024)->Arg(2048)->Arg(4096);

BENCHMARK_MAIN();
