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
constexpr double kFs = 16000.0;

std::vector<double> synthesise(const SynthUtterance &u) {
  std::vector<double> out(getwaveformlength(u.shift, u.nframes));
  std::vector<double> cc = u.cc;
  cc2waveform(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(), u.fv.data(),
              u.order, cc.data(), u.alpha);
  return out;
}

// Everything kestrelana computes for one recording, with the given method.
std::vector<double> analyse(const std::vector<double> &x, uint8_t method) {
  const uint32_t n = static_cast<uint32_t>(x.size()), shift = 80, order = 24;
  const uint32_t nframes = n / shift - 1;
  std::vector<double> f0(nframes), fv(nframes), cc(static_cast<size_t>(nframes) * (order + 1));
  getpitch(x.data(), n, kFs, shift, shift, nframes, 60.0, 500.0, f0.data());
  getfvoicing(x.data(), n, kFs, shift, shift, nframes, f0.data(), fv.data());
  waveform2cc(x.data(), n, kFs, shift, shift, nframes, f0.data(), order, cc.data(), 0.42, method);
  std::vector<double> all = f0;
  all.insert(all.end(), fv.begin(), fv.end());
  all.insert(all.end(), cc.begin(), cc.end());
  return all;
}

// Runs job(t) on kThreads threads at once and checks each result against the
// sequential one for the same t.
template <class Job>
void expectthreadedequalssequential(Job job) {
  std::vector<std::vector<double>> sequential(kThreads), threaded(kThreads);
  for (int t = 0; t < kThreads; ++t) sequential[t] = job(t);
  std::vector<std::thread> pool;
  for (int t = 0; t < kThreads; ++t) pool.emplace_back([&, t] { threaded[t] = job(t); });
  for (auto &th : pool) th.join();
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(samebits(threaded[t], sequential[t])) << "job " << t;
}

TEST(Reentrancy, SynthesisOnManyThreadsGivesTheSequentialBits) {
  std::vector<SynthUtterance> utts;
  for (int t = 0; t < kThreads; ++t) {
    SynthUttOptions opt;
    opt.seconds = 1.0;
    opt.seed = 1 + t % 2;  // two threads share each utterance: same noise sequence, same bits
    utts.push_back(makesynthutterance(opt));
  }
  expectthreadedequalssequential([&](int t) { return synthesise(utts[t]); });
}

TEST(Reentrancy, AnalysisOnManyThreadsGivesTheSequentialBits) {
  double *raw = nullptr;
  const std::string path = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/f_vctk_p225_001.wav";
  const uint32_t n = wavreadm1616(path.c_str(), &raw);
  ASSERT_GT(n, 16000u);
  std::vector<double> x(raw, raw + 16000);  // one second keeps the sanitizer run short
  std::free(raw);
  // Methods 0..3 in the four threads (4, the peak envelope, shares its code paths with 3).
  expectthreadedequalssequential([&](int t) { return analyse(x, static_cast<uint8_t>(t)); });
}

}  // namespace
