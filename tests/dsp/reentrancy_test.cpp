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
#include "wavm1616io.h"

namespace {

using namespace kestreltest;

constexpr int kThreads = 4;

// Runs job(t, t + 1) on kThreads threads at once and checks each result
// against job(t, 1) run alone (the second argument: threads of the call).
template <class Job>
void expectthreadedequalssequential(Job job) {
  std::vector<std::vector<double>> sequential(kThreads), threaded(kThreads);
  std::vector<std::thread> pool;
  for (int t = 0; t < kThreads; ++t) sequential[t] = job(t, 1);
  for (int t = 0; t < kThreads; ++t) pool.emplace_back([&, t] { threaded[t] = job(t, t + 1); });
  for (auto &th : pool) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(samebits(threaded[t], sequential[t])) << "job " << t;
}

TEST(Reentrancy, SynthesisOnManyThreadsGivesTheSequentialBits) {
  // Two threads share each utterance: same noise sequence, same bits.
  const SynthFeatures utts[2] = {randomfeatures(1.0, 1), randomfeatures(1.0, 2)};
  expectthreadedequalssequential([&](int t, uint32_t threads) {
    const SynthFeatures &u = utts[t % 2];
    std::vector<double> out(getwaveformlength(u.shift, u.nframes)), cc = u.cc;
    cc2waveformthreads(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(),
                       u.fv.data(), u.order, cc.data(), u.alpha, threads);
    return out;
  });
}

TEST(Reentrancy, AnalysisOnManyThreadsGivesTheSequentialBits) {
  double *raw = nullptr;
  const std::string path = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/f_vctk_p225_001.wav";
  ASSERT_GT(wavreadm1616(path.c_str(), &raw), 16000u);
  const std::vector<double> x(raw, raw + 16000);  // one second keeps the sanitizer run short
  std::free(raw);
  // Everything kestrelana computes for the recording, with methods 0..3 in the four threads
  // (4, the peak envelope, shares its code paths with 3), plus the other pitch tracker's track.
  expectthreadedequalssequential([&](int t, uint32_t threads) {
    const uint32_t nframes = 199, order = 24;
    std::vector<double> all(nframes * (order + 4));
    double *f0 = all.data(), *f0ac = f0 + nframes, *fv = f0ac + nframes, *cc = fv + nframes;
    getpitchdpthreads(x.data(), 16000, 16000.0, 80, 80, nframes, 60.0, 500.0, f0, threads);
    getpitch(x.data(), 16000, 16000.0, 80, 80, nframes, 60.0, 500.0, f0ac);
    getfvoicingthreads(x.data(), 16000, 16000.0, 80, 80, nframes, f0, fv, threads);
    waveform2ccthreads(x.data(), 16000, 16000.0, 80, 80, nframes, f0, order, cc, 0.42, static_cast<uint8_t>(t), threads);
    return all;
  });
}

}  // namespace
