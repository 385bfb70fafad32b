// Synthesis and analysis on several threads at once, each call itself on a
// different number of threads, give the bits of a sequential single-thread
// run: the library keeps no hidden state. Run under ThreadSanitizer by the
// test script.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "ccanalysis.h"
#include "fvanalysis.h"
#include "pitchanalysis.h"
#include "support/synthref.h"
#include "support/synthutt.h"
#include "wavm1616io.h"

namespace {

using kestreltest::samebits;
using kestreltest::SynthUtterance;

constexpr int kThreads = 4;
constexpr double kFs = 16000.0;

std::vector<double> synthesise(const SynthUtterance &u, uint32_t threads) {
  std::vector<double> out(getwaveformlength(u.shift, u.nframes));
  std::vector<double> cc = u.cc;
  cc2waveformthreads(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(),
                     u.fv.data(), u.order, cc.data(), u.alpha, threads);
  return out;
}

// Everything kestrelana computes for one recording, with the given method,
// plus the track of the other pitch tracker.
std::vector<double> analyse(const std::vector<double> &x, uint8_t method, uint32_t threads) {
  const uint32_t n = static_cast<uint32_t>(x.size()), shift = 80, order = 24;
  const uint32_t nframes = n / shift - 1;
  std::vector<double> f0(nframes), f0ac(nframes), fv(nframes), cc(static_cast<size_t>(nframes) * (order + 1));
  getpitchdpthreads(x.data(), n, kFs, shift, shift, nframes, 60.0, 500.0, f0.data(), threads);
  getpitch(x.data(), n, kFs, shift, shift, nframes, 60.0, 500.0, f0ac.data());
  getfvoicingthreads(x.data(), n, kFs, shift, shift, nframes, f0.data(), fv.data(), threads);
  waveform2ccthreads(x.data(), n, kFs, shift, shift, nframes, f0.data(), order, cc.data(), 0.42, method, threads);
  std::vector<double> all = f0;
  all.insert(all.end(), f0ac.begin(), f0ac.end());
  all.insert(all.end(), fv.begin(), fv.end());
  all.insert(all.end(), cc.begin(), cc.end());
  return all;
}

// Runs job(t, t + 1) on kThreads threads at once and checks each result
// against job(t, 1) run alone (the second argument: threads of the call).
template <class Job>
void expectthreadedequalssequential(Job job) {
  std::vector<std::vector<double>> sequential(kThreads), threaded(kThreads);
  for (int t = 0; t < kThreads; ++t) sequential[t] = job(t, 1);
  std::vector<std::thread> pool;
  for (int t = 0; t < kThreads; ++t) pool.emplace_back([&, t] { threaded[t] = job(t, t + 1); });
  for (auto &th : pool) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(samebits(threaded[t], sequential[t])) << "job " << t;
}

TEST(Reentrancy, SynthesisOnManyThreadsGivesTheSequentialBits) {
  std::vector<SynthUtterance> utts;
  for (int t = 0; t < kThreads; ++t) {
    kestreltest::SynthUttOptions opt;
    opt.seconds = 1.0;
    opt.seed = 1 + t % 2;  // two threads share each utterance: same noise sequence, same bits
    utts.push_back(kestreltest::makesynthutterance(opt));
  }
  expectthreadedequalssequential([&](int t, uint32_t threads) { return synthesise(utts[t], threads); });
}

TEST(Reentrancy, AnalysisOnManyThreadsGivesTheSequentialBits) {
  double *raw = nullptr;
  const std::string path = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/f_vctk_p225_001.wav";
  const uint32_t n = wavreadm1616(path.c_str(), &raw);
  ASSERT_GT(n, 16000u);
  std::vector<double> x(raw, raw + 16000);  // one second keeps the sanitizer run short
  std::free(raw);
  // Methods 0..3 in the four threads (4, the peak envelope, shares its code paths with 3).
  expectthreadedequalssequential(
      [&](int t, uint32_t threads) { return analyse(x, static_cast<uint8_t>(t), threads); });
}

}  // namespace
