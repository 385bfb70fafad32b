// paramread: option reading, index lists, indexed file names, small lists.
#include "paramread.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Writable copies of option elements, as main's argv would be.
struct Args {
  std::vector<std::string> store;
  std::vector<char *> ptrs;
  explicit Args(std::vector<std::string> e) : store(std::move(e)) { for (auto &s : store) ptrs.push_back(&s[0]); }
  uint32_t n() const { return static_cast<uint32_t>(ptrs.size()); }
  char **list() { return ptrs.data(); }
  // (result, value) of a search; the value starts at 9 so that an untouched one shows.
  std::pair<int, double> searchdouble(const char *name) {
    double v = 9.0;
    return {searchdoubleparam(n(), list(), name, &v), v};
  }
  std::pair<int, int32_t> searchint(const char *name) {
    int32_t v = 9;
    return {searchintparam(n(), list(), name, &v), v};
  }
};

TEST(ParamRead, IsParamMarksAndNameMatching) {
  for (const char *p : {"--a=1", "--"}) EXPECT_EQ(isparam(p), 1) << p;
  for (const char *p : {"-a=1", "-", ""}) EXPECT_EQ(isparam(p), 0) << p;
  char elem[] = "--fdur=2";
  EXPECT_EQ(paramalreadyread(elem), 0);
  EXPECT_EQ(markparamasread(elem), 0);
  EXPECT_STREQ(elem, " -fdur=2");
  EXPECT_EQ(paramalreadyread(elem), 1);
  EXPECT_EQ(paramnamematch(elem, "fdur"), nullptr);  // never matched again

  // Case-insensitive whole names; the value starts after the first '='.
  const struct { const char *elem, *name; bool match; } cases[] = {
      {"--LFrame=100", "lframe", true}, {"--lframe=100", "LFRAME", true}, {"--a=b=c", "a", true},
      {"--f_0=2", "F_0", true},         {"--lframe=", "lframe", false},   {"--=5", "", false},
      {"--lframe", "lframe", false},    {"--lfram=100", "lframe", false}, {"--lframes=100", "lframe", false},
      {"--a[=1", "a{", false},          {"--a@=1", "a`", false}};  // '[' '{' '@' '`' are not letters
  for (const auto &c : cases) {
    std::string buf = c.elem;
    EXPECT_EQ(paramnamematch(&buf[0], c.name), c.match ? &buf[0] + buf.find('=') + 1 : nullptr)
        << c.elem << " / " << c.name;
  }
}

// One conversion: the result, the value (9 when untouched) and the read mark, set only when accepted.
template <class T, class Conv>
void expectconversion(Conv conv, const char *name, const char *elem, int result, T value) {
  std::string buf = elem;
  T v = 9;
  EXPECT_EQ(conv(&buf[0], name, &v), result) << elem;
  EXPECT_TRUE(std::isnan(value) ? std::isnan(v) : v == value) << elem << " gave " << v;
  EXPECT_EQ(paramalreadyread(buf.c_str()), result == 0) << elem;
}

TEST(ParamRead, ValuesConvertLikeScanf) {
  const struct { const char *elem; int result; int32_t value; } ints[] = {
      {"--n=80abc", 0, 80}, {"--n=-80", 0, -80}, {"--n=0x10", 0, 0}, {"--N=3", 0, 3}, {"--n=x", -1, 9}, {"--n=", -1, 9}};
  for (const auto &c : ints) expectconversion(getintparam, "n", c.elem, c.result, c.value);
  const struct { const char *elem; int result; double value; } doubles[] = {
      {"--x=-.5e1x", 0, -5.0}, {"--x=INF", 0, HUGE_VAL}, {"--x=0x1p2", 0, 4.0}, {"--x=nan", 0, NAN}, {"--x=abc", -1, 9.0}};
  for (const auto &c : doubles) expectconversion(getdoubleparam, "x", c.elem, c.result, c.value);
}

TEST(ParamRead, SearchesAndUnreadElements) {
  Args a({"--fpitch=2", "--fpitch=3"});
  EXPECT_EQ(a.searchdouble("fpitch"), std::make_pair(0, 2.0));  // the first occurrence wins, only it is marked
  EXPECT_EQ(unreadparams(a.n(), a.list()), 1);
  EXPECT_EQ(a.searchdouble("fpitch"), std::make_pair(0, 3.0));
  EXPECT_EQ(unreadparams(a.n(), a.list()), 0);
  // A bad value fails and does not hide a later good one; the malformed ones stay unread.
  Args b({"--fpitch=x", "--n=zz", "--n=5", "--lframe=40"});
  EXPECT_EQ(b.searchdouble("fpitch"), std::make_pair(-1, 9.0));
  EXPECT_EQ(b.searchint("n"), std::make_pair(0, 5));
  EXPECT_EQ(b.searchint("LFRAME"), std::make_pair(0, 40));
  EXPECT_EQ(unreadparams(b.n(), b.list()), 1);
  Args c({"--x=1", "--indlist=1-3"});
  EXPECT_EQ(searchstringparam(c.n(), c.list(), "indlist"), c.list()[1] + 10);  // inside, not a copy
  EXPECT_EQ(searchstringparam(c.n(), c.list(), "indlist"), nullptr);
  EXPECT_EQ(unreadparams(0, nullptr), 0);
}

TEST(IndexList, DiagnosisIterationAndExpansion) {
  for (const char *l : {"0", "1-3,7,9-10", "1-3(2)x", "1-99(2)", "1-3-5", "0-4294967295", "1-999(0)", "2(1)"})
    EXPECT_EQ(strnumdiagnose(l), 0) << l;
  for (const char *l : {"", "1,,2", "1-", "-1", "1(2", "1()", "5-1", "1-5,5", "1-100(2)", "10(1)", "1 ", "(2)",
                        "4294967296", "1(4294967296)", "1-3,"})
    EXPECT_EQ(strnumdiagnose(l), -1) << l;
  EXPECT_EQ(strnumdiagnose(nullptr), -1);

  // Iterated the way the decoder walks a list (no wrap at 2^32-1) and expanded alike.
  const struct { const char *list; std::vector<uint32_t> expected; } cases[] = {
      {"0", {0}}, {"1-3,7,9-10", {1, 2, 3, 7, 9, 10}}, {"1-3-5", {1, 2, 3}}, {"2-4(3)", {2, 3, 4}},
      {"4294967294-4294967295", {4294967294u, 4294967295u}}};
  for (const auto &c : cases) {
    std::vector<uint32_t> walked;
    for (const char *pos = c.list; pos; pos = strnumnextinterv(pos))
      for (uint32_t i = strnumintervstart(pos), end = strnumintervend(pos, i); i <= end; ++i) {
        walked.push_back(i);
        if (i == end) break;
      }
    EXPECT_EQ(walked, c.expected) << c.list;
    uint32_t *a = nullptr;
    ASSERT_EQ(strnum2numarray(c.list, &a), c.expected.size()) << c.list;
    EXPECT_EQ(std::vector<uint32_t>(a, a + c.expected.size()), c.expected) << c.list;
    std::free(a);
  }
  EXPECT_EQ(strnumintervend("12(3)", 12), 12u);
  EXPECT_EQ(strnumnextinterv("1-3(2),7"), nullptr);
  // 2^32 numbers do not fit a 32-bit count: refused, array untouched.
  uint32_t sentinel = 0, *b = &sentinel;
  EXPECT_EQ(strnum2numarray("0-4294967294,4294967295", &b), 0u);
  EXPECT_EQ(b, &sentinel);
}

TEST(IndexList, WidthsAndDigits) {
  struct W { const char *list; uint32_t width; };
  for (const W &w : {W{"1(2)", 2}, W{"(2)", 0}, W{"1-3", 0}, W{"1-3(12)", 12}, W{"1(2)(3)", 3}, W{"1(x)", 0},
                     W{"1-3(2)x", 0}})
    EXPECT_EQ(strnumdigits(w.list), w.width) << w.list;
  for (const W &w : {W{"1-100(2)", 3}, W{"7(3)", 1}, W{"0", 1}, W{"1-99999999999", 11}, W{"3-007", 1}, W{"10,20", 2}})
    EXPECT_EQ(strnumdefaultdigits(w.list), w.width) << w.list;
  // 1410065408 is 10^10 mod 2^32: a power of ten that wrapped would count it as 11 digits.
  const uint32_t digits[][2] = {{9, 1},           {10, 2},          {99, 2},          {100, 3},     {9999, 4},
                                {10000, 5},       {999999999, 9},   {1000000000, 10}, {1410065408, 10},
                                {4294967295u, 10}};
  for (const auto &d : digits) EXPECT_EQ(getdigits(d[0]), d[1]) << d[0];
}

TEST(FileNames, PartsAndReplacements) {
  // Name after the last '/' or '\\', extension from its last '.', index at its first '?' or digit.
  const char *none = "(none)";
  const struct { const char *path, *name, *ext, *index; } parts[] = {
      {"d\\x.f0", "x.f0", ".f0", "0"}, {"a\\b/c", "c", none, none}, {"dir.v2/file", "file", none, none},
      {"a.b.c", "a.b.c", ".c", none},  {".bashrc", ".bashrc", ".bashrc", none}, {"", "", none, none},
      {"out9/utt???.wav", "utt???.wav", ".wav", "???.wav"}, {"a9/b1.cc", "b1.cc", ".cc", "1.cc"}};
  for (const auto &p : parts) {
    EXPECT_STREQ(getfilename(p.path), p.name) << p.path;
    const char *ext = getfileextension(p.path), *index = getfileindex(p.path);
    EXPECT_STREQ(ext ? ext : none, p.ext) << p.path;
    EXPECT_STREQ(index ? index : none, p.index) << p.path;
  }

  // Index into the placeholder, zero-padded to its width; extension and name
  // replacements are format strings ("%%" a percent sign, a conversion refused).
  const struct { const char *before; char what; uint32_t index; const char *with; int result; const char *after; }
  cases[] = {
      {"out/utt???.wav", 'i', 7, "", 0, "out/utt007.wav"}, {"utt??.cc", 'i', 100, "", -1, "utt??.cc"},
      {"utt??.cc", 'i', 99, "", 0, "utt99.cc"},           {"a1?2b", 'i', 34, "", 0, "a034b"},
      {"dir7/plain", 'i', 3, "", -1, "dir7/plain"},       {"u??????????.f0", 'i', 4294967295u, "", 0, "u4294967295.f0"},
      {"out/utt007.wav", 'i', 12, "", 0, "out/utt012.wav"},  // a rewritten name is rewritten again
      {"dir/a.b.c", 'e', 0, ".wav", 0, "dir/a.b.wav"},     {"dir.v2/file", 'e', 0, ".wav", 0, "dir.v2/file.wav"},
      {"a.txt", 'e', 0, ".100%%", 0, "a.100%"},            {"a.txt", 'e', 0, ".%d", -1, "a.txt"},
      {"dir/sub/old.wav", 'n', 0, "new.f0", 0, "dir/sub/new.f0"}, {"d/old", 'n', 0, "%s", -1, "d/old"}};
  for (const auto &c : cases) {
    char buf[64];
    std::strcpy(buf, c.before);
    const int r = c.what == 'i' ? replacefileindex(buf, c.index)
                  : c.what == 'e' ? replacefileextension(buf, c.with) : replacefilename(buf, c.with);
    EXPECT_EQ(r, c.result) << c.before << " " << c.index << c.with;
    EXPECT_STREQ(buf, c.after) << c.before << " " << c.index << c.with;
  }
}

TEST(Lists, StringAndNumericLists) {
  char *list = appendstrtolist(appendstrtolist(createemptystrlist(nullptr), "x"), "y");
  EXPECT_STREQ(list, "{x,y}");
  list = createemptystrlist(list);  // releases the old list
  EXPECT_STREQ(list, "{}");
  EXPECT_EQ(destroystrlist(list) + destroystrlist(nullptr), 0);
  // Whole elements only; a partial hit must not end the search.
  const struct { const char *list; int in; } members[] = {{"{y,x}", 1}, {"{xy,x}", 1}, {"{xy}", 0}, {"{ax,xa}", 0},
                                                          {"{a,bxb,x}", 1}};
  for (const auto &m : members) EXPECT_EQ(isinstrlist(m.list, "x"), m.in) << m.list;

  const struct { const char *list; uint32_t n; } counts[] = {{"{1.5,2;30}", 3}, {"{1.,2}", 0}, {"{-1}", 0}, {"{}", 0},
                                                             {"{1,2", 0},       {"{1,}", 0},   {"{1,2}x", 2}, {"{1 ,2}", 0}};
  for (const auto &c : counts) EXPECT_EQ(getnelemsinnumlist(c.list), c.n) << c.list;
  // Signs and a leading '.' are skipped like any other non-digit; a huge integer part is +inf.
  double v[4];
  EXPECT_EQ(getelemsinnumlist("{1.5,-1.25;+.5,1e999}", 4, v), 0);
  EXPECT_EQ(std::vector<double>(v, v + 3), (std::vector<double>{1.5, 1.25, 5.0}));
  getelemsinnumlist(("{" + std::string(400, '9') + "}").c_str(), 1, v);
  EXPECT_EQ(v[0], HUGE_VAL);
}

}  // namespace
