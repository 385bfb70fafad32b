// End-to-end test support: running a built program, feature and WAV files,
// one temporary directory per test.
#ifndef KESTREL_TESTS_SUPPORT_CLIUTIL_H
#define KESTREL_TESTS_SUPPORT_CLIUTIL_H

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "support/scratchdir.h"
#include "wavm1616io.h"

namespace kestreltest {

namespace fs = std::filesystem;

inline std::string E(const std::string &message) { return "Error: " + message + ".\n"; }

struct Result {
  int status = -1;  // exit status, or 1000 + signal number
  std::string out, err;
};

inline void writefloats(const std::string &p, const std::vector<float> &v) {
  std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(v.data()), std::streamsize(v.size() * 4));
}

// Runs prog with args, stdout and stderr going to files; inchild runs between fork and exec.
inline Result run(const std::string &prog, const std::vector<std::string> &args,
                  const std::function<void()> &inchild = {}) {
  std::vector<std::string> store(args);
  std::vector<char *> argv{const_cast<char *>(prog.c_str())};
  for (auto &a : store) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const std::string out = ::testing::TempDir() + "kestrel_run_" + std::to_string(getpid()), err = out + ".err";
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), 1);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), 2);
    if (inchild) inchild();
    execv(prog.c_str(), argv.data());
    _exit(127);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  const Bytes o = readbytes(out), e = readbytes(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return {WIFEXITED(st) ? WEXITSTATUS(st) : 1000 + (WIFSIGNALED(st) ? WTERMSIG(st) : 0), {o.begin(), o.end()},
          {e.begin(), e.end()}};
}

// A WAV file built byte by byte: PCM (16/24 bits) or float, interleaved
// channels, extension bytes in "fmt ", an optional LIST chunk before "data",
// and a data size that may claim more frames than are given (the file is then
// extended sparsely).
enum class Sample { Pcm16 = 2, Pcm24 = 3, Float32 = 4 };
struct WavLayout {
  uint32_t rate = 16000, channels = 1;
  Sample sample = Sample::Pcm16;
  bool listchunk = false;
  uint64_t claimedframes = 0;  // 0: the frames given
  uint32_t fmtextra = 0;       // bytes (0x55) after the 16 of "fmt "
};

inline Bytes wavbytes(const WavLayout &w, const std::vector<double> &x) {
  const uint32_t bytes = uint32_t(w.sample);
  const uint64_t frames = w.claimedframes ? w.claimedframes : x.size() / w.channels;
  const auto datasize = uint32_t(frames * w.channels * bytes);
  Bytes b;
  auto put = [&b](uint32_t v, int n) {
    for (int k = 0; k < n; ++k) b.push_back(static_cast<unsigned char>(v >> (8 * k)));
  };
  auto tag = [&b](const char *t) { b.insert(b.end(), t, t + 4); };
  tag("RIFF"), put(36 + w.fmtextra + datasize + (w.listchunk ? 12 : 0), 4), tag("WAVE"), tag("fmt "), put(16 + w.fmtextra, 4);
  put(w.sample == Sample::Float32 ? 3 : 1, 2), put(w.channels, 2), put(w.rate, 4);
  put(w.rate * w.channels * bytes, 4), put(w.channels * bytes, 2), put(bytes * 8, 2);
  b.insert(b.end(), w.fmtextra, 0x55);
  if (w.listchunk) tag("LIST"), put(4, 4), tag("INFO");
  tag("data"), put(datasize, 4);
  for (double v : x) {
    if (w.sample == Sample::Float32) {
      const float f = float(v);
      uint32_t u;
      std::memcpy(&u, &f, 4);
      put(u, 4);
    } else {
      const double full = w.sample == Sample::Pcm16 ? 32768.0 : 8388608.0;
      put(uint32_t(int32_t(std::lround(std::max(-1.0, std::min(v, (full - 1) / full)) * full))), int(bytes));
    }
  }
  return b;
}
inline void writewav(const std::string &p, const WavLayout &w, const std::vector<double> &x) {
  const Bytes b = wavbytes(w, x);
  writebytes(p, b);
  if (w.claimedframes) fs::resize_file(p, b.size() + uint64_t(w.sample) * (w.claimedframes * w.channels - x.size()));
}
inline void writewav16k(const std::string &p, const std::vector<double> &x) { writewav(p, WavLayout{}, x); }

// A fresh temporary directory per test; args() turns "@/a @/b --x=1" into
// arguments with '@' standing for the directory.
class CliTest : public ScratchDirTest {
 protected:
  std::string at(std::string s) const {
    for (size_t k = 0; (k = s.find('@', k)) != std::string::npos; k += dir.size()) s.replace(k, 1, dir);
    return s;
  }
  std::vector<std::string> args(const std::string &s) const {
    std::vector<std::string> v;
    std::istringstream in(at(s));
    for (std::string a; in >> a;) v.push_back(a);
    return v;
  }
  // Runs prog on args(s) and expects its exit status, its stdout ('@' for the
  // directory) and nothing on stderr.
  void expectrun(const std::string &prog, const std::string &s, int status, const std::string &out,
                 const std::function<void()> &inchild = {}) {
    const Result r = run(prog, args(s), inchild);
    EXPECT_TRUE(r.status == status && r.out == at(out) && r.err.empty())
        << s << "\nexit " << r.status << ", output:\n" << r.out << r.err << "expected exit " << status << ":\n" << at(out);
  }
  Bytes bytes(const std::string &name) const { return readbytes(at(name)); }
  std::vector<float> floats(const std::string &name) const {
    const Bytes b = bytes(name);
    std::vector<float> v(b.size() / 4);
    if (!v.empty()) std::memcpy(v.data(), b.data(), v.size() * 4);
    return v;
  }
  // Samples (full scale 1.0) of a 16 kHz mono 16-bit WAV, via the exact reader.
  std::vector<double> samples(const std::string &name) const {
    double *x = nullptr;
    const uint32_t n = wavreadm1616(at(name).c_str(), &x);
    std::vector<double> v(x, x + n);
    std::free(x);
    return v;
  }
  const std::string &dir = dir_;
};

}  // namespace kestreltest

#endif
