// kestrelana's audio path (the exact WAV reader, else libsndfile and
// libsoxr, then pitch, fv and cepstral analysis and the outputs) on fuzzed
// audio files. Inputs that decode to more than half a second at 16 kHz are
// skipped: long recordings are valid and only slow.
#include <string>
#include <vector>

#include "fuzzutil.h"

#define main kestrelana_main
#include "../../src/driver/kestrelana.cpp"
#undef main

namespace {
constexpr double kMaxSeconds = 0.5;
constexpr sf_count_t kMaxInputValues = 200000;  // frames x channels read
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using kestrelfuzz::scratchfile;
  kestrelfuzz::Bytes in{data, size};
  const auto choice = in.take<uint8_t>();  // method, then analysis-by-synthesis passes
  const auto flags = in.take<uint8_t>();
  const std::string wav = scratchfile("in.wav");
  kestrelfuzz::writefile(wav, in.p, in.n);
  SF_INFO info{};
  if (SNDFILE *sf = sf_open(wav.c_str(), SFM_READ, &info)) {
    sf_close(sf);
    if (info.samplerate > 0 && info.channels > 0 &&
        (static_cast<double>(info.frames) * 16000.0 / info.samplerate > kMaxSeconds * 16000.0 ||
         info.frames > kMaxInputValues / info.channels))
      return -1;  // not added to the corpus
  }
  std::vector<std::string> args = {"kestrelana", wav, scratchfile("o.lf0"), scratchfile("o.cc")};
  if (flags & 1) args.push_back(scratchfile("o.fv"));
  args.push_back("--method=" + std::to_string(choice % 5));
  args.push_back("--match=" + std::to_string(choice / 5 % 3));
  args.push_back("--lframe=" + std::to_string(40 + (flags >> 2) % 64));
  if (flags & 2) args.push_back("--refine=1");
  kestrelfuzz::runmain(kestrelana_main, args);
  return 0;
}
