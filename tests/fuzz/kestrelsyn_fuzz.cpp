// The whole kestrelsyn pipeline (options, files, checks, modifications,
// synthesis, WAV output) on small inputs. The harness builds the command
// line from the fuzz bytes with bounded frame counts and shifts, so that a
// slow but valid run (a shift of 299999 samples) is never fed in.
#include <cinttypes>
#include <string>
#include <vector>

#include "fuzzutil.h"

#define main kestrelsyn_main
#include "../../src/driver/kestrelsyn_main.cpp"
#undef main

namespace {

std::string number(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  kestrelfuzz::silencestdout();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  using kestrelfuzz::scratchfile;
  kestrelfuzz::Bytes in(data, size);
  const auto flags = in.take<uint8_t>();
  const auto present = in.take<uint16_t>();  // which of the factor options are given
  const uint32_t lframe = 1 + in.take<uint16_t>() % 400;
  const char *names[] = {"fdur", "fpitch", "fvpitch", "fwarp", "floud", "fpfilt", "fdrc", "alpha"};
  std::vector<std::string> opts = {"--lframe=" + std::to_string(lframe)};
  for (int k = 0; k < 8; ++k) {
    const double v = in.take<double>();
    if (present & (1u << k)) opts.push_back(std::string("--") + names[k] + "=" + number(v));
  }
  const auto wavnorm = in.take<int32_t>();
  if (flags & 4) opts.push_back("--wavnorm=" + std::to_string(wavnorm));
  if (flags & 8) opts.push_back("--htsscale=0");
  const bool withfv = flags & 1, batch = flags & 2;
  const uint32_t nframes = 1 + in.take<uint8_t>() % 48;
  // f0 and fv files of nframes values (shorter at the end of the input), the
  // cepstra from what is left (any count: the dimension check is fuzzed too).
  const std::string stem = batch ? "u1" : "u";
  kestrelfuzz::Bytes f0 = in.split(4 * nframes);
  kestrelfuzz::writefile(scratchfile((stem + ".lf0").c_str()), f0.rest(), f0.left());
  if (withfv) {
    kestrelfuzz::Bytes fv = in.split(4 * nframes);
    kestrelfuzz::writefile(scratchfile((stem + ".fv").c_str()), fv.rest(), fv.left());
  }
  kestrelfuzz::writefile(scratchfile((stem + ".cc").c_str()), in.rest(), in.left());

  const std::string pattern = batch ? "u?" : "u";
  std::vector<std::string> args = {"kestrelsyn", scratchfile((pattern + ".lf0").c_str()),
                                   scratchfile((pattern + ".cc").c_str())};
  if (withfv) args.push_back(scratchfile((pattern + ".fv").c_str()));
  args.push_back(scratchfile(batch ? "o?.wav" : "o.wav"));
  if (batch) opts.push_back("--indlist=1-2");  // index 2 has no files
  args.insert(args.end(), opts.begin(), opts.end());
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  kestrelsyn_main(static_cast<int>(args.size()), argv.data());
  return 0;
}
