// kestrelsyn: help text, usage error and the inverse HTS cepstral scaling of
// the decoder command. main() and the pipeline are in kestrelsyn_main.cpp.
#include "kestrelsyn.h"

#include <cstdint>
#include <cstdio>

#include "drivercommon.h"
#include "paramread.h"

namespace {

constexpr const char *kFallbackName = "kestrelsyn";

const char *programname(const char *progpath) {
  const char *name = progpath ? getfilename(progpath) : nullptr;
  return name ? name : kFallbackName;
}

}  // namespace

extern "C" {

int plothelp(const char *progpath) {
  const char *name = programname(progpath);
  kestrel_driver::printbanner("KESTRELSYN16", "Harmonic-plus-noise decoder for 16 kHz speech.");
  std::printf("  Usage:\n");
  std::printf("   %s filef0 filecc filefv fileout [params]\n", name);
  std::printf("\n");
  std::printf("  Arguments:\n");
  std::printf("   filef0:  input file for logf0\n");
  std::printf("   filecc:  input file for cepstral coeffs.\n");
  std::printf("   filefv:  input file for max. voiced freq.\n");
  std::printf("   fileout: output wav file (mono 16kHz 16bits)\n");
  std::printf("\n");
  std::printf("  Optional parameters and default values:\n");
  std::printf("   --lframe=%d     Frame shift (samples)\n", 80);
  std::printf("   --fpitch=1.0    Pitch modification factor [0.25...4]\n");
  std::printf("   --fvpitch=1.0   Log-pitch variance modification factor [0...4]\n");
  std::printf("   --fdur=1.0      Duration modification factor [0.25...4]\n");
  std::printf("   --fwarp=0.0     All-pass factor for vocal tract modification [-1...1]\n");
  std::printf("   --floud=0.0     Factor for perceptual loudness [-4...4]\n");
  std::printf("   --fpfilt=0.0    Postfiltering factor [0...1]\n");
  std::printf("   --wavnorm=0     Adapt wav amplitude to available range\n");
  std::printf("\n");
  std::printf("\n");
  return 0;
}

int argcerror(const char *progpath) {
  std::printf("Error: incorrect input arguments.\nType '%s' for help.\n", programname(progpath));
  return 0;
}

int invhtsadapteradhoc(double *cc, uint32_t order, uint32_t nframes) {
  if (!cc) return 0;
  // 64-bit stride: order + 1 must not wrap for order 4294967295.
  const uint64_t stride = static_cast<uint64_t>(order) + 1u;
  for (uint32_t f = 0; f < nframes; ++f) {
    double *c = cc + f * stride;
    c[0] = c[0] - 5.0;
    for (uint64_t k = 1; k <= order; ++k) c[k] = c[k] * 0.5;
  }
  return 0;
}

}  // extern "C"
