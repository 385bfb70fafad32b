// The whole kestrelsyn pipeline (options, files, checks, modifications,
// synthesis, WAV output) on small inputs. The harness builds the command
// line from the fuzz bytes with bounded frame counts and shifts, so that a
// slow but valid run (a shift of 299999 samples) is never fed in.
#include <string>
#include <vector>

#include "fuzzutil.h"

#define main kestrelsyn_main
#include "../../src/driver/kestrelsyn_main.cpp"
#undef main

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kestrelfuzz::Bytes in{data, size};
  const auto flags = in.take<uint8_t>();
  const auto present = in.take<uint16_t>();  // which of the factor options are given
  const uint32_t lframe = 1 + in.take<uint16_t>() % 400;
  const char *names[] = {"fdur", "fpitch", "fvpitch", "fwarp", "floud", "fpfilt", "fdrc", "alpha"};
  std::vector<std::string> opts = {"--lframe=" + std::to_string(lframe)};
  for (int k = 0; k < 8; ++k) {
    char option[64];
    std::snprintf(option, sizeof option, "--%s=%.17g", names[k], in.take<double>());
    if (present & (1u << k)) opts.push_back(option);
  }
  const auto wavnorm = in.take<int32_t>();
  if (flags & 4) opts.push_back("--wavnorm=" + std::to_string(wavnorm));
  if (flags & 8) opts.push_back("--htsscale=0");
  const bool withfv = flags & 1, batch = flags & 2;
  const uint32_t nframes = 1 + in.take<uint8_t>() % 48;
  // f0 and fv files of nframes values (shorter at the end of the input), the
  // cepstra from what is left (any count: the dimension check is fuzzed too).
  // In batch mode the files are those of index 1 and index 2 has none.
  const std::string stem = kestrelfuzz::scratchfile(batch ? "u1" : "u");
  const std::string pattern = kestrelfuzz::scratchfile(batch ? "u?" : "u");
  kestrelfuzz::Bytes f0 = in.split(4 * nframes);
  kestrelfuzz::writefile(stem + ".lf0", f0.p, f0.n);
  if (withfv) {
    kestrelfuzz::Bytes fv = in.split(4 * nframes);
    kestrelfuzz::writefile(stem + ".fv", fv.p, fv.n);
  }
  kestrelfuzz::writefile(stem + ".cc", in.p, in.n);
  std::vector<std::string> args = {"kestrelsyn", pattern + ".lf0", pattern + ".cc"};
  if (withfv) args.push_back(pattern + ".fv");
  args.push_back(kestrelfuzz::scratchfile(batch ? "o?.wav" : "o.wav"));
  if (batch) opts.push_back("--indlist=1-2");
  args.insert(args.end(), opts.begin(), opts.end());
  kestrelfuzz::runmain(kestrelsyn_main, args);
  return 0;
}
