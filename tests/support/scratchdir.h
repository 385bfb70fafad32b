// Test support for the file writers and readers: a private scratch directory
// per test, whole-file byte I/O, and the two ways a write fails part-way (a
// device that rejects every write, a file-size limit in a child process).
#ifndef KESTREL_TESTS_SUPPORT_SCRATCHDIR_H
#define KESTREL_TESTS_SUPPORT_SCRATCHDIR_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <iterator>
#include <string>
#include <vector>

namespace kestreltest {

using Bytes = std::vector<unsigned char>;

inline Bytes readbytes(const std::string &p) {
  std::ifstream in(p, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}
inline void writebytes(const std::string &p, const Bytes &b) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(b.data()),
                                           static_cast<std::streamsize>(b.size()));
}
// Files made from here on cannot grow past limit bytes (a write past it fails, no signal).
inline void limitfilesize(rlim_t limit) {
  std::signal(SIGXFSZ, SIG_IGN);
  const rlimit lim{limit, limit};
  setrlimit(RLIMIT_FSIZE, &lim);
}

class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string templ = ::testing::TempDir() + "kestrel_XXXXXX";
    ASSERT_NE(mkdtemp(&templ[0]), nullptr);
    dir_ = templ;
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(const char *name) const { return dir_ + "/" + name; }
  // The names in the directory.
  std::set<std::string> names() const {
    std::set<std::string> n;
    for (const auto &e : std::filesystem::directory_iterator(dir_)) n.insert(e.path().filename().string());
    return n;
  }
  // A private twin of /dev/full (every write fails); false where no device node can be made.
  bool makefulldevice(const std::string &p) const { return mknod(p.c_str(), S_IFCHR | 0666, makedev(1, 7)) == 0; }
  // Runs body in a child process whose files cannot grow past limit bytes; true when body returned true.
  template <class Body>
  static bool withfilesizelimit(rlim_t limit, Body body) {
    const pid_t pid = fork();
    if (pid == 0) limitfilesize(limit), _exit(body() ? 0 : 1);
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }
  std::string dir_;
};

}  // namespace kestreltest

#endif
