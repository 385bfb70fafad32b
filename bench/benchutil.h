// Shared by the analysis benchmarks: the bundled recordings as sample arrays.
#ifndef KESTREL_BENCH_BENCHUTIL_H
#define KESTREL_BENCH_BENCHUTIL_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "wavm1616io.h"

// A bundled recording with its pitch track, as the analysis benchmarks use it.
struct Recording {
  std::vector<double> x;
  std::vector<double> f0;
  uint32_t nframes = 0;
  double seconds() const { return static_cast<double>(x.size()) / 16000.0; }
};

// Samples (full scale 1.0) of examples/speech/<name>; a missing file ends the
// program, since every figure would be meaningless without it.
inline std::vector<double> loadrecording(const char *name) {
  const std::string path = std::string(KESTREL_SOURCE_DIR) + "/examples/speech/" + name;
  double *raw = nullptr;
  const uint32_t n = wavreadm1616(path.c_str(), &raw);
  if (n == 0) {
    std::fprintf(stderr, "cannot read %s\n", path.c_str());
    std::exit(1);
  }
  std::vector<double> x(raw, raw + n);
  std::free(raw);
  return x;
}

#endif
