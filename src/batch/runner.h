// The batch machinery both commands share: list-mode options, the thread
// pool, messages printed per utterance in list order (so a log never depends
// on the number of threads), a progress line, and the account of failures.
// A command only says how to do one utterance.
#ifndef KESTREL_BATCH_RUNNER_H
#define KESTREL_BATCH_RUNNER_H

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "uttlist.h"

namespace kestrel_batch {

// The messages of one utterance, collected while it runs and printed together.
class Log {
 public:
  void line(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
  void error(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
  void warning(const char *fmt, ...) __attribute__((format(printf, 2, 3)));
  bool failed() const { return failed_; }
  const std::string &text() const { return text_; }
  // Prints the collected text to standard output and clears it.
  void flush();

 private:
  void append(const char *prefix, const char *fmt, va_list args);
  std::string text_;
  bool failed_ = false;
};

struct Outcome {
  Log log;
  bool skipped = false;       // outputs existed (--skip-existing)
  double audioseconds = 0.0;  // audio handled, for the progress line
};

using Job = std::function<void(const Utterance &, Outcome *)>;

// Runs one utterance's work; an allocation that fails (or any other exception)
// ends that utterance with an "Error: " line naming it, not the process.
void runguarded(Log &log, const char *name, const std::function<void()> &work);

// List mode options common to both commands.
struct BatchOptions {
  const char *list = nullptr;
  const char *outdir = nullptr;
  const char *featdir = nullptr;
  const char *failed = nullptr;
  uint32_t jobs = 1;         // 0 asked for: all cores (resolved here)
  uint32_t threads = 1;      // threads inside one utterance (--threads; any mode)
  uint32_t shardk = 1, shardn = 1;
  bool skipexisting = false;
  int progress = -1;         // -1: when standard error is a terminal
  bool anyset = false;       // some list-mode option other than --list was given
};

// Reads (and marks as read) the list-mode options and --threads among the n options. On a
// malformed value returns false with the "Error: ..." text in *error.
bool readbatchoptions(uint32_t n, char **opts, BatchOptions *b, std::string *error);

// Creates dir and its missing parents. False with the "Error: ..." text otherwise.
bool makedirectory(const std::string &dir, std::string *error);

// True when the path names an existing file (of any kind).
bool fileexists(const std::string &path);

// Runs job over the utterances on b.jobs threads, printing each utterance's
// messages in list order, and accounts for the run. Returns the exit status:
// 0 when every utterance succeeded (or was skipped), 1 otherwise.
int runutterances(const std::vector<Utterance> &utts, const BatchOptions &b, const Job &job);

}  // namespace kestrel_batch

#endif
