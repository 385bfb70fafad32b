// The WAV and feature-file readers on arbitrary file contents: every file
// is either read in full or refused, never read past or mis-sized.
#include <cstdlib>

#include "fdoubleio.h"
#include "fuzzutil.h"
#include "wavm1616io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string path = kestrelfuzz::scratchfile("in.bin");
  kestrelfuzz::writefile(path, data, size);
  double *x = nullptr;
  const uint32_t n = wavreadm1616(path.c_str(), &x);
  if (n > 0 && size < 44 + 2 * static_cast<size_t>(n)) std::abort();  // more samples than bytes
  double peak = 0.0;
  for (uint32_t i = 0; i < n; ++i) peak = x[i] > peak ? x[i] : peak;  // every sample readable
  if (peak > 1.0) std::abort();
  std::free(x);
  double *d = nullptr;
  const uint32_t m = fdoubleread(path.c_str(), &d);
  if (m != size / 4) std::abort();
  std::free(d);
  float *f = nullptr;
  if (ffloatread(path.c_str(), &f) != m) std::abort();
  std::free(f);
  return 0;
}
