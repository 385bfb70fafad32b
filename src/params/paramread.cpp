// paramread: --name=value options with read marks, index lists, indexed file
// names and the small string / numeric lists.
#include "paramread.h"

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

bool isdigitchar(char c) { return c >= '0' && c <= '9'; }
bool isseparator(char c) { return c == '/' || c == '\\'; }
bool isplaceholderchar(char c) { return c == '?' || isdigitchar(c); }

// ASCII-only case folding: option names never depend on the C locale.
bool sameletter(char fromparam, char fromname) {
  if (fromparam == fromname) return true;
  if (fromname >= 'A' && fromname <= 'Z') return fromparam == fromname - 'A' + 'a';
  if (fromname >= 'a' && fromname <= 'z') return fromparam == fromname - 'a' + 'A';
  return false;
}

// Reads the decimal digit run at p. Returns false when there is no digit or
// the number does not fit in 32 unsigned bits; *end is set past the run.
bool readuint32exact(const char *p, uint32_t *value, const char **end) {
  uint64_t v = 0;
  const char *q = p;
  bool fits = true;
  while (isdigitchar(*q)) {
    v = v * 10u + static_cast<uint64_t>(*q - '0');
    if (v > UINT32_MAX) {
      fits = false;
      v = UINT32_MAX;  // keep going to find the end of the run
    }
    ++q;
  }
  if (end) *end = q;
  if (q == p || !fits) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

// Index-list numbers: the digit run at p, modulo 2^32 (lists that passed
// strnumdiagnose never need the reduction); 0 when there is no digit.
uint32_t readlistnumber(const char *p) {
  uint32_t v = 0;
  while (isdigitchar(*p)) {
    v = v * 10u + static_cast<uint32_t>(*p - '0');
    ++p;
  }
  return v;
}

// Copies fmt to out the way a printf-style format without arguments would
// print it ("%%" is "%"). Any other conversion would need an argument: false.
bool expandplainformat(const char *fmt, std::string *out) {
  out->clear();
  for (const char *p = fmt; *p; ++p) {
    if (*p == '%') {
      if (p[1] != '%') return false;
      ++p;
    }
    out->push_back(*p);
  }
  return true;
}

}  // namespace

extern "C" {

/* --- option reading ------------------------------------------------------ */

int isparam(const char *param) {
  return (param && param[0] == '-' && param[1] == '-') ? 1 : 0;
}

char *paramnamematch(char *param, const char *name) {
  if (!name || !isparam(param)) return nullptr;
  char *namepart = param + 2;
  char *eq = namepart;
  while (*eq && *eq != '=') ++eq;
  if (eq == namepart || *eq != '=' || eq[1] == '\0') return nullptr;
  const size_t len = static_cast<size_t>(eq - namepart);
  for (size_t k = 0; k < len; ++k) {
    if (name[k] == '\0' || !sameletter(namepart[k], name[k])) return nullptr;
  }
  if (name[len] != '\0') return nullptr;  // the whole name, not a prefix
  return eq + 1;
}

int markparamasread(char *param) {
  if (param && param[0] != '\0') param[0] = ' ';
  return 0;
}

int paramalreadyread(const char *param) { return (param && param[0] == ' ') ? 1 : 0; }

int getintparam(char *param, const char *name, int32_t *value) {
  const char *text = paramnamematch(param, name);
  int v = 0;
  if (!text || std::sscanf(text, "%d", &v) != 1) return -1;
  *value = static_cast<int32_t>(v);
  markparamasread(param);
  return 0;
}

int getdoubleparam(char *param, const char *name, double *value) {
  const char *text = paramnamematch(param, name);
  double v = 0.0;
  if (!text || std::sscanf(text, "%lf", &v) != 1) return -1;
  *value = v;
  markparamasread(param);
  return 0;
}

char *getstringparam(char *param, const char *name) {
  char *text = paramnamematch(param, name);
  if (text) markparamasread(param);
  return text;
}

int searchintparam(uint32_t n, char **params, const char *name, int32_t *value) {
  if (!params) return -1;
  for (uint32_t k = 0; k < n; ++k)
    if (getintparam(params[k], name, value) == 0) return 0;
  return -1;
}

int searchdoubleparam(uint32_t n, char **params, const char *name, double *value) {
  if (!params) return -1;
  for (uint32_t k = 0; k < n; ++k)
    if (getdoubleparam(params[k], name, value) == 0) return 0;
  return -1;
}

char *searchstringparam(uint32_t n, char **params, const char *name) {
  if (!params) return nullptr;
  for (uint32_t k = 0; k < n; ++k) {
    char *text = getstringparam(params[k], name);
    if (text) return text;
  }
  return nullptr;
}

int unreadparams(uint32_t n, char **params) {
  if (!params) return 0;
  for (uint32_t k = 0; k < n; ++k)
    if (!paramalreadyread(params[k])) return 1;
  return 0;
}

/* --- index lists ---------------------------------------------------------- */

int strnumdiagnose(const char *list) {
  if (!list || !isdigitchar(list[0])) return -1;
  // Body: digits, and ',' / '-' each right after a digit, up to '(' or the end.
  const char *p = list;
  for (; *p && *p != '('; ++p) {
    if (isdigitchar(*p)) continue;
    if ((*p == ',' || *p == '-') && isdigitchar(p[-1])) continue;
    return -1;
  }
  const char *bodyend = p;
  if (!isdigitchar(bodyend[-1])) return -1;
  uint32_t width = 0;
  if (*bodyend == '(') {
    const char *q = bodyend + 1;
    if (!isdigitchar(*q)) return -1;
    while (isdigitchar(*q)) ++q;
    if (*q != ')') return -1;
    const char *stop = nullptr;
    if (!readuint32exact(bodyend + 1, &width, &stop)) return -1;
  }
  // Numbers strictly increase whatever separates them; each fits in 32 bits
  // and, with a width suffix, in that many digits.
  bool first = true;
  uint32_t previous = 0;
  for (p = list; p < bodyend;) {
    if (!isdigitchar(*p)) {
      ++p;
      continue;
    }
    uint32_t v = 0;
    const char *stop = nullptr;
    if (!readuint32exact(p, &v, &stop)) return -1;
    if (!first && v <= previous) return -1;
    if (width != 0 && getdigits(v) > width) return -1;
    first = false;
    previous = v;
    p = stop;
  }
  return 0;
}

uint32_t strnumintervstart(const char *pos) { return pos ? readlistnumber(pos) : 0u; }

uint32_t strnumintervend(const char *pos, uint32_t start) {
  if (!pos) return start;
  while (*pos && *pos != ',' && *pos != '(' && *pos != '-') ++pos;
  if (*pos == '-') return readlistnumber(pos + 1);
  return start;
}

const char *strnumnextinterv(const char *pos) {
  if (!pos) return nullptr;
  while (*pos && *pos != ',' && *pos != '(') ++pos;
  return *pos == ',' ? pos + 1 : nullptr;
}

uint32_t strnum2numarray(const char *list, uint32_t **array) {
  if (!list || !array) return 0;
  // Count first so that the array is sized once and a list whose expansion
  // would not fit in a 32-bit count is refused instead of wrapping.
  uint64_t total = 0;
  for (const char *pos = list; pos; pos = strnumnextinterv(pos)) {
    const uint32_t start = strnumintervstart(pos);
    const uint32_t end = strnumintervend(pos, start);
    if (end >= start) total += static_cast<uint64_t>(end - start) + 1u;
    if (total > UINT32_MAX) return 0;
  }
  if (total == 0) return 0;
  auto *out = static_cast<uint32_t *>(std::malloc(static_cast<size_t>(total) * sizeof(uint32_t)));
  if (!out) return 0;
  size_t k = 0;
  for (const char *pos = list; pos; pos = strnumnextinterv(pos)) {
    const uint32_t start = strnumintervstart(pos);
    const uint32_t end = strnumintervend(pos, start);
    if (end < start) continue;
    for (uint32_t i = start;; ++i) {
      out[k++] = i;
      if (i == end) break;
    }
  }
  *array = out;
  return static_cast<uint32_t>(total);
}

uint32_t strnumdigits(const char *list) {
  if (!list) return 0;
  const size_t len = std::strlen(list);
  if (len < 4 || list[len - 1] != ')') return 0;
  for (size_t k = len; k-- > 0;) {
    if (list[k] != '(') continue;
    uint32_t w = 0;
    const char *stop = nullptr;
    if (readuint32exact(list + k + 1, &w, &stop) && *stop == ')') return w;
  }
  return 0;
}

uint32_t strnumdefaultdigits(const char *list) {
  if (!list) return getdigits(0);
  size_t end = std::strlen(list);
  if (end > 0 && list[end - 1] == ')') {
    const char *open = std::strrchr(list, '(');
    if (open) end = static_cast<size_t>(open - list);
  }
  size_t begin = end;
  while (begin > 0 && isdigitchar(list[begin - 1])) --begin;
  // The digit count of the run's value (leading zeros do not count), which is
  // getdigits of the number without converting it, so no run can overflow.
  while (begin < end && list[begin] == '0') ++begin;
  const size_t digits = end - begin;
  if (digits == 0) return 1;
  return digits > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(digits);
}

uint32_t getdigits(uint32_t v) {
  if (v <= 9u) return 1;
  if (v <= 99u) return 2;
  if (v <= 999u) return 3;
  // 64-bit power: 10^10 does not fit in 32 bits and must not wrap below v.
  uint32_t digits = 3;
  for (uint64_t p = 1000u; p <= v; p *= 10u) ++digits;
  return digits;
}

/* --- file names ----------------------------------------------------------- */

const char *getfilename(const char *path) {
  if (!path) return nullptr;
  const char *p = path + std::strlen(path);
  while (p > path && !isseparator(p[-1])) --p;
  return p;
}

const char *getfileextension(const char *path) {
  if (!path) return nullptr;
  const char *p = path + std::strlen(path);
  while (p > path) {
    --p;
    if (isseparator(*p)) return nullptr;
    if (*p == '.') return p;
  }
  return nullptr;
}

const char *getfileindex(const char *path) {
  for (const char *p = getfilename(path); p && *p; ++p)
    if (isplaceholderchar(*p)) return p;
  return nullptr;
}

int replacefileindex(char *path, uint32_t index) {
  const char *found = getfileindex(path);
  if (!found) return -1;  // no placeholder: the name stays as it is
  char *start = path + (found - path);
  size_t width = 0;
  while (isplaceholderchar(start[width])) ++width;
  if (getdigits(index) > width) return -1;
  // Right-aligned digits, zero padded; the character after the run is kept.
  for (size_t k = width; k-- > 0;) {
    start[k] = static_cast<char>('0' + index % 10u);
    index /= 10u;
  }
  return 0;
}

int replacefileextension(char *path, const char *ext) {
  if (!path || !ext) return -1;
  std::string text;
  if (!expandplainformat(ext, &text)) return -1;
  const char *dot = getfileextension(path);
  char *at = dot ? path + (dot - path) : path + std::strlen(path);
  std::memcpy(at, text.c_str(), text.size() + 1);
  return 0;
}

int replacefilename(char *path, const char *name) {
  if (!path || !name) return -1;
  std::string text;
  if (!expandplainformat(name, &text)) return -1;
  char *at = path + (getfilename(path) - path);
  std::memcpy(at, text.c_str(), text.size() + 1);
  return 0;
}

/* --- string and numeric lists --------------------------------------------- */

char *createemptystrlist(char *old) {
  std::free(old);
  auto *list = static_cast<char *>(std::malloc(3));
  if (list) std::memcpy(list, "{}", 3);
  return list;
}

char *appendstrtolist(char *list, const char *text) {
  if (!text) return list;
  const size_t tlen = std::strlen(text);
  if (!list || std::strcmp(list, "{}") == 0) {
    auto *fresh = static_cast<char *>(std::realloc(list, tlen + 3));
    if (!fresh) return list;
    fresh[0] = '{';
    std::memcpy(fresh + 1, text, tlen);
    fresh[tlen + 1] = '}';
    fresh[tlen + 2] = '\0';
    return fresh;
  }
  const size_t llen = std::strlen(list);
  const char *close = std::strrchr(list, '}');
  const size_t keep = close ? static_cast<size_t>(close - list) : llen;
  auto *grown = static_cast<char *>(std::realloc(list, keep + tlen + 3));
  if (!grown) return list;  // the old list stays valid and unchanged
  grown[keep] = ',';
  std::memcpy(grown + keep + 1, text, tlen);
  grown[keep + 1 + tlen] = '}';
  grown[keep + 2 + tlen] = '\0';
  return grown;
}

int isinstrlist(const char *list, const char *text) {
  if (!list || !text) return 0;
  const size_t tlen = std::strlen(text);
  for (const char *p = std::strstr(list, text); p; p = std::strstr(p + 1, text)) {
    const bool opens = p > list && (p[-1] == '{' || p[-1] == ',');
    const bool closes = p[tlen] == ',' || p[tlen] == '}';
    if (opens && closes) return 1;
    if (*p == '\0') break;
  }
  return 0;
}

int destroystrlist(char *list) {
  std::free(list);
  return 0;
}

uint32_t getnelemsinnumlist(const char *list) {
  if (!list || list[0] != '{' || std::strcmp(list, "{}") == 0) return 0;
  uint32_t count = 0;
  const char *p = list + 1;
  for (;;) {
    if (!isdigitchar(*p)) return 0;
    while (isdigitchar(*p)) ++p;
    if (*p == '.') {
      ++p;
      if (!isdigitchar(*p)) return 0;
      while (isdigitchar(*p)) ++p;
    }
    if (count == UINT32_MAX) return 0;
    ++count;
    if (*p == '}') return count;
    if (*p != ',' && *p != ';') return 0;
    ++p;
  }
}

int getelemsinnumlist(const char *list, uint32_t n, double *out) {
  if (!out) return 0;
  const char *p = list ? list : "";
  for (uint32_t k = 0; k < n; ++k) {
    while (*p && !isdigitchar(*p)) ++p;
    const char *begin = p;
    while (isdigitchar(*p)) ++p;
    if (*p == '.' && isdigitchar(p[1])) {
      ++p;
      while (isdigitchar(*p)) ++p;
    }
    double v = 0.0;
    if (p > begin) {
      // Locale-independent decimal conversion; only a huge integer part can
      // be out of range upwards (a long run of zero decimals underflows to 0).
      const auto result = std::from_chars(begin, p, v);
      if (result.ec == std::errc::result_out_of_range) {
        const char *nonzero = begin;
        while (*nonzero == '0') ++nonzero;
        v = isdigitchar(*nonzero) ? HUGE_VAL : 0.0;
      }
    }
    out[k] = v;
    while (isdigitchar(*p) || *p == '.') ++p;
  }
  return 0;
}

}  // extern "C"
