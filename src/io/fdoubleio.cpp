// fdoubleio: headerless feature files of 32-bit floats in host byte order.
#include "fdoubleio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "fileguard.h"

namespace {

using kestrel_io::FilePtr;
using kestrel_io::OutputFile;
using kestrel_io::openregularforreading;

// Value count of a file of the given size, or 0 when it is empty of whole
// values or would not fit a 32-bit count / the address space as elemsize-byte
// elements.
uint32_t valuecount(uint64_t size, size_t elemsize) {
  const uint64_t n = size / 4u;
  if (n == 0 || n > UINT32_MAX || n > SIZE_MAX / elemsize) return 0;
  return static_cast<uint32_t>(n);
}

}  // namespace

extern "C" {

uint32_t fdoubleread(const char *path, double **array) {
  if (!array) return 0;
  uint64_t size = 0;
  FilePtr f = openregularforreading(path, &size);
  if (!f) return 0;
  const uint32_t n = valuecount(size, sizeof(double));
  if (n == 0) return 0;
  auto *bytes = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(n) * sizeof(double)));
  if (!bytes) return 0;
  if (std::fread(bytes, sizeof(float), n, f.get()) != n) {
    std::free(bytes);
    return 0;
  }
  // Widen in place from the last value down: double i (bytes 8i..8i+7) only
  // covers floats i and above, which are already converted.
  for (uint32_t i = n; i-- > 0;) {
    float v;
    std::memcpy(&v, bytes + static_cast<size_t>(i) * sizeof(float), sizeof v);
    const double d = static_cast<double>(v);
    std::memcpy(bytes + static_cast<size_t>(i) * sizeof(double), &d, sizeof d);
  }
  *array = reinterpret_cast<double *>(bytes);
  return n;
}

uint32_t fdoublewrite(const char *path, double *array, uint32_t n, uint8_t keepinput) {
  if (!path || !array || n == 0) return 0;
  std::unique_ptr<float[]> scratch;
  if (keepinput == 1) {
    scratch.reset(new (std::nothrow) float[n]);
    if (!scratch) return 0;
  }
  OutputFile out(path);
  if (!out.isopen()) return 0;
  unsigned char *floats;
  if (scratch) {
    for (uint32_t i = 0; i < n; ++i) scratch[i] = static_cast<float>(array[i]);
    floats = reinterpret_cast<unsigned char *>(scratch.get());
  } else {
    floats = kestrel_io::narrowinplace(array, n);
  }
  if (!out.write(floats, sizeof(float), n)) return 0;  // out removes the file
  return out.finish() ? n : 0;
}

uint32_t ffloatread(const char *path, float **array) {
  if (!array) return 0;
  uint64_t size = 0;
  FilePtr f = openregularforreading(path, &size);
  if (!f) return 0;
  const uint32_t n = valuecount(size, sizeof(float));
  if (n == 0) return 0;
  auto *values = static_cast<float *>(std::malloc(static_cast<size_t>(n) * sizeof(float)));
  if (!values) return 0;
  if (std::fread(values, sizeof(float), n, f.get()) != n) {
    std::free(values);
    return 0;
  }
  *array = values;
  return n;
}

uint32_t ffloatwrite(const char *path, const float *array, uint32_t n) {
  if (!path || !array || n == 0) return 0;
  OutputFile out(path);
  if (!out.isopen()) return 0;
  if (!out.write(array, sizeof(float), n)) return 0;
  return out.finish() ? n : 0;
}

}  // extern "C"
