// fdoubleio: headerless float feature files.
#include "fdoubleio.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

class FeatureFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = ::testing::TempDir() + "kestrel_fdio_XXXXXX";
    ASSERT_NE(mkdtemp(&templ[0]), nullptr);
    dir_ = templ;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const char *name) const { return dir_ + "/" + name; }
  static void writebytes(const std::string &p, const std::vector<unsigned char> &bytes) {
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()),
                                             static_cast<std::streamsize>(bytes.size()));
  }
  static std::vector<unsigned char> floatbytes(const std::vector<float> &v) {
    std::vector<unsigned char> b(v.size() * 4);
    if (!v.empty()) std::memcpy(b.data(), v.data(), b.size());
    return b;
  }
  static std::vector<unsigned char> readbytes(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
  }
  std::string dir_;
};

const std::vector<float> kValues = {0.0f, -1e10f, 0.1f, 4.787491742782046f, -3.5f, 1e-40f /* subnormal */,
                                    HUGE_VALF, -0.0f};

TEST_F(FeatureFileTest, ReadWidensEveryValue) {
  writebytes(path("v.f"), floatbytes(kValues));
  double *x = nullptr;
  ASSERT_EQ(fdoubleread(path("v.f").c_str(), &x), kValues.size());
  ASSERT_NE(x, nullptr);
  for (size_t i = 0; i < kValues.size(); ++i) EXPECT_EQ(x[i], static_cast<double>(kValues[i])) << i;
  EXPECT_TRUE(std::signbit(x[7]));
  std::free(x);

  float *f = nullptr;
  ASSERT_EQ(ffloatread(path("v.f").c_str(), &f), kValues.size());
  EXPECT_EQ(std::memcmp(f, kValues.data(), kValues.size() * 4), 0);
  std::free(f);
}

TEST_F(FeatureFileTest, SizeRoundedDownAndFailures) {
  // 10 bytes: 2 values, the last 2 bytes ignored.
  std::vector<unsigned char> ten = floatbytes({1.25f, -2.0f});
  ten.push_back(0xAB);
  ten.push_back(0xCD);
  writebytes(path("ten.f"), ten);
  double *x = nullptr;
  ASSERT_EQ(fdoubleread(path("ten.f").c_str(), &x), 2u);
  EXPECT_EQ(x[0], 1.25);
  EXPECT_EQ(x[1], -2.0);
  std::free(x);
  float *f = nullptr;
  ASSERT_EQ(ffloatread(path("ten.f").c_str(), &f), 2u);
  EXPECT_EQ(f[1], -2.0f);
  std::free(f);

  writebytes(path("three.f"), {1, 2, 3});
  writebytes(path("empty.f"), {});
  ASSERT_EQ(mkdir(path("adir").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);  // must not block
  double sentinel = 0.0;
  float fsentinel = 0.0f;
  for (const char *name : {"three.f", "empty.f", "missing.f", "adir", "fifo"}) {
    double *d = &sentinel;
    EXPECT_EQ(fdoubleread(path(name).c_str(), &d), 0u) << name;
    EXPECT_EQ(d, &sentinel) << name;  // output left untouched
    float *g = &fsentinel;
    EXPECT_EQ(ffloatread(path(name).c_str(), &g), 0u) << name;
    EXPECT_EQ(g, &fsentinel) << name;
  }
  double *d = &sentinel;
  EXPECT_EQ(fdoubleread(nullptr, &d), 0u);
  EXPECT_EQ(d, &sentinel);
}

// 2^32 values (a sparse file of 16 GiB) do not fit a 32-bit count: refused
// up front, nothing allocated or read.
TEST_F(FeatureFileTest, CountBeyond32BitsIsRefused) {
  const std::string p = path("huge.f");
  std::ofstream(p, std::ios::binary).put('\0');
  if (truncate(p.c_str(), static_cast<off_t>(4) << 32) != 0) GTEST_SKIP() << "no sparse files here";
  double sentinel = 0.0;
  double *d = &sentinel;
  EXPECT_EQ(fdoubleread(p.c_str(), &d), 0u);
  EXPECT_EQ(d, &sentinel);
  float fsentinel = 0.0f;
  float *f = &fsentinel;
  EXPECT_EQ(ffloatread(p.c_str(), &f), 0u);
  EXPECT_EQ(f, &fsentinel);
}

TEST_F(FeatureFileTest, WriteKeepsOrNarrowsTheInput) {
  writebytes(path("in.f"), floatbytes(kValues));
  const std::vector<unsigned char> original = readbytes(path("in.f"));
  double *x = nullptr;
  const uint32_t n = fdoubleread(path("in.f").c_str(), &x);
  ASSERT_EQ(n, kValues.size());

  // keep-input 1: byte-identical file, array intact.
  EXPECT_EQ(fdoublewrite(path("kept.f").c_str(), x, n, 1), n);
  EXPECT_EQ(readbytes(path("kept.f")), original);
  for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(x[i], static_cast<double>(kValues[i]));

  // Any other flag narrows in place: the array now starts with the floats.
  EXPECT_EQ(fdoublewrite(path("narrowed.f").c_str(), x, n, 2), n);
  EXPECT_EQ(readbytes(path("narrowed.f")), original);
  EXPECT_EQ(std::memcmp(x, kValues.data(), n * sizeof(float)), 0);
  std::free(x);
}

TEST_F(FeatureFileTest, WriteRoundsToNearestFloat) {
  double v[4] = {0.1, 1e300, -1e-50, 16777217.0};  // 2^24 + 1 rounds to even
  ASSERT_EQ(fdoublewrite(path("r.f").c_str(), v, 4, 1), 4u);
  const std::vector<unsigned char> b = readbytes(path("r.f"));
  ASSERT_EQ(b.size(), 16u);
  float f[4];
  std::memcpy(f, b.data(), 16);
  EXPECT_EQ(f[0], 0.1f);
  EXPECT_EQ(f[1], HUGE_VALF);
  EXPECT_EQ(f[2], -0.0f);
  EXPECT_TRUE(std::signbit(f[2]));
  EXPECT_EQ(f[3], 16777216.0f);

  const float g[2] = {3.0f, -7.5f};
  ASSERT_EQ(ffloatwrite(path("g.f").c_str(), g, 2), 2u);
  const std::vector<unsigned char> gb = readbytes(path("g.f"));
  ASSERT_EQ(gb.size(), 8u);
  EXPECT_EQ(std::memcmp(gb.data(), g, 8), 0);
}

TEST_F(FeatureFileTest, WriteRefusals) {
  double v[2] = {1.0, 2.0};
  const float g[2] = {1.0f, 2.0f};
  EXPECT_EQ(fdoublewrite(nullptr, v, 2, 1), 0u);
  EXPECT_EQ(fdoublewrite(path("zero.f").c_str(), v, 0, 1), 0u);
  EXPECT_FALSE(std::filesystem::exists(path("zero.f")));
  EXPECT_EQ(fdoublewrite(path("no/such/dir.f").c_str(), v, 2, 0), 0u);
  EXPECT_EQ(v[0], 1.0);  // not narrowed when the file cannot be created
  EXPECT_EQ(v[1], 2.0);
  EXPECT_EQ(ffloatwrite(nullptr, g, 2), 0u);
  EXPECT_EQ(ffloatwrite(path("zero.f").c_str(), g, 0), 0u);
  EXPECT_EQ(ffloatwrite(path("no/such/dir.f").c_str(), g, 2), 0u);
}

// A device that fails every write (a private twin of /dev/full): the writer
// reports failure and must not unlink what is not a regular file.
TEST_F(FeatureFileTest, WriteErrorOnDeviceIsReportedAndDeviceKept) {
  const std::string dev = path("full");
  if (mknod(dev.c_str(), S_IFCHR | 0666, makedev(1, 7)) != 0) GTEST_SKIP() << "cannot create a device node here";
  double v[3] = {1.0, 2.0, 3.0};
  const float g[3] = {1.0f, 2.0f, 3.0f};
  EXPECT_EQ(fdoublewrite(dev.c_str(), v, 3, 1), 0u);
  EXPECT_EQ(ffloatwrite(dev.c_str(), g, 3), 0u);
  struct stat st;
  ASSERT_EQ(stat(dev.c_str(), &st), 0);
  EXPECT_TRUE(S_ISCHR(st.st_mode));
}

// A regular file that cannot grow past 100 bytes (RLIMIT_FSIZE, in a child
// process): the short write is reported and the partial file removed.
TEST_F(FeatureFileTest, ShortWriteLeavesNoPartialFile) {
  const std::string p = path("partial.f");
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit lim = {100, 100};
    setrlimit(RLIMIT_FSIZE, &lim);
    std::vector<double> big(10000, 0.5);
    std::vector<float> bigf(10000, 0.5f);
    const uint32_t r1 = fdoublewrite(p.c_str(), big.data(), 10000, 1);
    const bool gone1 = access(p.c_str(), F_OK) != 0;
    const uint32_t r2 = ffloatwrite(p.c_str(), bigf.data(), 10000);
    const bool gone2 = access(p.c_str(), F_OK) != 0;
    const uint32_t r3 = fdoublewrite(p.c_str(), big.data(), 10, 1);  // 40 bytes fit
    _exit(r1 == 0 && gone1 && r2 == 0 && gone2 && r3 == 10 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(std::filesystem::file_size(p), 40u);
}

}  // namespace
