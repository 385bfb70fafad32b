// Internal: a 16 kHz mono 16-bit WAV file of known length written in blocks,
// so that a long synthesis need not hold its whole waveform. The file is
// completed or removed, and replaces an older one only when complete.
#ifndef KESTREL_WAVWRITER_H
#define KESTREL_WAVWRITER_H

#include <cstdint>
#include <vector>

#include "fileguard.h"
#include "wavm1616io.h"

namespace kestrel_io {

constexpr uint32_t kWavHeaderBytes = 44;

// The 44-byte header of an n-sample file (defined with the WAV writer).
void wavheader1616(unsigned char *header, uint32_t n);

class WavWriter {
 public:
  // Starts path with the header of an n-sample file.
  WavWriter(const char *path, uint32_t n) : out_(path), expected_(n) {
    unsigned char h[kWavHeaderBytes];
    wavheader1616(h, n);
    ok_ = out_.isopen() && out_.write(h, 1, kWavHeaderBytes);
  }
  // Appends count samples, quantised as wavdouble2short does.
  bool write(const double *x, uint32_t count) {
    if (!ok_ || count > expected_ - written_) return ok_ = false;
    buf_.resize(count);
    wavdouble2short(count, x, buf_.data());
    ok_ = out_.write(buf_.data(), sizeof(int16_t), count);
    written_ += count;
    return ok_;
  }
  // Closes and puts the file in place; false (file removed) unless every sample was written.
  bool finish() { return ok_ && written_ == expected_ && out_.finish(); }

 private:
  OutputFile out_;
  uint32_t expected_, written_ = 0;
  std::vector<int16_t> buf_;
  bool ok_ = false;
};

}  // namespace kestrel_io

#endif
