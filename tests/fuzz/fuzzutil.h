// Shared pieces of the fuzz targets: a private scratch directory per process,
// files written from fuzz bytes, a program's main run on an argument list, and
// a reader of structured values from the fuzz bytes.
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

// A file in a directory of this process, made once, kept for the whole run and removed at exit.
inline std::string scratchfile(const char *name) {
  static const struct Dir {
    std::string path = "/tmp/kestrel_fuzz_XXXXXX";
    Dir() { if (!mkdtemp(&path[0])) std::abort(); }
    ~Dir() { std::filesystem::remove_all(path); }
  } dir;
  return dir.path + "/" + name;
}

inline void writefile(const std::string &path, const uint8_t *data, size_t size) {
  std::FILE *f = std::fopen(path.c_str(), "wb");
  if (!f || (size > 0 && std::fwrite(data, 1, size, f) != size) || std::fclose(f) != 0) std::abort();
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

// Structured values from the fuzz bytes, never read past the end (missing bytes read as zeros).
struct Bytes {
  const uint8_t *p;
  size_t n;
  template <class T>
  T take() {
    T v{};
    const Bytes b = split(sizeof(T));
    if (b.n) std::memcpy(&v, b.p, b.n);
    return v;
  }
  // Splits off the next count bytes (fewer at the end).
  Bytes split(size_t count) {
    const Bytes b{p, count < n ? count : n};
    p += b.n, n -= b.n;
    return b;
  }
};

}  // namespace kestrelfuzz

#endif
