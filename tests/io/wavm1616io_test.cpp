// wavm1616io: mono 16 kHz 16-bit WAV files.
#include "wavm1616io.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

class WavFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = ::testing::TempDir() + "kestrel_wav_XXXXXX";
    ASSERT_NE(mkdtemp(&templ[0]), nullptr);
    dir_ = templ;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const char *name) const { return dir_ + "/" + name; }
  static Bytes readbytes(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
  }
  static void writebytes(const std::string &p, const Bytes &b) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(b.data()),
                                             static_cast<std::streamsize>(b.size()));
  }
  std::string dir_;
};

void add16(Bytes *b, uint16_t v) {
  b->push_back(static_cast<unsigned char>(v & 0xFF));
  b->push_back(static_cast<unsigned char>(v >> 8));
}
void add32(Bytes *b, uint32_t v) {
  for (int k = 0; k < 4; ++k) b->push_back(static_cast<unsigned char>((v >> (8 * k)) & 0xFF));
}
void addtag(Bytes *b, const char *tag) { b->insert(b->end(), tag, tag + 4); }

// A hand-assembled file with every header field chosen by the caller.
Bytes makewav(uint16_t format, uint16_t channels, uint32_t rate, uint16_t bits, uint32_t fmtsize,
              const Bytes &between, const std::vector<int16_t> &samples, uint32_t datasize) {
  Bytes b;
  addtag(&b, "RIFF");
  add32(&b, 0xDEADBEEF);  // ignored by the reader
  addtag(&b, "WAVE");
  addtag(&b, "fmt ");
  add32(&b, fmtsize);
  add16(&b, format);
  add16(&b, channels);
  add32(&b, rate);
  add32(&b, 12345);  // byte rate, ignored
  add16(&b, 7);      // block align, ignored
  add16(&b, bits);
  for (uint32_t k = 16; k < fmtsize; ++k) b.push_back(0x55);
  b.insert(b.end(), between.begin(), between.end());
  addtag(&b, "data");
  add32(&b, datasize);
  for (int16_t s : samples) add16(&b, static_cast<uint16_t>(s));
  return b;
}

int16_t sampleat(const Bytes &b, size_t i) {
  return static_cast<int16_t>(b[44 + 2 * i] | (b[45 + 2 * i] << 8));
}

TEST(WavConversion, DoubleToShort) {
  struct Case {
    double x;
    int16_t s;
  };
  const double below = std::nextafter(0.999969482421875, 0.0);
  const Case cases[] = {
      {1.0, 32767},
      {-1.0, -32768},
      {0.25, 8192},
      {0.99997, 32767},
      {-0.99999, -32767},
      {0.5 / 32768, 0},
      {-0.5 / 32768, 0},
      {-1.5 / 32768, -1},
      {1.5 / 32768, 1},
      {0.999969482421875, 32767},
      {below, 32766},
      {std::nextafter(-1.0, 0.0), -32767},
      {2.0, 32767},
      {-2.0, -32768},
      {HUGE_VAL, 32767},
      {-HUGE_VAL, -32768},
      {std::numeric_limits<double>::quiet_NaN(), -32768},
      {-0.0, 0},
      {32766.9 / 32768, 32766},
  };
  for (const Case &c : cases) {
    int16_t out = 12345;
    EXPECT_EQ(wavdouble2short(1, &c.x, &out), 0u);
    EXPECT_EQ(out, c.s) << c.x;
  }
}

TEST(WavConversion, InPlaceNarrowingAndWidening) {
  std::vector<double> x = {0.25, -0.5, 1.0, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125};
  const int16_t expected[] = {8192, -16384, 32767, -32768, 0, 3, -7, 4096};
  wavdouble2short(static_cast<uint32_t>(x.size()), x.data(), reinterpret_cast<int16_t *>(x.data()));
  int16_t got[8];
  std::memcpy(got, x.data(), sizeof got);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(got[i], expected[i]) << i;

  // And back, in place, from the same buffer.
  wavshort2double(8, reinterpret_cast<const int16_t *>(x.data()), x.data());
  const double back[] = {0.25, -0.5, 0.999969482421875, -1.0, 0.0, 3.0 / 32768, -7.0 / 32768, 0.125};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(x[i], back[i]) << i;
}

TEST(WavConversion, Normalisation) {
  double x[3] = {0.25, -0.5, 0.1};
  EXPECT_EQ(wavampnormalize(x, 3), 0u);
  // peak |-0.5|: gain 0.99 / 0.5 = 1.98
  EXPECT_EQ(x[0], 0.25 * 1.98);
  EXPECT_EQ(x[1], -0.99);
  EXPECT_EQ(x[2], 0.1 * 1.98);

  // Equal magnitudes: the peak is found whatever the sign.
  double y[2] = {-0.25, 0.25};
  wavampnormalize(y, 2);
  EXPECT_EQ(y[0], -0.99);
  EXPECT_EQ(y[1], 0.99);

  // A NaN never becomes the peak.
  double z[2] = {std::numeric_limits<double>::quiet_NaN(), 0.5};
  wavampnormalize(z, 2);
  EXPECT_TRUE(std::isnan(z[0]));
  EXPECT_EQ(z[1], 0.99);

  // All zero: infinite gain, NaN samples (left unguarded by design).
  double s[2] = {0.0, 0.0};
  wavampnormalize(s, 2);
  EXPECT_TRUE(std::isnan(s[0]));
  EXPECT_TRUE(std::isnan(s[1]));
}

TEST_F(WavFileTest, HeaderAndSamplesByteForByte) {
  double x[3] = {1.0, -1.0, 0.25};
  ASSERT_EQ(wavwritem1616(path("a.wav").c_str(), x, 3, 0, 1), 3u);
  const Bytes got = readbytes(path("a.wav"));
  Bytes want;
  addtag(&want, "RIFF");
  add32(&want, 42);
  addtag(&want, "WAVE");
  addtag(&want, "fmt ");
  add32(&want, 16);
  add16(&want, 1);
  add16(&want, 1);
  add32(&want, 16000);
  add32(&want, 32000);
  add16(&want, 2);
  add16(&want, 16);
  addtag(&want, "data");
  add32(&want, 6);
  add16(&want, 32767);
  add16(&want, static_cast<uint16_t>(-32768));
  add16(&want, 8192);
  ASSERT_EQ(got.size(), 50u);
  EXPECT_EQ(got, want);
  // keep-input 1: the caller's doubles survive.
  EXPECT_EQ(x[0], 1.0);
  EXPECT_EQ(x[1], -1.0);
  EXPECT_EQ(x[2], 0.25);
}

TEST_F(WavFileTest, InPlaceWriteDestroysInput) {
  double x[4] = {0.5, -0.25, 0.0, 0.75};
  ASSERT_EQ(wavwritem1616(path("b.wav").c_str(), x, 4, 0, 0), 4u);
  int16_t head[4];
  std::memcpy(head, x, sizeof head);
  const int16_t expected[4] = {16384, -8192, 0, 24576};
  for (int i = 0; i < 4; ++i) EXPECT_EQ(head[i], expected[i]);
  const Bytes b = readbytes(path("b.wav"));
  ASSERT_EQ(b.size(), 52u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(sampleat(b, i), expected[i]);
}

TEST_F(WavFileTest, NormaliseFlag) {
  // Flag exactly 1: the caller's array is scaled even with keep-input 1.
  double x[3] = {0.1, -0.5, 0.25};
  ASSERT_EQ(wavwritem1616(path("n1.wav").c_str(), x, 3, 1, 1), 3u);
  EXPECT_EQ(x[1], -0.99);
  const Bytes b = readbytes(path("n1.wav"));
  EXPECT_EQ(sampleat(b, 0), 6488);                                       // 6488.064 -> 6488
  EXPECT_EQ(sampleat(b, 1), -32440);                                     // -32440.32 -> -32440
  EXPECT_EQ(sampleat(b, 2), 16220);                                      // 16220.16 -> 16220

  for (int8_t flag : {int8_t{0}, int8_t{2}, int8_t{-1}}) {
    double y[2] = {0.1, -0.5};
    ASSERT_EQ(wavwritem1616(path("n.wav").c_str(), y, 2, flag, 1), 2u);
    EXPECT_EQ(y[0], 0.1) << int(flag);
    EXPECT_EQ(y[1], -0.5) << int(flag);
    const Bytes c = readbytes(path("n.wav"));
    EXPECT_EQ(sampleat(c, 1), -16384) << int(flag);
  }

  double zero[3] = {0.0, 0.0, 0.0};
  ASSERT_EQ(wavwritem1616(path("z.wav").c_str(), zero, 3, 1, 0), 3u);
  const Bytes z = readbytes(path("z.wav"));
  for (int i = 0; i < 3; ++i) EXPECT_EQ(sampleat(z, i), -32768);
}

TEST_F(WavFileTest, EmptyAndUncreatable) {
  double x[1] = {0.5};
  EXPECT_EQ(wavwritem1616(path("e.wav").c_str(), x, 0, 0, 0), 0u);
  const Bytes e = readbytes(path("e.wav"));
  ASSERT_EQ(e.size(), 44u);  // complete header, no samples
  EXPECT_EQ(e[4], 36);
  EXPECT_EQ(e[40], 0);
  EXPECT_EQ(wavwritem1616(path("missing/dir.wav").c_str(), x, 1, 1, 0), 0u);
  EXPECT_EQ(x[0], 0.5);  // nothing done when the file cannot be created
  EXPECT_EQ(wavwritem1616(nullptr, x, 1, 0, 0), 0u);
  // 2n + 36 must fit in 32 bits: refused before anything is touched.
  EXPECT_EQ(wavwritem1616(path("huge.wav").c_str(), x, 2147483631u, 0, 0), 0u);
  EXPECT_FALSE(std::filesystem::exists(path("huge.wav")));
}

TEST_F(WavFileTest, WriteErrorsAreReported) {
  const std::string dev = path("full");
  if (mknod(dev.c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0) {
    double x[2] = {0.1, 0.2};
    EXPECT_EQ(wavwritem1616(dev.c_str(), x, 2, 0, 1), 0u);
    struct stat st;
    ASSERT_EQ(stat(dev.c_str(), &st), 0);  // a device is never unlinked
    EXPECT_TRUE(S_ISCHR(st.st_mode));
  }
  const std::string p = path("partial.wav");
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit lim = {1000, 1000};
    setrlimit(RLIMIT_FSIZE, &lim);
    std::vector<double> big(100000, 0.25);
    const uint32_t r = wavwritem1616(p.c_str(), big.data(), 100000, 0, 0);
    _exit(r == 0 && access(p.c_str(), F_OK) != 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(WavFileTest, ReadBackWhatWasWritten) {
  std::vector<double> x = {0.0, 0.5, -0.5, 0.999, -1.0, 1.0, 1.7 / 32768, -1.7 / 32768};
  const uint32_t n = static_cast<uint32_t>(x.size());
  ASSERT_EQ(wavwritem1616(path("r.wav").c_str(), x.data(), n, 0, 1), n);
  double *y = nullptr;
  ASSERT_EQ(wavreadm1616(path("r.wav").c_str(), &y), n);
  const double expected[] = {0.0, 0.5, -0.5, 32735.0 / 32768, -1.0, 32767.0 / 32768, 1.0 / 32768, -1.0 / 32768};
  for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(y[i], expected[i]) << i;
  std::free(y);
}

TEST_F(WavFileTest, StrictReader) {
  const std::vector<int16_t> s = {100, -200, 300};
  struct Case {
    const char *name;
    Bytes file;
    uint32_t n;
  };
  Bytes list;
  addtag(&list, "LIST");
  add32(&list, 4);
  addtag(&list, "abcd");
  Bytes truncated = makewav(1, 1, 16000, 16, 16, {}, s, 6);
  truncated.pop_back();  // one byte of the last sample missing
  Bytes notriff = makewav(1, 1, 16000, 16, 16, {}, s, 6);
  notriff[0] = 'X';
  Bytes notwave = makewav(1, 1, 16000, 16, 16, {}, s, 6);
  notwave[8] = 'w';
  const Case cases[] = {
      {"plain", makewav(1, 1, 16000, 16, 16, {}, s, 6), 3},
      {"fmt18", makewav(1, 1, 16000, 16, 18, {}, s, 6), 3},
      {"oddsize", makewav(1, 1, 16000, 16, 16, {}, s, 5), 2},
      {"surplus", makewav(1, 1, 16000, 16, 16, {}, s, 4), 2},
      {"rate44k", makewav(1, 1, 44100, 16, 16, {}, s, 6), 0},
      {"stereo", makewav(1, 2, 16000, 16, 16, {}, s, 6), 0},
      {"8bit", makewav(1, 1, 16000, 8, 16, {}, s, 6), 0},
      {"float", makewav(3, 1, 16000, 16, 16, {}, s, 6), 0},
      {"listchunk", makewav(1, 1, 16000, 16, 16, list, s, 6), 0},
      {"datasize0", makewav(1, 1, 16000, 16, 16, {}, s, 0), 0},
      {"datasize1", makewav(1, 1, 16000, 16, 16, {}, s, 1), 0},
      {"fmt14", makewav(1, 1, 16000, 16, 14, {}, s, 6), 0},
      {"claimshuge", makewav(1, 1, 16000, 16, 16, {}, s, 0xFFFFFFF0u), 0},
      {"truncated", truncated, 0},
      {"notriff", notriff, 0},
      {"notwave", notwave, 0},
      {"short", Bytes{'R', 'I', 'F', 'F'}, 0},
  };
  for (const Case &c : cases) {
    writebytes(path(c.name), c.file);
    double sentinel = 0.0;
    double *y = &sentinel;
    const uint32_t n = wavreadm1616(path(c.name).c_str(), &y);
    EXPECT_EQ(n, c.n) << c.name;
    if (n == 0) {
      EXPECT_EQ(y, &sentinel) << c.name;
      continue;
    }
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(y[i], s[i] / 32768.0) << c.name << " " << i;
    std::free(y);
  }
  double *y = nullptr;
  EXPECT_EQ(wavreadm1616(path("missing.wav").c_str(), &y), 0u);
  EXPECT_EQ(wavreadm1616(dir_.c_str(), &y), 0u);
  EXPECT_EQ(y, nullptr);
}

}  // namespace
