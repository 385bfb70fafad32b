// Option reading, index lists and indexed file names on arbitrary text. The
// harness walks at most kMaxIndices indices of a list: a well-formed list
// of forty million entries is valid and only slow, not a finding.
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "fuzzutil.h"
#include "paramread.h"

namespace {
constexpr uint64_t kMaxIndices = 2000;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Arguments are separated by newlines; at most 16 of them.
  std::vector<std::string> store;
  std::istringstream text(std::string(reinterpret_cast<const char *>(data), size));
  for (std::string a; store.size() < 16 && std::getline(text, a);) store.push_back(a);
  if (store.empty() || (size > 0 && data[size - 1] == '\n' && store.size() < 16)) store.push_back("");
  std::vector<char *> args;
  for (auto &s : store) args.push_back(&s[0]);  // each string is NUL-terminated
  const uint32_t n = static_cast<uint32_t>(args.size());
  char **list = args.data();
  for (uint32_t k = 0; k < n; ++k) isparam(list[k]);

  int32_t lframe = 0;
  double fdur = 0.0;
  searchintparam(n, list, "lframe", &lframe);
  searchdoubleparam(n, list, "fdur", &fdur);
  const char *indlist = searchstringparam(n, list, "indlist");
  unreadparams(n, list);

  // The last argument is also taken as an index list and the first as a file name.
  const char *lists[] = {indlist, list[n - 1]};
  for (const char *l : lists) {
    if (!l || strnumdiagnose(l) != 0) continue;
    strnumdigits(l);
    strnumdefaultdigits(l);
    uint64_t total = 0, walked = 0;
    std::string name = store[0] + "???";
    for (const char *pos = l; pos; pos = strnumnextinterv(pos)) {
      const uint32_t start = strnumintervstart(pos), end = strnumintervend(pos, start);
      if (end < start) continue;
      total += static_cast<uint64_t>(end - start) + 1;
      for (uint64_t i = start; i <= end && walked < kMaxIndices; ++i, ++walked) {
        replacefileindex(&name[0], static_cast<uint32_t>(i));
        getfileindex(name.c_str());
      }
    }
    if (total <= kMaxIndices) {
      uint32_t *array = nullptr;
      const uint32_t count = strnum2numarray(l, &array);
      if (count != total) std::abort();  // the expansion agrees with the walk
      std::free(array);
    }
  }
  getfilename(list[0]);
  getfileextension(list[0]);
  // Numeric and string lists.
  const uint32_t ne = getnelemsinnumlist(list[0]);
  if (ne > 0 && ne <= 4096) {
    std::vector<double> out(ne);
    getelemsinnumlist(list[0], ne, out.data());
  }
  char *strlist = createemptystrlist(nullptr);
  for (uint32_t k = 0; k < n && strlist; ++k) strlist = appendstrtolist(strlist, list[k]);
  if (strlist) isinstrlist(strlist, list[0]);
  destroystrlist(strlist);
  return 0;
}
