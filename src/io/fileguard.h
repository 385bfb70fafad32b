// Internal file helpers shared by the feature and WAV readers and writers:
// only regular files are read, and an output is either completed or not
// there at all.
#ifndef KESTREL_FILEGUARD_H
#define KESTREL_FILEGUARD_H

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace kestrel_io {

struct FileCloser {
  void operator()(std::FILE *f) const {
    if (f) std::fclose(f);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Opens a regular, non-empty file for binary reading and gives its size.
// Directories, devices and FIFOs are refused; O_NONBLOCK keeps a FIFO from
// blocking the open before fstat can tell what it is.
inline FilePtr openregularforreading(const char *path, uint64_t *size) {
  if (!path) return nullptr;
  const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return nullptr;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size <= 0) {
    ::close(fd);
    return nullptr;
  }
  const int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  std::FILE *f = ::fdopen(fd, "rb");
  if (!f) {
    ::close(fd);
    return nullptr;
  }
  *size = static_cast<uint64_t>(st.st_size);
  return FilePtr(f);
}

// Narrows n doubles to floats in place, first to last: float i (bytes
// 4i..4i+3) overwrites only doubles below i, which have already been read.
// Returns the start of the n floats.
inline unsigned char *narrowinplace(double *array, uint32_t n) {
  auto *bytes = reinterpret_cast<unsigned char *>(array);
  for (uint32_t i = 0; i < n; ++i) {
    double d;
    std::memcpy(&d, bytes + static_cast<size_t>(i) * sizeof(double), sizeof d);
    const float v = static_cast<float>(d);
    std::memcpy(bytes + static_cast<size_t>(i) * sizeof(float), &v, sizeof v);
  }
  return bytes;
}

// Temporaries of an output NAME are NAME.kestrel-tmp0 .. NAME.kestrel-tmp7,
// in NAME's directory. A writer holds an exclusive lock (flock) on its
// temporary from creation until the rename, so a temporary that nobody holds
// was left by a killed run: the next writer of NAME removes it.
constexpr int kTempSlots = 8;

inline std::string tempname(const std::string &final, int slot) {
  return final + ".kestrel-tmp" + std::to_string(slot);
}

// True when the open file and the name still denote the same file.
inline bool samefile(int fd, const std::string &name) {
  struct stat a, b;
  return ::fstat(fd, &a) == 0 && ::lstat(name.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Removes name when it is a regular file of ours that no running writer
// holds. Where locks are not supported nothing is removed.
inline void removeifstale(const std::string &name) {
  const int fd = ::open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_uid == ::geteuid() &&
      ::flock(fd, LOCK_EX | LOCK_NB) == 0 && samefile(fd, name))
    ::unlink(name.c_str());
  ::close(fd);  // releases the lock
}

// Creates name exclusively (permission bits 0666 less the umask, as any new
// file gets) and locks it. -1 when it exists or cannot be had.
inline int claimtemporary(const std::string &name) {
  const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd < 0) return -1;
  // A remover that got the lock first unlinks the name: take another slot.
  const bool lockrefused = ::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  if (lockrefused || !samefile(fd, name)) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// An output file that is either completed or not written at all. A regular
// file (new or existing) is written to a temporary beside it and renamed into
// place once completely written and closed, so the old content stays intact
// until then. An existing device or pipe (such as /dev/null) cannot be
// replaced by a rename and is written directly; it is never removed.
class OutputFile {
 public:
  explicit OutputFile(const char *path) {
    if (!path || !*path) return;
    struct stat st;
    if (::stat(path, &st) == 0) {
      if (S_ISDIR(st.st_mode)) return;
      if (!S_ISREG(st.st_mode)) {
        opendirect(path);
        return;
      }
      // Replacing a file needs the right to write it, as truncating it did.
      if (::faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) != 0) return;
    }
    // A symbolic link is written through: its target is replaced.
    char resolved[PATH_MAX];
    struct stat lst;
    if (::lstat(path, &lst) == 0 && S_ISLNK(lst.st_mode) && ::realpath(path, resolved))
      final_ = resolved;
    else
      final_ = path;
    int fd = -1;
    for (int slot = 0; slot < kTempSlots; ++slot) {
      const std::string name = tempname(final_, slot);
      removeifstale(name);
      if (fd < 0 && (fd = claimtemporary(name)) >= 0) temp_ = name;
    }
    if (fd < 0) return;
    // An existing file keeps its permission bits, as it did when rewritten in place.
    struct stat old;
    if (::stat(final_.c_str(), &old) == 0 && S_ISREG(old.st_mode)) ::fchmod(fd, old.st_mode & 07777);
    // The lock lives on the open file description: a duplicate keeps it after fclose.
    lockfd_ = ::dup(fd);
    file_ = lockfd_ >= 0 ? ::fdopen(fd, "wb") : nullptr;
    if (!file_) {
      ::close(fd);
      drop();
    }
  }
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;
  ~OutputFile() { discard(); }

  bool isopen() const { return file_ != nullptr; }
  bool write(const void *data, size_t size, size_t count) {
    if (count == 0) return true;
    return file_ && std::fwrite(data, size, count, file_) == count;
  }
  // Closes the file; on failure the temporary is removed and false returned.
  bool close() {
    if (!file_) return false;
    std::FILE *f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) {
      drop();
      return false;
    }
    return true;
  }
  // Renames the closed temporary into place; false (and removed) on failure.
  bool commit() {
    if (file_ && !close()) return false;
    if (temp_.empty()) return direct_;
    const bool ok = std::rename(temp_.c_str(), final_.c_str()) == 0;
    if (!ok) ::unlink(temp_.c_str());
    temp_.clear();
    release();
    return ok;
  }
  bool finish() { return close() && commit(); }
  void discard() {
    if (file_) std::fclose(file_);
    file_ = nullptr;
    drop();
  }

 private:
  void opendirect(const char *path) {
    const int fd = ::open(path, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return;
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    file_ = ::fdopen(fd, "wb");
    if (!file_) ::close(fd);
    final_ = path;
    direct_ = true;
  }
  void drop() {
    if (!temp_.empty()) ::unlink(temp_.c_str());
    temp_.clear();
    release();
  }
  void release() {
    if (lockfd_ >= 0) ::close(lockfd_);
    lockfd_ = -1;
  }
  std::FILE *file_ = nullptr;
  std::string final_;
  std::string temp_;
  int lockfd_ = -1;
  bool direct_ = false;
};

}  // namespace kestrel_io

#endif
