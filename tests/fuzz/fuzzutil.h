// Shared pieces of the fuzz targets: a private scratch directory per process,
// files written from fuzz bytes, a program's main run on an argument list, and
// a reader of structured values that never runs past the input (missing bytes
// read as zeros).
#ifndef KESTREL_TESTS_FUZZ_FUZZUTIL_H
#define KESTREL_TESTS_FUZZ_FUZZUTIL_H

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace kestrelfuzz {

// A directory of this process, made once, kept for the whole run and removed at exit.
inline const std::string &scratchdir() {
  static const std::string dir = [] {
    std::string t = "/tmp/kestrel_fuzz_XXXXXX";
    if (!mkdtemp(&t[0])) std::abort();
    return t;
  }();
  static const bool cleanup = std::atexit([] { std::filesystem::remove_all(scratchdir()); }) == 0;
  (void)cleanup;
  return dir;
}

inline std::string scratchfile(const char *name) { return scratchdir() + "/" + name; }

inline void writefile(const std::string &path, const uint8_t *data, size_t size) {
  std::FILE *f = std::fopen(path.c_str(), "wb");
  if (!f) std::abort();
  if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
  std::fclose(f);
}

// Runs a program's main on args (args[0] the program name). The programs print
// their messages on stdout: it goes to /dev/null to keep the fuzzer's log readable.
inline int runmain(int (*progmain)(int, char **), std::vector<std::string> args) {
  static const bool silenced = std::freopen("/dev/null", "w", stdout) != nullptr;
  if (!silenced) std::abort();
  std::vector<char *> argv;
  for (auto &a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  return progmain(static_cast<int>(args.size()), argv.data());
}

class Bytes {
 public:
  Bytes(const uint8_t *data, size_t size) : p_(data), n_(size) {}
  template <class T>
  T take() {
    T v{};  // the bytes missing at the end stay zero
    const Bytes b = split(sizeof(T));
    if (b.n_) std::memcpy(&v, b.p_, b.n_);
    return v;
  }
  const uint8_t *rest() const { return p_; }
  size_t left() const { return n_; }
  // Splits off the next count bytes (fewer at the end).
  Bytes split(size_t count) {
    const Bytes b(p_, count < n_ ? count : n_);
    p_ += b.n_;
    n_ -= b.n_;
    return b;
  }

 private:
  const uint8_t *p_;
  size_t n_;
};

}  // namespace kestrelfuzz

#endif
