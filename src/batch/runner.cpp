#include "runner.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <thread>

#include "paramread.h"

namespace kestrel_batch {

// ---------------------------------------------------------------------------
// Log

void Log::append(const char *prefix, const char *fmt, va_list args) {
  text_ += prefix;
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n > 0) {
    const size_t at = text_.size();
    text_.resize(at + static_cast<size_t>(n) + 1);
    std::vsnprintf(&text_[at], static_cast<size_t>(n) + 1, fmt, args);
    text_.resize(at + static_cast<size_t>(n));
  }
  text_ += '\n';
}

void Log::line(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  append("", fmt, args);
  va_end(args);
}

void Log::error(const char *fmt, ...) {
  failed_ = true;
  va_list args;
  va_start(args, fmt);
  append("Error: ", fmt, args);
  va_end(args);
}

void Log::warning(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  append("Warning: ", fmt, args);
  va_end(args);
}

void Log::flush() {
  std::fwrite(text_.data(), 1, text_.size(), stdout);
  std::fflush(stdout);
  text_.clear();
}

// ---------------------------------------------------------------------------
// Options

namespace {

// The most threads a run starts, whatever is asked.
constexpr uint32_t kMaxJobs = 1024;

// A bare flag such as --skip-existing (no value), matched without letter case.
bool searchflag(uint32_t n, char **opts, const char *name) {
  for (uint32_t i = 0; i < n; ++i) {
    const char *o = opts[i];
    if (paramalreadyread(o) || !isparam(o)) continue;
    const char *a = o + 2;
    size_t k = 0;
    while (a[k] && name[k] && (a[k] | 0x20) == (name[k] | 0x20)) ++k;
    if (a[k] == '\0' && name[k] == '\0') {
      markparamasread(opts[i]);
      return true;
    }
  }
  return false;
}

// A whole decimal number up to max, nothing else.
bool parsecount(const char *text, uint32_t max, uint32_t *value) {
  if (!text || !*text) return false;
  uint64_t v = 0;
  for (const char *p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return false;
    v = v * 10 + static_cast<uint64_t>(*p - '0');
    if (v > max) return false;
  }
  *value = static_cast<uint32_t>(v);
  return true;
}

}  // namespace

bool readbatchoptions(uint32_t n, char **opts, BatchOptions *b, std::string *error) {
  b->list = searchstringparam(n, opts, "list");
  b->outdir = searchstringparam(n, opts, "outdir");
  b->featdir = searchstringparam(n, opts, "featdir");
  b->failed = searchstringparam(n, opts, "failed");
  const char *jobs = searchstringparam(n, opts, "jobs");
  const char *threads = searchstringparam(n, opts, "threads");
  const char *shard = searchstringparam(n, opts, "shard");
  b->skipexisting = searchflag(n, opts, "skip-existing");
  if (searchflag(n, opts, "progress")) b->progress = 1;
  if (searchflag(n, opts, "no-progress")) b->progress = b->progress == 1 ? -2 : 0;
  b->anyset = b->outdir || b->featdir || b->failed || jobs || shard || b->skipexisting || b->progress != -1;
  if (b->progress == -2) {
    *error = "Error: --progress and --no-progress given together.";
    return false;
  }
  if (jobs) {
    if (!parsecount(jobs, kMaxJobs, &b->jobs)) {
      *error = std::string("Error: --jobs=") + jobs + " is not a thread count (0 = all cores, at most 1024).";
      return false;
    }
    if (b->jobs == 0) b->jobs = std::max(1u, std::thread::hardware_concurrency());
  }
  if (threads) {
    if (!parsecount(threads, kMaxJobs, &b->threads)) {
      *error = std::string("Error: --threads=") + threads + " is not a thread count (0 = all cores, at most 1024).";
      return false;
    }
    if (b->threads == 0) b->threads = std::max(1u, std::thread::hardware_concurrency());
  }
  if (shard) {
    const char *slash = std::strchr(shard, '/');
    std::string k = slash ? std::string(shard, static_cast<size_t>(slash - shard)) : std::string();
    if (!slash || !parsecount(k.c_str(), 0xFFFFFFFFu, &b->shardk) ||
        !parsecount(slash + 1, 0xFFFFFFFFu, &b->shardn) || b->shardk < 1 || b->shardk > b->shardn) {
      *error = std::string("Error: --shard=") + shard + " must be K/N with 1 <= K <= N.";
      return false;
    }
  }
  return true;
}

bool makedirectory(const std::string &dir, std::string *error) {
  std::string partial;
  size_t pos = 0;
  while (pos <= dir.size()) {
    size_t next = dir.find('/', pos);
    if (next == std::string::npos) next = dir.size();
    partial = dir.substr(0, next);
    if (!partial.empty() && ::mkdir(partial.c_str(), 0777) != 0 && errno != EEXIST) break;
    pos = next + 1;
  }
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  *error = "Error: could not create the directory " + dir + ".";
  return false;
}

bool fileexists(const std::string &path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0;
}

// ---------------------------------------------------------------------------
// Running

namespace {

using Clock = std::chrono::steady_clock;

// The updating line on standard error: done/total, rates and time left.
class Progress {
 public:
  Progress(bool on, size_t total) : on_(on), total_(total), start_(Clock::now()), last_(start_) {}
  void update(size_t done, double audio, bool final) {
    if (!on_) return;
    const Clock::time_point now = Clock::now();
    if (!final && now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    const double secs = std::chrono::duration<double>(now - start_).count();
    const double rate = secs > 0 ? static_cast<double>(done) / secs : 0.0;
    char eta[32] = "--";
    if (rate > 0 && done < total_) {
      const long left = static_cast<long>(static_cast<double>(total_ - done) / rate + 0.5);
      std::snprintf(eta, sizeof eta, "%ld:%02ld:%02ld", left / 3600, left / 60 % 60, left % 60);
    } else if (done == total_) {
      std::snprintf(eta, sizeof eta, "0:00:00");
    }
    std::fprintf(stderr, "\r%zu/%zu utterances, %.1f utt/s, %.1f s audio/s, ETA %s   ", done, total_, rate,
                 secs > 0 ? audio / secs : 0.0, eta);
    if (final) std::fputc('\n', stderr);
    std::fflush(stderr);
  }

 private:
  bool on_;
  size_t total_;
  Clock::time_point start_, last_;
};

// Writes the failed ids, one a line, to a temporary renamed into place.
bool writefailed(const std::string &path, const std::vector<std::string> &ids) {
  const std::string tmp = path + ".tmp" + std::to_string(static_cast<long>(::getpid()));
  std::FILE *f = std::fopen(tmp.c_str(), "w");
  if (!f) return false;
  bool ok = true;
  for (const std::string &id : ids) ok = ok && std::fprintf(f, "%s\n", id.c_str()) > 0;
  ok = (std::fclose(f) == 0) && ok;
  if (ok && std::rename(tmp.c_str(), path.c_str()) == 0) return true;
  std::remove(tmp.c_str());
  return false;
}

}  // namespace

void runguarded(Log &log, const char *name, const std::function<void()> &work) {
  try {
    work();
  } catch (const std::bad_alloc &) {
    log.error("out of memory for %s.", name);
  } catch (const std::exception &e) {
    log.error("%s: %s.", name, e.what());
  }
}

int runutterances(const std::vector<Utterance> &utts, const BatchOptions &b, const Job &job) {
  const size_t total = utts.size();
  const bool progresson = b.progress == 1 || (b.progress == -1 && ::isatty(STDERR_FILENO));
  Progress progress(progresson, total);
  std::vector<Outcome> outcomes(total);
  std::vector<char> ready(total, 0);
  std::mutex mutex;
  std::condition_variable cv;
  std::atomic<size_t> next{0};

  auto work = [&] {
    for (size_t i = next++; i < total; i = next++) {
      Outcome o;
      runguarded(o.log, utts[i].id.c_str(), [&] { job(utts[i], &o); });
      std::lock_guard<std::mutex> lock(mutex);
      outcomes[i] = std::move(o);
      ready[i] = 1;
      cv.notify_one();
    }
  };
  const uint32_t nthreads = static_cast<uint32_t>(std::min<size_t>(b.jobs ? b.jobs : 1, total));
  // Workers compute; this thread prints, so the log and progress keep up.
  std::vector<std::thread> pool;
  for (uint32_t t = 0; t < nthreads; ++t) pool.emplace_back(work);

  // Print in list order as results arrive; each utterance's messages together.
  size_t failed = 0, skipped = 0;
  double audio = 0.0;
  std::vector<std::string> failedids;
  progress.update(0, 0.0, total == 0);
  for (size_t i = 0; i < total; ++i) {
    Outcome o;
    {
      std::unique_lock<std::mutex> lock(mutex);
      cv.wait(lock, [&] { return ready[i] != 0; });
      o = std::move(outcomes[i]);
    }
    if (progresson && !o.log.text().empty()) std::fputs("\r\033[K", stderr);
    o.log.flush();
    if (o.log.failed()) {
      ++failed;
      failedids.push_back(utts[i].id);
    }
    if (o.skipped) ++skipped;
    audio += o.audioseconds;
    progress.update(i + 1, audio, i + 1 == total);
  }
  for (auto &t : pool) t.join();

  int status = 0;
  if (b.failed && !writefailed(b.failed, failedids)) {
    std::printf("Error: could not create %s.\n", b.failed);
    status = 1;
  }
  if (skipped > 0) std::printf("%zu of %zu utterances skipped: their outputs exist.\n", skipped, total);
  if (failed > 0) {
    std::printf("%zu of %zu utterances failed.\n", failed, total);
    status = 1;
  }
  std::fflush(stdout);
  return status;
}

}  // namespace kestrel_batch
