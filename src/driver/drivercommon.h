// Pieces shared by the two command-line programs: the help banner and the
// batch iteration over an index list with indexed file names.
#ifndef KESTREL_DRIVERCOMMON_H
#define KESTREL_DRIVERCOMMON_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "paramread.h"

namespace kestrel_driver {

constexpr const char *kVersion = "0.99";

// Licence box, title line and the two-line credits of a help text.
inline void printbanner(const char *title, const char *credit) {
  std::printf("\n");
  std::printf("  +---------------------------------------------------------------+\n");
  std::printf("  |  Kestrel speech vocoder toolkit, released under the MIT       |\n");
  std::printf("  |  licence: you may use, copy, modify and distribute it freely, |\n");
  std::printf("  |  keeping the copyright notice. It comes with no warranty.     |\n");
  std::printf("  |  Contact: Kestrel developers, see README.md                   |\n");
  std::printf("  +---------------------------------------------------------------+\n");
  std::printf("\n");
  std::printf("  === %s v%s ===\n", title, kVersion);
  std::printf("\n");
  std::printf("  Written by the Kestrel developers.\n");
  std::printf("  %s\n", credit);
  std::printf("\n");
}

// Writes index i into the placeholder of every name given (null entries are
// skipped). A name without a placeholder is used unchanged for every index.
// Returns the first name whose placeholder is too narrow for i (it keeps its
// previous content), or null when every name took the index.
inline const char *setindexednames(char *const *names, size_t count, uint32_t i) {
  const char *misfit = nullptr;
  for (size_t k = 0; k < count; ++k) {
    char *name = names[k];
    if (!name) continue;
    if (replacefileindex(name, i) != 0 && getfileindex(name) != nullptr && !misfit) misfit = name;
  }
  return misfit;
}

// Calls process(i) for every index of a well-formed index list, interval
// after interval. The inclusive end is tested after processing, so an end of
// 4294967295 cannot wrap the loop around.
template <class Process>
void foreachindex(const char *indlist, Process process) {
  for (const char *pos = indlist; pos; pos = strnumnextinterv(pos)) {
    const uint32_t start = strnumintervstart(pos);
    const uint32_t end = strnumintervend(pos, start);
    if (end < start) continue;
    for (uint32_t i = start;; ++i) {
      process(i);
      if (i == end) break;
    }
  }
}

}  // namespace kestrel_driver

#endif
