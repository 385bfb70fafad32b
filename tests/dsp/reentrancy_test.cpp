// Synthesis and analysis on several threads at once give the bits of a
// sequential run: the library keeps no hidden state. Run under
// ThreadSanitizer by the test script.
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

using namespace kestreltest;

constexpr int kThreads = 4;

// Runs job(t) on kThreads threads at once and checks each result against the
// sequential one for the same t.
template <class Job>
void expectthreadedequalssequential(Job job) {
  std::vector<std::vector<double>> sequential(kThreads), threaded(kThreads);
  std::vector<std::thread> pool;
  for (int t = 0; t < kThreads; ++t) sequential[t] = job(t);
  for (int t = 0; t < kThreads; ++t) pool.emplace_back([&, t] { threaded[t] = job(t); });
  for (auto &th : pool) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(samebits(threaded[t], sequential[t])) << "job " << t;
}

TEST(Reentrancy, SynthesisOnManyThreadsGivesTheSequentialBits) {
  // Two threads share each utterance: same noise sequence, same bits.
  const SynthUtterance utts[2] = {makesynthutterance({1.0, 39, 0.42, 16000.0, 80, 1}),
                                  makesynthutterance({1.0, 39, 0.42, 16000.0, 80, 2})};
  expectthreadedequalssequential([&](int t) {
    const SynthUtterance &u = utts[t % 2];
    std::vector<double> out(getwaveformlength(u.shift, u.nframes)), cc = u.cc;
    cc2waveform(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(), u.fv.data(),
                u.order, cc.data(), u.alpha);
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
  // (4, the peak envelope, shares its code paths with 3).
  expectthreadedequalssequential([&](int t) {
    const uint32_t nframes = 199, order = 24;
    std::vector<double> all(nframes * (order + 3));
    double *f0 = all.data(), *fv = f0 + nframes, *cc = fv + nframes;
    getpitch(x.data(), 16000, 16000.0, 80, 80, nframes, 60.0, 500.0, f0);
    getfvoicing(x.data(), 16000, 16000.0, 80, 80, nframes, f0, fv);
    waveform2cc(x.data(), 16000, 16000.0, 80, 80, nframes, f0, order, cc, 0.42, static_cast<uint8_t>(t));
    return all;
  });
}

}  // namespace
