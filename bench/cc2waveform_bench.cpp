// Synthesis speed on a realistic utterance (order 39, 5 ms frames at 16 kHz,
// voiced f0 80-300 Hz): cc2waveform in process, with and without an fv track,
// and the kestrelsyn program end to end. The counter "rtf" is the real-time
// factor: processing seconds per second of audio (lower is faster), from wall
// time; "rtf_cpu" uses CPU time (the calling thread's, or the child
// processes'), which a busy machine disturbs less.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include "ccanalysis.h"
#include "fdoubleio.h"
#include "support/synthutt.h"

namespace {

using Clock = std::chrono::steady_clock;

double threadcpu() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

double childrencpu() {
  rusage r;
  getrusage(RUSAGE_CHILDREN, &r);
  auto sec = [](const timeval &t) { return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec); };
  return sec(r.ru_utime) + sec(r.ru_stime);
}

const kestreltest::SynthUtterance &utterance() {
  static const kestreltest::SynthUtterance u = [] {
    kestreltest::SynthUttOptions o;
    o.seconds = 10.0;
    o.order = 39;
    o.shift = 80;
    o.fs = 16000.0;
    o.seed = 2024;
    return kestreltest::makesynthutterance(o);
  }();
  return u;
}

void runCc2waveform(benchmark::State &state, bool withfv) {
  const kestreltest::SynthUtterance &u = utterance();
  std::vector<double> out(getwaveformlength(u.shift, u.nframes));
  std::vector<double> cc(u.cc.size());
  double seconds = 0.0, cpu = 0.0;
  for (auto _ : state) {
    cc = u.cc;  // c0 makes a round trip per call; start every call from the same cepstra
    const auto t0 = Clock::now();
    const double c0 = threadcpu();
    cc2waveform(out.data(), static_cast<uint32_t>(out.size()), u.fs, u.shift, u.nframes, u.f0.data(),
                withfv ? u.fv.data() : nullptr, u.order, cc.data(), u.alpha);
    cpu += threadcpu() - c0;
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    benchmark::DoNotOptimize(out.data());
    benchmark::ClobberMemory();
  }
  state.counters["rtf"] = seconds / (static_cast<double>(state.iterations()) * u.seconds());
  state.counters["rtf_cpu"] = cpu / (static_cast<double>(state.iterations()) * u.seconds());
  state.counters["audio_s"] = u.seconds();
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * u.nframes);  // frames/s
}

void BM_cc2waveform_fvtrack(benchmark::State &state) { runCc2waveform(state, true); }
void BM_cc2waveform_nofvtrack(benchmark::State &state) { runCc2waveform(state, false); }

BENCHMARK(BM_cc2waveform_fvtrack)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_cc2waveform_nofvtrack)->Unit(benchmark::kMillisecond);

// Features written once to a temporary directory as kestrelsyn reads them
// (float32, cepstra scaled for its default --htsscale=1: c0 + 5, ck * 2),
// removed at exit.
struct FeatureDir {
  std::string dir;
  struct {
    std::string f0, cc, fv;
  } files;
  bool ok = false;
  FeatureDir() {
    char tmpl[] = "/tmp/kestrelbench.XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir = tmpl;
    files = {dir + "/utt.lf0", dir + "/utt.cc", dir + "/utt.fv"};
    kestreltest::SynthUtterance u = utterance();
    const size_t p1 = u.order + 1;
    for (size_t i = 0; i < u.cc.size(); ++i) u.cc[i] = (i % p1 == 0) ? u.cc[i] + 5.0 : u.cc[i] * 2.0;
    ok = fdoublewrite(files.f0.c_str(), u.logf0.data(), u.nframes, 1) == u.nframes &&
         fdoublewrite(files.cc.c_str(), u.cc.data(), static_cast<uint32_t>(u.cc.size()), 1) == u.cc.size() &&
         fdoublewrite(files.fv.c_str(), u.fv.data(), u.nframes, 1) == u.nframes;
  }
  ~FeatureDir() {
    if (dir.empty()) return;
    for (const std::string &f : {files.f0, files.cc, files.fv, dir + "/out.wav"}) std::remove(f.c_str());
    rmdir(dir.c_str());
  }
};

void runKestrelsyn(benchmark::State &state, bool withfv) {
  static FeatureDir fd;
  if (!fd.ok) {
    state.SkipWithError("could not write the feature files");
    return;
  }
  std::string cmd = std::string("'") + KESTRELSYN_PATH + "' '" + fd.files.f0 + "' '" + fd.files.cc + "' ";
  if (withfv) cmd += "'" + fd.files.fv + "' ";
  cmd += "'" + fd.dir + "/out.wav' > /dev/null 2>&1";
  double seconds = 0.0, cpu = 0.0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const double c0 = childrencpu();
    const int status = std::system(cmd.c_str());
    cpu += childrencpu() - c0;
    seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    if (status != 0) {
      state.SkipWithError("kestrelsyn failed");
      return;
    }
  }
  state.counters["rtf"] = seconds / (static_cast<double>(state.iterations()) * utterance().seconds());
  state.counters["rtf_cpu"] = cpu / (static_cast<double>(state.iterations()) * utterance().seconds());
  state.counters["audio_s"] = utterance().seconds();
}

void BM_kestrelsyn_fvtrack(benchmark::State &state) { runKestrelsyn(state, true); }
void BM_kestrelsyn_nofvtrack(benchmark::State &state) { runKestrelsyn(state, false); }

BENCHMARK(BM_kestrelsyn_fvtrack)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_kestrelsyn_nofvtrack)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
