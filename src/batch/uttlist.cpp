#include "uttlist.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <unordered_map>

namespace kestrel_batch {

namespace {

bool isblank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

// An id becomes a file name inside the output directory: it must stay there.
const char *unsafeidreason(const std::string &id) {
  if (id == "." || id == "..") return "is not a file name";
  for (char c : id) {
    if (c == '/') return "contains '/'";
    if (c == '\0') return "contains a NUL byte";
  }
  return nullptr;
}

// The id as a message can carry it: a NUL byte would end the message there.
std::string printableid(const std::string &id) {
  std::string s;
  for (char c : id) s += c ? std::string(1, c) : std::string("\\0");
  return s;
}

std::string where(const std::string &listname, uint64_t line) {
  return (listname == "-" ? std::string("standard input") : listname) + " line " + std::to_string(line);
}

}  // namespace

bool readuttlist(const std::string &listname, bool needpath, std::vector<Utterance> *out, std::string *error) {
  std::ifstream file;
  std::istream *in = &std::cin;
  if (listname != "-") {
    file.open(listname);
    if (!file) {
      *error = "Error: could not open " + listname + ".";
      return false;
    }
    in = &file;
  }
  std::unordered_map<std::string, uint64_t> seen;
  std::string text;
  uint64_t lineno = 0;
  out->clear();
  while (std::getline(*in, text)) {
    ++lineno;
    size_t a = 0;
    while (a < text.size() && isblank(text[a])) ++a;
    if (a == text.size() || text[a] == '#') continue;
    size_t b = a;
    while (b < text.size() && !isblank(text[b])) ++b;
    Utterance u;
    u.id = text.substr(a, b - a);
    u.line = lineno;
    size_t c = b;
    while (c < text.size() && isblank(text[c])) ++c;
    size_t d = text.size();
    while (d > c && isblank(text[d - 1])) --d;
    u.path = text.substr(c, d - c);
    if (const char *why = unsafeidreason(u.id)) {
      *error = "Error: " + where(listname, lineno) + ": utterance id '" + printableid(u.id) + "' " + why + ".";
      return false;
    }
    if (needpath && u.path.empty()) {
      *error = "Error: " + where(listname, lineno) + ": expected 'uttid path', found only '" + u.id + "'.";
      return false;
    }
    if (needpath && u.path.back() == '|') {
      *error = "Error: " + where(listname, lineno) + ": commands ending in '|' are not supported; give a file.";
      return false;
    }
    const auto ins = seen.emplace(u.id, lineno);
    if (!ins.second) {
      *error = "Error: " + where(listname, lineno) + ": utterance id '" + u.id + "' already given on line " +
               std::to_string(ins.first->second) + ".";
      return false;
    }
    out->push_back(std::move(u));
  }
  if (in->bad()) {
    *error = "Error: could not read " + (listname == "-" ? std::string("standard input") : listname) + ".";
    return false;
  }
  return true;
}

std::vector<Utterance> takeshard(const std::vector<Utterance> &all, uint32_t k, uint32_t n) {
  std::vector<Utterance> part;
  for (size_t p = k - 1u; p < all.size(); p += n) part.push_back(all[p]);
  return part;
}

}  // namespace kestrel_batch
