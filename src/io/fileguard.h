// Internal file helpers shared by the feature and WAV readers and writers:
// only regular files are read, and an output is either completed or removed.
#ifndef KESTREL_FILEGUARD_H
#define KESTREL_FILEGUARD_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
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

// An output file that is either completed or removed: a failed write never
// leaves a truncated file behind. Only regular files are removed (writing to
// a device such as /dev/null must not unlink it).
class OutputFile {
 public:
  explicit OutputFile(const char *path) {
    if (!path) return;
    const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd < 0) return;
    struct stat st;
    regular_ = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    file_ = ::fdopen(fd, "wb");
    if (!file_) {
      ::close(fd);
      return;
    }
    path_ = path;
  }
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;
  ~OutputFile() {
    if (file_) discard();
  }
  bool isopen() const { return file_ != nullptr; }
  bool write(const void *data, size_t size, size_t count) {
    if (count == 0) return true;
    return std::fwrite(data, size, count, file_) == count;
  }
  // Closes; on any failure the file is removed and false returned.
  bool finish() {
    std::FILE *f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) {
      removepartial();
      return false;
    }
    return true;
  }
  void discard() {
    std::fclose(file_);
    file_ = nullptr;
    removepartial();
  }

 private:
  void removepartial() {
    if (regular_) std::remove(path_.c_str());
  }
  std::FILE *file_ = nullptr;
  std::string path_;
  bool regular_ = false;
};

}  // namespace kestrel_io

#endif
