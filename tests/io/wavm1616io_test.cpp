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

#include "support/cliutil.h"

namespace {

using namespace kestreltest;
using WavFileTest = ScratchDirTest;
const double kNaN = std::numeric_limits<double>::quiet_NaN();

// The file the writer makes for the 16-bit samples s.
Bytes written(const std::vector<int> &s, const WavLayout &layout = {}) {
  std::vector<double> x;
  for (int v : s) x.push_back(v / 32768.0);
  return wavbytes(layout, x);
}
// b with its n-byte little-endian field at offset set to v.
Bytes with(Bytes b, size_t offset, uint32_t v, int n) {
  for (int k = 0; k < n; ++k) b[offset + k] = static_cast<unsigned char>(v >> (8 * k));
  return b;
}

TEST(WavConversion, TruncationSaturationAndInPlaceConversion) {
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
}

// Normalising scales the peak magnitude (a NaN is never the peak) to 0.99;
// keep-input 1 keeps the caller's doubles, any other value converts in place.
TEST_F(WavFileTest, HeaderSamplesNormalisationAndTheInputFlags) {
  const struct { int8_t norm; uint8_t keep; std::vector<double> in, after; std::vector<int> samples; } rows[] = {
      {0, 1, {1.0, -1.0, 0.25}, {1.0, -1.0, 0.25}, {32767, -32768, 8192}},
      {0, 0, {0.5, -0.25, 0.0, 0.75}, {}, {16384, -8192, 0, 24576}},
      {1, 1, {0.1, -0.5, 0.25}, {0.1 * 1.98, -0.99, 0.25 * 1.98}, {6488, -32440, 16220}},  // truncated
      {2, 2, {0.1, -0.5}, {}, {3276, -16384}}, {-1, 1, {0.1, -0.5}, {0.1, -0.5}, {3276, -16384}},
      {1, 0, {kNaN, 0.5}, {}, {-32768, 32440}}, {1, 0, {0.0, 0.0}, {}, {-32768, -32768}}};  // all zero: NaN, saturated low
  for (const auto &r : rows) {
    std::vector<double> x = r.in;
    ASSERT_EQ(wavwritem1616(path("a.wav").c_str(), x.data(), uint32_t(x.size()), r.norm, r.keep), x.size());
    EXPECT_EQ(readbytes(path("a.wav")), written(r.samples)) << int(r.norm) << int(r.keep);
    if (!r.after.empty()) EXPECT_EQ(x, r.after);
    else EXPECT_EQ(std::memcmp(x.data(), std::vector<int16_t>(r.samples.begin(), r.samples.end()).data(), 2 * x.size()), 0);
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
    EXPECT_TRUE(std::filesystem::is_character_file(path("full")));  // a device is never unlinked
  }
  // A write failing part-way is checked through kestrelsyn (tests/cli) and fdoublewrite.
}

TEST_F(WavFileTest, ReaderAcceptsOnlyMono16k16BitPcm) {
  // The header offsets: 4 RIFF size, 16 fmt size, 20 format, 22 channels, 24
  // rate, 28 byte rate, 32 block align, 34 bits, 40 data size.
  const std::vector<int> s = {100, -200, 300};
  const Bytes w = written(s), junk = with(with(with(w, 4, 0xDEADBEEF, 4), 28, 12345, 4), 32, 7, 2);
  const struct { const char *name; Bytes file; uint32_t n; } cases[] = {
      {"plain", w, 3}, {"unusedfields", junk, 3}, {"fmt18", written(s, {16000, 1, Sample::Pcm16, false, 0, 2}), 3},
      {"oddsize", with(w, 40, 5, 4), 2}, {"surplus", with(w, 40, 4, 4), 2}, {"rate44k", with(w, 24, 44100, 4), 0},
      {"stereo", with(w, 22, 2, 2), 0}, {"8bit", with(w, 34, 8, 2), 0}, {"float", with(w, 20, 3, 2), 0},
      {"listchunk", written(s, {16000, 1, Sample::Pcm16, true}), 0}, {"data1", with(w, 40, 1, 4), 0},
      {"fmt14", with(w, 16, 14, 4), 0}, {"claimshuge", with(w, 40, 0xFFFFFFF0u, 4), 0},
      {"truncated", Bytes(w.begin(), w.end() - 1), 0}, {"notriff", with(w, 0, 'X', 1), 0},
      {"notwave", with(w, 8, 'w', 1), 0}, {"short", with(Bytes(w.begin(), w.begin() + 8), 4, 4, 4), 0}};
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
