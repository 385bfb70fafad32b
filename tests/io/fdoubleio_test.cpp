// fdoubleio: headerless float feature files.
#include "fdoubleio.h"

#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/scratchdir.h"

namespace {

using namespace kestreltest;
using FeatureFileTest = ScratchDirTest;
namespace fs = std::filesystem;

const std::vector<float> kValues = {0.0f, -1e10f, 0.1f, 4.787491742782046f, -3.5f, 1e-40f /* subnormal */,
                                    HUGE_VALF, -0.0f};
Bytes floatbytes(const std::vector<float> &v) {
  Bytes b(v.size() * 4);
  if (!v.empty()) std::memcpy(b.data(), v.data(), b.size());
  return b;
}

TEST_F(FeatureFileTest, ReadWidensEveryValueAndRefusesUnusableFiles) {
  Bytes b = floatbytes(kValues);
  b.insert(b.end(), {0xAB, 0xCD});  // a trailing partial value is ignored
  writebytes(path("v.f"), b);
  double *x = nullptr;
  float *f = nullptr;
  ASSERT_TRUE(fdoubleread(path("v.f").c_str(), &x) == kValues.size() && ffloatread(path("v.f").c_str(), &f) == kValues.size());
  for (size_t i = 0; i < kValues.size(); ++i) EXPECT_EQ(x[i], static_cast<double>(kValues[i])) << i;
  EXPECT_TRUE(std::signbit(x[7]) && std::memcmp(f, kValues.data(), kValues.size() * 4) == 0);
  std::free(x);
  std::free(f);
  writebytes(path("three.f"), {1, 2, 3});
  writebytes(path("empty.f"), {});
  ASSERT_EQ(mkdir(path("adir").c_str(), 0755), 0);
  ASSERT_EQ(mkfifo(path("fifo").c_str(), 0644), 0);  // must not block
  // 2^32 + 1 values (a sparse file of 16 GiB) do not fit a 32-bit count: refused up front.
  writebytes(path("huge.f"), {0});
  const bool sparse = truncate(path("huge.f").c_str(), (off_t{1} << 34) + 4) == 0;
  double sentinel = 0.0, *d = &sentinel;
  float fsentinel = 0.0f, *g = &fsentinel;
  for (const char *name : {"three.f", "empty.f", "missing.f", "adir", "fifo", "huge.f"}) {
    EXPECT_EQ(fdoubleread(path(name).c_str(), &d) + ffloatread(path(name).c_str(), &g), 0u) << name;
    EXPECT_TRUE(d == &sentinel && g == &fsentinel) << name;  // outputs left untouched
  }
  EXPECT_EQ(fdoubleread(nullptr, &d), 0u);
  if (!sparse) GTEST_SKIP() << "no sparse files here: the 2^32-value case was not exercised";
}

TEST_F(FeatureFileTest, WriteKeepsOrNarrowsTheInputAndRoundsToNearest) {
  double x[8];
  std::copy(kValues.begin(), kValues.end(), x);
  // keep-input 1: array intact; any other flag narrows in place.
  EXPECT_TRUE(fdoublewrite(path("kept.f").c_str(), x, 8, 1) == 8u && std::equal(kValues.begin(), kValues.end(), x));
  EXPECT_TRUE(fdoublewrite(path("narrowed.f").c_str(), x, 8, 2) == 8u && std::memcmp(x, kValues.data(), 32) == 0);
  EXPECT_TRUE(readbytes(path("kept.f")) == floatbytes(kValues) && readbytes(path("narrowed.f")) == floatbytes(kValues));
  double v[4] = {0.1, 1e300, -1e-50, 16777217.0};  // 2^24 + 1 rounds to even
  ASSERT_EQ(fdoublewrite(path("r.f").c_str(), v, 4, 1), 4u);
  EXPECT_EQ(readbytes(path("r.f")), floatbytes({0.1f, HUGE_VALF, -0.0f, 16777216.0f}));
  const std::vector<float> g = {3.0f, -7.5f};
  ASSERT_EQ(ffloatwrite(path("g.f").c_str(), g.data(), 2), 2u);
  EXPECT_EQ(readbytes(path("g.f")), floatbytes(g));
}

TEST_F(FeatureFileTest, WriteFailuresAreReportedWithoutDamage) {
  double v[3] = {1.0, 2.0, 3.0};
  const float g[3] = {1.0f, 2.0f, 3.0f};
  EXPECT_EQ(fdoublewrite(nullptr, v, 2, 1) + ffloatwrite(nullptr, g, 2), 0u);
  EXPECT_EQ(fdoublewrite(path("zero.f").c_str(), v, 0, 1) + ffloatwrite(path("zero.f").c_str(), g, 0), 0u);
  EXPECT_FALSE(fs::exists(path("zero.f")));
  EXPECT_EQ(fdoublewrite(path("no/dir.f").c_str(), v, 2, 0) + ffloatwrite(path("no/dir.f").c_str(), g, 2), 0u);
  EXPECT_EQ(v[1], 2.0);  // not narrowed when the file cannot be created
  // A device that fails every write: reported, and never unlinked.
  if (makefulldevice(path("full"))) {
    EXPECT_EQ(fdoublewrite(path("full").c_str(), v, 3, 1) + ffloatwrite(path("full").c_str(), g, 3), 0u);
    EXPECT_TRUE(fs::is_character_file(path("full")));
    fs::remove(path("full"));
  }
  // A file that cannot grow past 100 bytes: the short write is reported and
  // the old file left intact, without a temporary; 40 bytes still fit.
  const std::string p = path("o.f");
  writebytes(p, {'o', 'l', 'd'});
  EXPECT_TRUE(withfilesizelimit(100, [&] {
    std::vector<double> big(10000, 0.5);
    std::vector<float> bigf(10000, 0.5f);
    return fdoublewrite(p.c_str(), big.data(), 10000, 1) == 0 && ffloatwrite(p.c_str(), bigf.data(), 10000) == 0 &&
           readbytes(p) == Bytes{'o', 'l', 'd'} && fdoublewrite(path("new.f").c_str(), big.data(), 10, 1) == 10;
  }));
  EXPECT_EQ(names(), (std::set<std::string>{"o.f", "new.f"}));
}

// A write goes to a temporary beside the output and replaces the old file
// when complete: the permission bits of the old file and a link to it
// survive, and temporaries a killed writer left (unlocked) are removed while
// a running writer's (locked) one stays.
TEST_F(FeatureFileTest, WritesReplaceTheOldFileKeepingItsModeAndLinks) {
  const std::string p = path("o.f"), held = p + ".kestrel-tmp1";
  writebytes(p, {'o', 'l', 'd'});
  chmod(p.c_str(), 0640);
  symlink("o.f", path("link.f").c_str());
  for (int slot : {0, 1, 7}) writebytes(p + ".kestrel-tmp" + std::to_string(slot), {'x'});
  const int lock = open(held.c_str(), O_RDONLY);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  double v[2] = {1.0, 2.0};
  ASSERT_EQ(fdoublewrite(path("link.f").c_str(), v, 2, 1), 2u);
  close(lock);
  EXPECT_EQ(readbytes(p).size(), 8u);
  EXPECT_TRUE(fs::is_symlink(path("link.f")));
  EXPECT_EQ(fs::status(p).permissions(), fs::perms(0640));
  EXPECT_EQ(names(), (std::set<std::string>{"o.f", "link.f", "o.f.kestrel-tmp1"}));
  const mode_t mask = umask(027);  // a new file gets 0666 less the umask
  ASSERT_EQ(fdoublewrite(path("new.f").c_str(), v, 2, 1), 2u);
  umask(mask);
  EXPECT_EQ(fs::status(path("new.f")).permissions(), fs::perms(0640));
}

}  // namespace
