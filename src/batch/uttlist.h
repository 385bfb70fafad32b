// Utterance lists: Kaldi-style "uttid rest-of-line" files (wav.scp), the
// ids checked as file names, and the shard of the list a run takes.
#ifndef KESTREL_BATCH_UTTLIST_H
#define KESTREL_BATCH_UTTLIST_H

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel_batch {

struct Utterance {
  std::string id;
  std::string path;   // the rest of the line (the recording), or empty
  uint64_t line = 0;  // 1-based line number in the list
};

// Reads a list ("-" is standard input). Blank lines and lines starting with
// '#' are skipped. With needpath every line must name a file after its id.
// On failure returns false with the "Error: ..." line (without newline) in *error.
bool readuttlist(const std::string &listname, bool needpath, std::vector<Utterance> *out, std::string *error);

// The utterances whose 0-based position p in the list has p mod n == k - 1.
std::vector<Utterance> takeshard(const std::vector<Utterance> &all, uint32_t k, uint32_t n);

}  // namespace kestrel_batch

#endif
