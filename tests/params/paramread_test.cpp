// paramread: option reading, index lists, indexed file names, small lists.
#include "paramread.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(ParamRead, MarksNamesAndValues) {
  for (const char *p : {"--a=1", "--"}) EXPECT_EQ(isparam(p), 1) << p;
  for (const char *p : {"-a=1", "-", ""}) EXPECT_EQ(isparam(p), 0) << p;
  char elem[] = "--fdur=2";
  EXPECT_EQ(paramalreadyread(elem) + markparamasread(elem), 0);
  EXPECT_TRUE(std::strcmp(elem, " -fdur=2") == 0 && paramalreadyread(elem) == 1);
  EXPECT_EQ(paramnamematch(elem, "fdur"), nullptr);  // never matched again
  // Case-insensitive whole names; the value starts after the first '='.
  const struct { const char *elem, *name; bool match; } cases[] = {
      {"--LFrame=100", "lframe", true}, {"--lframe=100", "LFRAME", true}, {"--a=b=c", "a", true}, {"--f_0=2", "F_0", true},
      {"--lframe=", "lframe", false}, {"--=5", "", false}, {"--lframe", "lframe", false}, {"--lfram=100", "lframe", false},
      {"--lframes=100", "lframe", false}, {"--a[=1", "a{", false}, {"--a@=1", "a`", false}};  // '[' '{' '@' '`' no letters
  for (const auto &c : cases) {
    std::string buf = c.elem;
    EXPECT_EQ(paramnamematch(&buf[0], c.name), c.match ? &buf[0] + buf.find('=') + 1 : nullptr) << c.elem << c.name;
  }
  // Conversions like scanf's: (element, result, value; 9 when untouched); only an accepted one is marked read.
  const struct { const char *elem; int result; double value; } conv[] = {
      {"--n=80abc", 0, 80}, {"--n=-80", 0, -80}, {"--n=0x10", 0, 0}, {"--N=3", 0, 3}, {"--n=x", -1, 9}, {"--n=", -1, 9},
      {"--x=-.5e1x", 0, -5.0}, {"--x=INF", 0, HUGE_VAL}, {"--x=0x1p2", 0, 4.0}, {"--x=nan", 0, NAN}, {"--x=abc", -1, 9}};
  for (const auto &c : conv) {
    std::string buf = c.elem;
    int32_t i = 9;
    double d = 9;
    const int r = buf[2] == 'x' ? getdoubleparam(&buf[0], "x", &d) : getintparam(&buf[0], "n", &i);
    const double v = buf[2] == 'x' ? d : i;
    EXPECT_TRUE(r == c.result && (v == c.value || (std::isnan(v) && std::isnan(c.value)))) << c.elem << " gave " << v;
    EXPECT_EQ(paramalreadyread(buf.c_str()), r == 0) << c.elem;
  }
}

TEST(ParamRead, SearchesAndUnreadElements) {
  std::vector<std::string> store = {"--fpitch=2", "--fpitch=3", "--fpitch=x", "--n=zz", "--n=5", "--lframe=40",
                                    "--indlist=1-3"};
  std::vector<char *> a;
  for (auto &s : store) a.push_back(&s[0]);
  double d = 0;
  int32_t i = 0;
  // The first occurrence wins and only it is marked; a bad value does not hide a later good one.
  EXPECT_TRUE(searchdoubleparam(7, a.data(), "fpitch", &d) == 0 && d == 2.0);
  EXPECT_TRUE(searchdoubleparam(7, a.data(), "fpitch", &d) == 0 && d == 3.0);
  EXPECT_TRUE(searchdoubleparam(7, a.data(), "fpitch", &d) == -1 && d == 3.0);
  EXPECT_TRUE(searchintparam(7, a.data(), "n", &i) == 0 && i == 5);
  EXPECT_TRUE(searchintparam(7, a.data(), "LFRAME", &i) == 0 && i == 40);
  EXPECT_EQ(searchstringparam(7, a.data(), "indlist"), a[6] + 10);  // inside, not a copy
  EXPECT_EQ(searchstringparam(7, a.data(), "indlist"), nullptr);
  EXPECT_EQ(unreadparams(7, a.data()), 1);  // the malformed ones stay unread
  EXPECT_EQ(unreadparams(0, nullptr), 0);
}

TEST(IndexList, DiagnosisIterationExpansionAndWidths) {
  for (const char *l : {"0", "1-3,7,9-10", "1-3(2)x", "1-99(2)", "1-3-5", "0-4294967295", "1-999(0)", "2(1)"})
    EXPECT_EQ(strnumdiagnose(l), 0) << l;
  for (const char *l : {"", "1,,2", "1-", "-1", "1(2", "1()", "5-1", "1-5,5", "1-100(2)", "10(1)", "1 ", "(2)",
                        "4294967296", "1(4294967296)", "1-3,", static_cast<const char *>(nullptr)})
    EXPECT_EQ(strnumdiagnose(l), -1) << (l ? l : "null");
  // Iterated the way the commands walk a list (no wrap at 2^32-1) and expanded alike.
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
  // 2^32 numbers do not fit a 32-bit count: refused, array untouched.
  uint32_t sentinel = 0, *b = &sentinel;
  EXPECT_TRUE(strnum2numarray("0-4294967294,4294967295", &b) == 0u && b == &sentinel);
  struct W { const char *list; uint32_t width; };
  for (const W &w : {W{"1(2)", 2}, W{"(2)", 0}, W{"1-3", 0}, W{"1-3(12)", 12}, W{"1(2)(3)", 3}, W{"1(x)", 0}})
    EXPECT_EQ(strnumdigits(w.list), w.width) << w.list;
  for (const W &w : {W{"1-100(2)", 3}, W{"7(3)", 1}, W{"0", 1}, W{"1-99999999999", 11}, W{"3-007", 1}, W{"10,20", 2}})
    EXPECT_EQ(strnumdefaultdigits(w.list), w.width) << w.list;
  // 1410065408 is 10^10 mod 2^32: a power of ten that wrapped would count it as 11 digits.
  for (const auto &d : std::vector<std::pair<uint32_t, uint32_t>>{{9, 1}, {10, 2}, {99, 2}, {100, 3}, {9999, 4},
       {10000, 5}, {999999999, 9}, {1000000000, 10}, {1410065408, 10}, {4294967295u, 10}})
    EXPECT_EQ(getdigits(d.first), d.second) << d.first;
}

TEST(FileNames, PartsAndReplacements) {
  // Name after the last '/' or '\\', extension from its last '.', index at its first '?' or digit.
  const char *none = "(none)";
  const struct { const char *path, *name, *ext, *index; } parts[] = {
      {"d\\x.f0", "x.f0", ".f0", "0"}, {"a\\b/c", "c", none, none}, {"dir.v2/file", "file", none, none},
      {"a.b.c", "a.b.c", ".c", none}, {".bashrc", ".bashrc", ".bashrc", none}, {"", "", none, none},
      {"out9/utt???.wav", "utt???.wav", ".wav", "???.wav"}, {"a9/b1.cc", "b1.cc", ".cc", "1.cc"}};
  for (const auto &p : parts) {
    const char *ext = getfileextension(p.path), *index = getfileindex(p.path);
    EXPECT_STREQ(getfilename(p.path), p.name) << p.path;
    EXPECT_STREQ(ext ? ext : none, p.ext) << p.path;
    EXPECT_STREQ(index ? index : none, p.index) << p.path;
  }
  // Index into the placeholder, zero-padded to its width; extension and name
  // replacements are format strings ("%%" a percent sign, a conversion refused).
  const struct { const char *before; char what; uint32_t index; const char *with; int result; const char *after; }
  cases[] = {
      {"out/utt???.wav", 'i', 7, "", 0, "out/utt007.wav"}, {"utt??.cc", 'i', 100, "", -1, "utt??.cc"},
      {"utt??.cc", 'i', 99, "", 0, "utt99.cc"}, {"a1?2b", 'i', 34, "", 0, "a034b"}, {"dir7/plain", 'i', 3, "", -1, "dir7/plain"},
      {"u??????????.f0", 'i', 4294967295u, "", 0, "u4294967295.f0"},
      {"out/utt007.wav", 'i', 12, "", 0, "out/utt012.wav"},  // a rewritten name is rewritten again
      {"dir/a.b.c", 'e', 0, ".wav", 0, "dir/a.b.wav"}, {"dir.v2/file", 'e', 0, ".wav", 0, "dir.v2/file.wav"},
      {"a.txt", 'e', 0, ".100%%", 0, "a.100%"}, {"a.txt", 'e', 0, ".%d", -1, "a.txt"},
      {"dir/sub/old.wav", 'n', 0, "new.f0", 0, "dir/sub/new.f0"}, {"d/old", 'n', 0, "%s", -1, "d/old"}};
  for (const auto &c : cases) {
    char buf[64];
    std::strcpy(buf, c.before);
    const int r = c.what == 'i' ? replacefileindex(buf, c.index)
                  : c.what == 'e' ? replacefileextension(buf, c.with) : replacefilename(buf, c.with);
    EXPECT_TRUE(r == c.result && std::strcmp(buf, c.after) == 0) << c.before << " " << c.index << c.with << ": " << buf;
  }
}

TEST(Lists, StringAndNumericLists) {
  char *list = appendstrtolist(appendstrtolist(createemptystrlist(nullptr), "x"), "y");
  EXPECT_STREQ(list, "{x,y}");
  list = createemptystrlist(list);  // releases the old list
  EXPECT_TRUE(std::strcmp(list, "{}") == 0 && destroystrlist(list) + destroystrlist(nullptr) == 0);
  // Whole elements only; a partial hit must not end the search.
  for (const auto &m : std::vector<std::pair<const char *, int>>{{"{y,x}", 1}, {"{xy,x}", 1}, {"{xy}", 0},
                                                                 {"{ax,xa}", 0}, {"{a,bxb,x}", 1}})
    EXPECT_EQ(isinstrlist(m.first, "x"), m.second) << m.first;
  for (const auto &c : std::vector<std::pair<const char *, uint32_t>>{{"{1.5,2;30}", 3}, {"{1.,2}", 0}, {"{-1}", 0},
       {"{}", 0}, {"{1,2", 0}, {"{1,}", 0}, {"{1,2}x", 2}, {"{1 ,2}", 0}})
    EXPECT_EQ(getnelemsinnumlist(c.first), c.second) << c.first;
  // Signs and a leading '.' are skipped like any other non-digit; a huge integer part is +inf.
  double v[4];
  EXPECT_EQ(getelemsinnumlist("{1.5,-1.25;+.5,1e999}", 4, v), 0);
  EXPECT_EQ(std::vector<double>(v, v + 3), (std::vector<double>{1.5, 1.25, 5.0}));
  getelemsinnumlist(("{" + std::string(400, '9') + "}").c_str(), 1, v);
  EXPECT_EQ(v[0], HUGE_VAL);
}

}  // namespace
