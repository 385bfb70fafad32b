// wavm1616io: mono 16 kHz 16-bit WAV files.
#include "wavm1616io.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "support/scratchdir.h"

namespace {

using kestreltest::Bytes;
using kestreltest::readbytes;
using kestreltest::writebytes;
using WavFileTest = kestreltest::ScratchDirTest;
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
  const Bytes f = chunk("fmt ", fmtsize, fmt), d = chunk("data", datasize, le16(samples));
  for (const Bytes *part : {&f, &between, &d}) b.insert(b.end(), part->begin(), part->end());
  return b;
}
std::vector<int16_t> samplesof(const Bytes &b) {
  std::vector<int16_t> s;
  for (size_t i = 44; i + 1 < b.size(); i += 2) s.push_back(static_cast<int16_t>(b[i] | (b[i + 1] << 8)));
  return s;
}

TEST(WavConversion, TruncationSaturationAndInPlaceConversion) {
  const struct { double x; int16_t s; } cases[] = {
      {1.0, 32767}, {-1.0, -32768}, {0.25, 8192}, {-0.99999, -32767}, {0.5 / 32768, 0}, {-0.5 / 32768, 0},
      {-1.5 / 32768, -1}, {0.999969482421875, 32767}, {std::nextafter(0.999969482421875, 0.0), 32766},
      {std::nextafter(-1.0, 0.0), -32767}, {HUGE_VAL, 32767}, {-2.0, -32768}, {kNaN, -32768}, {-0.0, 0}};
  for (const auto &c : cases) {
    int16_t out = 12345;
    EXPECT_EQ(wavdouble2short(1, &c.x, &out), 0u);
    EXPECT_EQ(out, c.s) << c.x;
  }
  // Narrowing and widening in place, within one buffer.
  std::vector<double> x = {0.25, -0.5, 1.0, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125};
  wavdouble2short(8, x.data(), reinterpret_cast<int16_t *>(x.data()));
  std::vector<int16_t> got(8);
  std::memcpy(got.data(), x.data(), 16);
  EXPECT_EQ(got, (std::vector<int16_t>{8192, -16384, 32767, -32768, 0, 3, -7, 4096}));
  wavshort2double(8, reinterpret_cast<const int16_t *>(x.data()), x.data());
  EXPECT_EQ(x, (std::vector<double>{0.25, -0.5, 0.999969482421875, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125}));
}

TEST(WavConversion, Normalisation) {
  // Peak |-0.5|: gain 0.99 / 0.5 = 1.98; equal magnitudes of either sign; a
  // NaN is never the peak; all zero gives an infinite gain and NaN samples.
  const struct { std::vector<double> in, out; } cases[] = {
      {{0.25, -0.5, 0.1}, {0.25 * 1.98, -0.99, 0.1 * 1.98}}, {{-0.25, 0.25}, {-0.99, 0.99}},
      {{kNaN, 0.5}, {kNaN, 0.99}},                           {{0.0, 0.0}, {kNaN, kNaN}}};
  for (const auto &c : cases) {
    std::vector<double> x = c.in;
    EXPECT_EQ(wavampnormalize(x.data(), static_cast<uint32_t>(x.size())), 0u);
    for (size_t i = 0; i < x.size(); ++i)
      if (std::isnan(c.out[i])) EXPECT_TRUE(std::isnan(x[i])) << c.in[0] << " " << i;
      else EXPECT_EQ(x[i], c.out[i]) << c.in[0] << " " << i;
  }
}

TEST_F(WavFileTest, HeaderSamplesAndTheInputFlags) {
  double x[3] = {1.0, -1.0, 0.25};
  ASSERT_EQ(wavwritem1616(path("a.wav").c_str(), x, 3, 0, 1), 3u);
  EXPECT_EQ(readbytes(path("a.wav")), makewav(1, 1, 16000, 16, 16, {}, {32767, -32768, 8192}, 6, 42, 32000, 2));
  EXPECT_EQ(x[0], 1.0);  // keep-input 1: the caller's doubles survive
  EXPECT_EQ(x[2], 0.25);

  // keep-input 0: converted in place, the array starts with the samples.
  double y[4] = {0.5, -0.25, 0.0, 0.75};
  ASSERT_EQ(wavwritem1616(path("b.wav").c_str(), y, 4, 0, 0), 4u);
  std::vector<int16_t> head(4);
  std::memcpy(head.data(), y, 8);
  EXPECT_EQ(head, (std::vector<int16_t>{16384, -8192, 0, 24576}));
  EXPECT_EQ(samplesof(readbytes(path("b.wav"))), head);

  // Normalise flag exactly 1: the caller's array is scaled even with keep-input 1.
  double z[3] = {0.1, -0.5, 0.25};
  ASSERT_EQ(wavwritem1616(path("n1.wav").c_str(), z, 3, 1, 1), 3u);
  EXPECT_EQ(z[1], -0.99);
  EXPECT_EQ(samplesof(readbytes(path("n1.wav"))), (std::vector<int16_t>{6488, -32440, 16220}));  // truncated
  for (int8_t flag : {int8_t{0}, int8_t{2}, int8_t{-1}}) {
    double w[2] = {0.1, -0.5};
    ASSERT_EQ(wavwritem1616(path("n.wav").c_str(), w, 2, flag, 1), 2u);
    EXPECT_EQ(w[1], -0.5) << int(flag);
    EXPECT_EQ(samplesof(readbytes(path("n.wav"))), (std::vector<int16_t>{3276, -16384})) << int(flag);
  }
  double zero[3] = {0.0, 0.0, 0.0};  // NaN after normalising saturates low
  ASSERT_EQ(wavwritem1616(path("z.wav").c_str(), zero, 3, 1, 0), 3u);
  EXPECT_EQ(samplesof(readbytes(path("z.wav"))), std::vector<int16_t>(3, -32768));
}

TEST_F(WavFileTest, EmptyUncreatableAndFailedWrites) {
  double x[1] = {0.5};
  EXPECT_EQ(wavwritem1616(path("e.wav").c_str(), x, 0, 0, 0), 0u);
  EXPECT_EQ(readbytes(path("e.wav")), makewav(1, 1, 16000, 16, 16, {}, {}, 0, 36, 32000, 2));  // header only
  EXPECT_EQ(wavwritem1616(path("missing/dir.wav").c_str(), x, 1, 1, 0), 0u);
  EXPECT_EQ(x[0], 0.5);  // nothing done when the file cannot be created
  EXPECT_EQ(wavwritem1616(nullptr, x, 1, 0, 0), 0u);
  // 2n + 36 must fit in 32 bits: refused before anything is touched.
  EXPECT_EQ(wavwritem1616(path("huge.wav").c_str(), x, 2147483631u, 0, 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(path("huge.wav")));
  if (makefulldevice(path("full"))) {
    double y[2] = {0.1, 0.2};
    EXPECT_EQ(wavwritem1616(path("full").c_str(), y, 2, 0, 1), 0u);
    EXPECT_TRUE(kestreltest::ischardevice(path("full")));  // a device is never unlinked
  }
  const std::string p = path("partial.wav");
  EXPECT_TRUE(withfilesizelimit(1000, [&] {
    std::vector<double> big(100000, 0.25);
    return wavwritem1616(p.c_str(), big.data(), 100000, 0, 0) == 0 && access(p.c_str(), F_OK) != 0;
  }));
}

TEST_F(WavFileTest, ReaderAcceptsOnlyMono16k16BitPcm) {
  const std::vector<int> s = {100, -200, 300};
  const Bytes list = chunk("LIST", 4, {'a', 'b', 'c', 'd'});
  const Bytes plain = makewav(1, 1, 16000, 16, 16, {}, s, 6);
  Bytes truncated = plain, notriff = plain, notwave = plain;
  truncated.pop_back();  // one byte of the last sample missing
  notriff[0] = 'X';
  notwave[8] = 'w';
  const struct { const char *name; Bytes file; uint32_t n; } cases[] = {
      {"plain", plain, 3}, {"fmt18", makewav(1, 1, 16000, 16, 18, {}, s, 6), 3},
      {"oddsize", makewav(1, 1, 16000, 16, 16, {}, s, 5), 2}, {"surplus", makewav(1, 1, 16000, 16, 16, {}, s, 4), 2},
      {"rate44k", makewav(1, 1, 44100, 16, 16, {}, s, 6), 0}, {"stereo", makewav(1, 2, 16000, 16, 16, {}, s, 6), 0},
      {"8bit", makewav(1, 1, 16000, 8, 16, {}, s, 6), 0},     {"float", makewav(3, 1, 16000, 16, 16, {}, s, 6), 0},
      {"listchunk", makewav(1, 1, 16000, 16, 16, list, s, 6), 0},
      {"data0", makewav(1, 1, 16000, 16, 16, {}, s, 0), 0},     {"data1", makewav(1, 1, 16000, 16, 16, {}, s, 1), 0},
      {"fmt14", makewav(1, 1, 16000, 16, 14, {}, s, 6), 0},
      {"claimshuge", makewav(1, 1, 16000, 16, 16, {}, s, 0xFFFFFFF0u), 0},
      {"truncated", truncated, 0}, {"notriff", notriff, 0}, {"notwave", notwave, 0}, {"short", chunk("RIFF", 4), 0}};
  for (const auto &c : cases) {
    writebytes(path(c.name), c.file);
    double sentinel = 0.0, *v = &sentinel;
    const uint32_t n = wavreadm1616(path(c.name).c_str(), &v);
    EXPECT_EQ(n, c.n) << c.name;
    if (n == 0) {
      EXPECT_EQ(v, &sentinel) << c.name;
      continue;
    }
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(v[i], s[i] / 32768.0) << c.name << " " << i;
    std::free(v);
  }
  double *y = nullptr;
  EXPECT_EQ(wavreadm1616(path("missing.wav").c_str(), &y), 0u);
  EXPECT_EQ(wavreadm1616(dir_.c_str(), &y), 0u);
  EXPECT_EQ(y, nullptr);
}

}  // namespace
