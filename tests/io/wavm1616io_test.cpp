// wavm1616io: mono 16 kHz 16-bit WAV files.
#include "wavm1616io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/scratchdir.h"

namespace {

using namespace kestreltest;
using WavFileTest = ScratchDirTest;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// A chunk: a 4-character tag, a little-endian 32-bit size, then the body.
Bytes chunk(const char *tag, uint32_t size, Bytes body = {}) {
  Bytes b(tag, tag + 4);
  for (int k = 0; k < 4; ++k) b.push_back(static_cast<unsigned char>(size >> (8 * k)));
  b.insert(b.end(), body.begin(), body.end());
  return b;
}
Bytes le16(std::vector<int> v) {
  Bytes b;
  for (int x : v) b.insert(b.end(), {static_cast<unsigned char>(x & 0xFF), static_cast<unsigned char>(x >> 8 & 0xFF)});
  return b;
}
// A hand-assembled file with every header field chosen by the caller (the
// RIFF size, byte rate and block align default to values the reader ignores).
Bytes makewav(int format, int channels, uint32_t rate, int bits, uint32_t fmtsize, const Bytes &between,
              const std::vector<int> &samples, uint32_t datasize, uint32_t riffsize = 0xDEADBEEF,
              uint32_t byterate = 12345, int align = 7) {
  Bytes fmt = le16({format, channels, static_cast<int>(rate & 0xFFFF), static_cast<int>(rate >> 16),
                    static_cast<int>(byterate & 0xFFFF), static_cast<int>(byterate >> 16), align, bits});
  fmt.resize(fmtsize < 16 ? 16 : fmtsize, 0x55);
  Bytes b = chunk("RIFF", riffsize, {'W', 'A', 'V', 'E'});
  for (const Bytes &part : {chunk("fmt ", fmtsize, fmt), between, chunk("data", datasize, le16(samples))})
    b.insert(b.end(), part.begin(), part.end());
  return b;
}
// A file as the writer makes it.
Bytes written(const std::vector<int> &s) {
  return makewav(1, 1, 16000, 16, 16, {}, s, uint32_t(2 * s.size()), uint32_t(36 + 2 * s.size()), 32000, 2);
}

TEST(WavConversion, TruncationSaturationNormalisationAndInPlaceConversion) {
  const struct { double x; int16_t s; } cases[] = {
      {1.0, 32767}, {-1.0, -32768}, {0.25, 8192}, {-0.99999, -32767}, {0.5 / 32768, 0}, {-1.5 / 32768, -1},
      {0.999969482421875, 32767}, {std::nextafter(0.999969482421875, 0.0), 32766}, {std::nextafter(-1.0, 0.0), -32767},
      {HUGE_VAL, 32767}, {-2.0, -32768}, {kNaN, -32768}, {-0.0, 0}};
  for (const auto &c : cases) {
    int16_t out = 12345;
    EXPECT_EQ(wavdouble2short(1, &c.x, &out), 0u);
    EXPECT_EQ(out, c.s) << c.x;
  }
  // Narrowing and widening in place, within one buffer.
  std::vector<double> x = {0.25, -0.5, 1.0, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125};
  wavdouble2short(8, x.data(), reinterpret_cast<int16_t *>(x.data()));
  wavshort2double(8, reinterpret_cast<const int16_t *>(x.data()), x.data());
  EXPECT_EQ(x, (std::vector<double>{0.25, -0.5, 0.999969482421875, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125}));
  // Peak |-0.5|: gain 0.99 / 0.5; a NaN is never the peak; all zero gives NaN samples.
  const struct { std::vector<double> in, out; } norm[] = {
      {{0.25, -0.5, 0.1}, {0.25 * 1.98, -0.99, 0.1 * 1.98}}, {{kNaN, 0.5}, {kNaN, 0.99}}, {{0.0, 0.0}, {kNaN, kNaN}}};
  for (const auto &c : norm) {
    std::vector<double> y = c.in;
    EXPECT_EQ(wavampnormalize(y.data(), static_cast<uint32_t>(y.size())), 0u);
    for (size_t i = 0; i < y.size(); ++i) EXPECT_TRUE(y[i] == c.out[i] || (std::isnan(y[i]) && std::isnan(c.out[i])));
  }
}

TEST_F(WavFileTest, HeaderSamplesAndTheInputFlags) {
  // keep-input 1 keeps the caller's doubles, any other value converts in place.
  const struct { int8_t norm; uint8_t keep; std::vector<double> in, after; std::vector<int> samples; } rows[] = {
      {0, 1, {1.0, -1.0, 0.25}, {1.0, -1.0, 0.25}, {32767, -32768, 8192}},
      {0, 0, {0.5, -0.25, 0.0, 0.75}, {}, {16384, -8192, 0, 24576}},
      {1, 1, {0.1, -0.5, 0.25}, {0.1 * 1.98, -0.99, 0.25 * 1.98}, {6488, -32440, 16220}},  // truncated
      {2, 2, {0.1, -0.5}, {}, {3276, -16384}}, {-1, 1, {0.1, -0.5}, {0.1, -0.5}, {3276, -16384}},
      {1, 0, {0.0, 0.0}, {}, {-32768, -32768}}};  // NaN after normalising saturates low
  for (const auto &r : rows) {
    std::vector<double> x = r.in;
    ASSERT_EQ(wavwritem1616(path("a.wav").c_str(), x.data(), uint32_t(x.size()), r.norm, r.keep), x.size());
    EXPECT_EQ(readbytes(path("a.wav")), written(r.samples)) << int(r.norm) << int(r.keep);
    if (!r.after.empty()) EXPECT_EQ(x, r.after);
    else EXPECT_EQ(std::memcmp(x.data(), le16(r.samples).data(), 2 * x.size()), 0);
  }
}

TEST_F(WavFileTest, EmptyUncreatableAndFailedWrites) {
  double x[1] = {0.5};
  EXPECT_EQ(wavwritem1616(path("e.wav").c_str(), x, 0, 0, 0), 0u);
  EXPECT_EQ(readbytes(path("e.wav")), written({}));  // header only
  EXPECT_EQ(wavwritem1616(path("missing/dir.wav").c_str(), x, 1, 1, 0) + wavwritem1616(nullptr, x, 1, 0, 0), 0u);
  EXPECT_EQ(x[0], 0.5);  // nothing done when the file cannot be created
  // 2n + 36 must fit in 32 bits: refused before anything is touched.
  EXPECT_EQ(wavwritem1616(path("huge.wav").c_str(), x, 2147483630u, 0, 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(path("huge.wav")));
  if (makefulldevice(path("full"))) {
    EXPECT_EQ(wavwritem1616(path("full").c_str(), x, 1, 0, 1), 0u);
    EXPECT_TRUE(ischardevice(path("full")));  // a device is never unlinked
  }
  const std::string p = path("partial.wav");
  EXPECT_TRUE(withfilesizelimit(1000, [&] {
    std::vector<double> big(100000, 0.25);
    return wavwritem1616(p.c_str(), big.data(), 100000, 0, 0) == 0 && access(p.c_str(), F_OK) != 0;
  }));
}

TEST_F(WavFileTest, ReaderAcceptsOnlyMono16k16BitPcm) {
  const std::vector<int> s = {100, -200, 300};
  const Bytes plain = makewav(1, 1, 16000, 16, 16, {}, s, 6);
  Bytes truncated = plain, notriff = plain, notwave = plain;
  truncated.pop_back();  // one byte of the last sample missing
  notriff[0] = 'X';
  notwave[8] = 'w';
  const struct { const char *name; Bytes file; uint32_t n; } cases[] = {
      {"plain", plain, 3}, {"fmt18", makewav(1, 1, 16000, 16, 18, {}, s, 6), 3},
      {"oddsize", makewav(1, 1, 16000, 16, 16, {}, s, 5), 2}, {"surplus", makewav(1, 1, 16000, 16, 16, {}, s, 4), 2},
      {"rate44k", makewav(1, 1, 44100, 16, 16, {}, s, 6), 0}, {"stereo", makewav(1, 2, 16000, 16, 16, {}, s, 6), 0},
      {"8bit", makewav(1, 1, 16000, 8, 16, {}, s, 6), 0}, {"float", makewav(3, 1, 16000, 16, 16, {}, s, 6), 0},
      {"listchunk", makewav(1, 1, 16000, 16, 16, chunk("LIST", 4, {'a', 'b', 'c', 'd'}), s, 6), 0},
      {"data1", makewav(1, 1, 16000, 16, 16, {}, s, 1), 0}, {"fmt14", makewav(1, 1, 16000, 16, 14, {}, s, 6), 0},
      {"claimshuge", makewav(1, 1, 16000, 16, 16, {}, s, 0xFFFFFFF0u), 0},
      {"truncated", truncated, 0}, {"notriff", notriff, 0}, {"notwave", notwave, 0}, {"short", chunk("RIFF", 4), 0}};
  for (const auto &c : cases) {
    writebytes(path(c.name), c.file);
    double sentinel = 0.0, *v = &sentinel;
    const uint32_t n = wavreadm1616(path(c.name).c_str(), &v);
    EXPECT_EQ(n, c.n) << c.name;
    EXPECT_EQ(v == &sentinel, n == 0) << c.name;
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(v[i], s[i] / 32768.0) << c.name << " " << i;
    if (n) std::free(v);
  }
  double *y = nullptr;
  EXPECT_EQ(wavreadm1616(path("missing.wav").c_str(), &y) + wavreadm1616(dir_.c_str(), &y), 0u);
}

}  // namespace
