// wavm1616io: RIFF/WAVE PCM files, mono, 16000 Hz, 16 bits; in memory full
// scale is +-1.0 with 1.0 == 32768.
#include "wavm1616io.h"
#include "wavwriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
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

constexpr uint32_t kSampleRate = 16000;
constexpr uint32_t kHeaderBytes = 44;
// Largest sample count whose RIFF size 2n + 36 still fits in 32 bits.
constexpr uint32_t kMaxSamples = (UINT32_MAX - (kHeaderBytes - 8u)) / 2u;
// 32767 / 32768: positive samples saturate one step below full scale.
constexpr double kPositiveLimit = 0.999969482421875;

void put16(unsigned char *p, uint16_t v) {
  p[0] = static_cast<unsigned char>(v & 0xFFu);
  p[1] = static_cast<unsigned char>(v >> 8);
}
void put32(unsigned char *p, uint32_t v) {
  for (int k = 0; k < 4; ++k) p[k] = static_cast<unsigned char>((v >> (8 * k)) & 0xFFu);
}
uint16_t get16(const unsigned char *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t get32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

int16_t tosample(double x) {
  if (x >= kPositiveLimit) return 32767;
  // NaN fails both comparisons and would make the conversion undefined.
  if (x <= -1.0 || std::isnan(x)) return -32768;
  return static_cast<int16_t>(x * 32768.0);  // truncation toward zero
}

}  // namespace

namespace kestrel_io {

void wavheader1616(unsigned char *h, uint32_t n) {
  const uint32_t databytes = 2u * n;
  std::memcpy(h + 0, "RIFF", 4);
  put32(h + 4, databytes + 36u);
  std::memcpy(h + 8, "WAVE", 4);
  std::memcpy(h + 12, "fmt ", 4);
  put32(h + 16, 16u);
  put16(h + 20, 1u);  // PCM
  put16(h + 22, 1u);  // mono
  put32(h + 24, kSampleRate);
  put32(h + 28, kSampleRate * 2u);
  put16(h + 32, 2u);
  put16(h + 34, 16u);
  std::memcpy(h + 36, "data", 4);
  put32(h + 40, databytes);
}

}  // namespace kestrel_io

extern "C" {

uint32_t wavdouble2short(uint32_t n, const double *in, int16_t *out) {
  // Byte copies, first to last: with out aliasing in, sample i (bytes
  // 2i..2i+1) only overwrites doubles that have already been read.
  const auto *src = reinterpret_cast<const unsigned char *>(in);
  auto *dst = reinterpret_cast<unsigned char *>(out);
  for (uint32_t i = 0; i < n; ++i) {
    double x;
    std::memcpy(&x, src + static_cast<size_t>(i) * sizeof(double), sizeof x);
    const int16_t s = tosample(x);
    std::memcpy(dst + static_cast<size_t>(i) * sizeof(int16_t), &s, sizeof s);
  }
  return 0;
}

uint32_t wavshort2double(uint32_t n, const int16_t *in, double *out) {
  // Last to first, so that out may alias in (in-place widening).
  const auto *src = reinterpret_cast<const unsigned char *>(in);
  auto *dst = reinterpret_cast<unsigned char *>(out);
  for (uint32_t i = n; i-- > 0;) {
    int16_t s;
    std::memcpy(&s, src + static_cast<size_t>(i) * sizeof(int16_t), sizeof s);
    const double x = static_cast<double>(s) / 32768.0;
    std::memcpy(dst + static_cast<size_t>(i) * sizeof(double), &x, sizeof x);
  }
  return 0;
}

uint32_t wavampnormalize(double *x, uint32_t n) {
  double peak = 0.0;
  for (uint32_t i = 0; i < n; ++i) {
    const double a = std::fabs(x[i]);
    if (a > peak) peak = a;
  }
  // An all-zero signal gives an infinite gain (and NaN samples): kept as is.
  const double gain = 0.99 / peak;
  for (uint32_t i = 0; i < n; ++i) x[i] *= gain;
  return 0;
}

uint32_t wavwritem1616(const char *path, double *x, uint32_t n, int8_t normalise, uint8_t keepinput) {
  if (!path || (n > 0 && !x) || n > kMaxSamples) return 0;
  std::unique_ptr<int16_t[]> scratch;
  if (keepinput == 1 && n > 0) {
    scratch.reset(new (std::nothrow) int16_t[n]);
    if (!scratch) return 0;
  }
  OutputFile out(path);
  if (!out.isopen()) return 0;

  unsigned char h[kHeaderBytes];
  kestrel_io::wavheader1616(h, n);
  if (!out.write(h, 1, kHeaderBytes)) return 0;

  if (normalise == 1) wavampnormalize(x, n);
  int16_t *samples;
  if (scratch) {
    samples = scratch.get();
    wavdouble2short(n, x, samples);
  } else {
    samples = reinterpret_cast<int16_t *>(x);  // the caller's doubles are destroyed
    if (n > 0) wavdouble2short(n, x, samples);
  }
  // Samples in host byte order (little-endian on the supported platforms).
  if (!out.write(samples, sizeof(int16_t), n)) return 0;
  if (!out.finish()) return 0;
  return n;  // 0 for an empty waveform: header only, reported as not created
}

uint32_t wavreadm1616(const char *path, double **x) {
  if (!x) return 0;
  uint64_t filesize = 0;
  FilePtr f = openregularforreading(path, &filesize);
  if (!f) return 0;
  unsigned char h[36];
  if (std::fread(h, 1, sizeof h, f.get()) != sizeof h) return 0;
  if (std::memcmp(h + 0, "RIFF", 4) != 0 || std::memcmp(h + 8, "WAVE", 4) != 0 ||
      std::memcmp(h + 12, "fmt ", 4) != 0)
    return 0;
  const uint32_t fmtsize = get32(h + 16);
  if (get16(h + 20) != 1u || get16(h + 22) != 1u || get32(h + 24) != kSampleRate || get16(h + 34) != 16u)
    return 0;
  if (fmtsize < 16u) return 0;
  if (fmtsize > 16u && std::fseek(f.get(), static_cast<long>(fmtsize - 16u), SEEK_CUR) != 0) return 0;
  unsigned char d[8];
  if (std::fread(d, 1, sizeof d, f.get()) != sizeof d || std::memcmp(d, "data", 4) != 0) return 0;
  const uint32_t datasize = get32(d + 4);
  if (datasize == 0) return 0;
  const uint32_t n = datasize / 2u;
  if (n == 0) return 0;
  // The samples must be present in full: a header claiming more data than
  // the file holds is refused before anything is allocated for it.
  const uint64_t dataoffset = 28u + static_cast<uint64_t>(fmtsize);
  if (filesize < dataoffset || filesize - dataoffset < 2u * static_cast<uint64_t>(n)) return 0;
  static_assert(SIZE_MAX / sizeof(double) >= UINT32_MAX, "a 32-bit sample count must fit an allocation size");
  auto *bytes = static_cast<unsigned char *>(std::malloc(static_cast<size_t>(n) * sizeof(double)));
  if (!bytes) return 0;
  if (std::fread(bytes, sizeof(int16_t), n, f.get()) != n) {
    std::free(bytes);
    return 0;
  }
  f.reset();
  wavshort2double(n, reinterpret_cast<const int16_t *>(bytes), reinterpret_cast<double *>(bytes));
  *x = reinterpret_cast<double *>(bytes);
  return n;
}

}  // extern "C"
