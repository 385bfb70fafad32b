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
  explicit Args(std::vector<std::string> elems) : store(std::move(elems)) {
    for (auto &s : store) ptrs.push_back(&s[0]);
  }
  uint32_t n() const { return static_cast<uint32_t>(ptrs.size()); }
  char **list() { return ptrs.data(); }
  std::vector<std::string> store;
  std::vector<char *> ptrs;
};

// Expands an index list the way the decoder iterates it.
std::vector<uint32_t> iterate(const char *list) {
  std::vector<uint32_t> out;
  for (const char *pos = list; pos; pos = strnumnextinterv(pos)) {
    const uint32_t start = strnumintervstart(pos);
    const uint32_t end = strnumintervend(pos, start);
    for (uint32_t i = start; i <= end; ++i) {
      out.push_back(i);
      if (i == end) break;
    }
  }
  return out;
}

TEST(ParamRead, IsParamAndMarks) {
  EXPECT_EQ(isparam("--a=1"), 1);
  EXPECT_EQ(isparam("--"), 1);
  EXPECT_EQ(isparam("-a=1"), 0);
  EXPECT_EQ(isparam(" -a=1"), 0);
  EXPECT_EQ(isparam("-"), 0);
  EXPECT_EQ(isparam(""), 0);

  char elem[] = "--fdur=2";
  EXPECT_EQ(paramalreadyread(elem), 0);
  EXPECT_EQ(markparamasread(elem), 0);
  EXPECT_STREQ(elem, " -fdur=2");
  EXPECT_EQ(paramalreadyread(elem), 1);
  EXPECT_EQ(isparam(elem), 0);
  EXPECT_EQ(paramnamematch(elem, "fdur"), nullptr);  // never matched again
}

TEST(ParamRead, NameMatching) {
  struct Case {
    const char *elem;
    const char *name;
    const char *value;  // nullptr: no match
  };
  const Case cases[] = {
      {"--lframe=100", "lframe", "100"},
      {"--LFrame=100", "lframe", "100"},
      {"--lframe=100", "LFRAME", "100"},
      {"--LfRaMe=1", "lFrAmE", "1"},
      {"--lframe=", "lframe", nullptr},     // empty value
      {"--=5", "", nullptr},                // empty name
      {"--lframe", "lframe", nullptr},      // no '='
      {"--lfram=100", "lframe", nullptr},   // prefix of the name
      {"--lframes=100", "lframe", nullptr}, // name is a prefix
      {"-lframe=100", "lframe", nullptr},
      {"--a=b=c", "a", "b=c"},              // the first '=' ends the name
      {"--a[=1", "a{", nullptr},            // '[' and '{' are not letters
      {"--a@=1", "a`", nullptr},
      {"--f_0=2", "F_0", "2"},
  };
  for (const Case &c : cases) {
    std::string buf = c.elem;
    char *v = paramnamematch(&buf[0], c.name);
    if (c.value == nullptr) {
      EXPECT_EQ(v, nullptr) << c.elem << " / " << c.name;
    } else {
      ASSERT_NE(v, nullptr) << c.elem << " / " << c.name;
      EXPECT_STREQ(v, c.value);
      EXPECT_GE(v, &buf[0]);  // points inside the element
      EXPECT_LT(v, &buf[0] + buf.size());
    }
  }
}

TEST(ParamRead, IntConversionLikeScanfD) {
  struct Case {
    const char *elem;
    int result;
    int32_t value;
  };
  const Case cases[] = {
      {"--n=80abc", 0, 80}, {"--n=-80", 0, -80}, {"--n= 12", 0, 12},  {"--n=+7", 0, 7},
      {"--n=0x10", 0, 0},   {"--n=0x", 0, 0},    {"--n=1.9", 0, 1},   {"--n=x", -1, 555},
      {"--n=.5", -1, 555},  {"--n=inf", -1, 555}, {"--N=3", 0, 3},    {"--n=", -1, 555},
  };
  for (const Case &c : cases) {
    std::string buf = c.elem;
    int32_t v = 555;
    EXPECT_EQ(getintparam(&buf[0], "n", &v), c.result) << c.elem;
    EXPECT_EQ(v, c.value) << c.elem;
    EXPECT_EQ(paramalreadyread(buf.c_str()), c.result == 0 ? 1 : 0) << c.elem;
  }
}

TEST(ParamRead, DoubleConversionLikeScanfLf) {
  struct Case {
    const char *elem;
    int result;
    double value;
  };
  const double inf = HUGE_VAL;
  const Case cases[] = {
      {"--x=1.5x", 0, 1.5},   {"--x=.5", 0, 0.5},      {"--x=-.5e1x", 0, -5.0}, {"--x=1e", 0, 1.0},
      {"--x=inf", 0, inf},    {"--x=INF", 0, inf},     {"--x=infinity", 0, inf}, {"--x=-inf", 0, -inf},
      {"--x=0x1p2", 0, 4.0},  {"--x=0x10", 0, 16.0},   {"--x=1e400", 0, inf},   {"--x=80abc", 0, 80.0},
      {"--x=0x", -1, 7.0},    {"--x=infi", -1, 7.0},   {"--x=in", -1, 7.0},     {"--x=abc", -1, 7.0},
  };
  for (const Case &c : cases) {
    std::string buf = c.elem;
    double v = 7.0;
    EXPECT_EQ(getdoubleparam(&buf[0], "x", &v), c.result) << c.elem;
    EXPECT_EQ(v, c.value) << c.elem;
    EXPECT_EQ(paramalreadyread(buf.c_str()), c.result == 0 ? 1 : 0) << c.elem;
  }
  std::string nanelem = "--x=nan";
  double v = 7.0;
  EXPECT_EQ(getdoubleparam(&nanelem[0], "x", &v), 0);
  EXPECT_TRUE(std::isnan(v));
}

TEST(ParamRead, SearchesAndUnreadElements) {
  {
    Args a({"--fpitch=2", "--fpitch=3"});
    double v = 0.0;
    EXPECT_EQ(searchdoubleparam(a.n(), a.list(), "fpitch", &v), 0);
    EXPECT_EQ(v, 2.0);  // the first occurrence wins
    EXPECT_STREQ(a.list()[0], " -fpitch=2");
    EXPECT_STREQ(a.list()[1], "--fpitch=3");
    EXPECT_EQ(unreadparams(a.n(), a.list()), 1);
    // A second search finds the remaining element.
    EXPECT_EQ(searchdoubleparam(a.n(), a.list(), "fpitch", &v), 0);
    EXPECT_EQ(v, 3.0);
    EXPECT_EQ(unreadparams(a.n(), a.list()), 0);
  }
  {
    Args a({"--fpitch=x", "--lframe=40"});
    double v = 9.0;
    EXPECT_EQ(searchdoubleparam(a.n(), a.list(), "fpitch", &v), -1);
    EXPECT_EQ(v, 9.0);  // untouched on failure
    int32_t lf = 0;
    EXPECT_EQ(searchintparam(a.n(), a.list(), "LFRAME", &lf), 0);
    EXPECT_EQ(lf, 40);
    EXPECT_EQ(unreadparams(a.n(), a.list()), 1);  // the malformed one stays
  }
  {
    // A bad value earlier in the list does not hide a good one later.
    Args a({"--n=zz", "--n=5"});
    int32_t v = 0;
    EXPECT_EQ(searchintparam(a.n(), a.list(), "n", &v), 0);
    EXPECT_EQ(v, 5);
    EXPECT_STREQ(a.list()[0], "--n=zz");
  }
  {
    Args a({"--x=1", "--indlist=1-3"});
    char *text = searchstringparam(a.n(), a.list(), "indlist");
    ASSERT_NE(text, nullptr);
    EXPECT_STREQ(text, "1-3");
    EXPECT_EQ(text, a.list()[1] + 10);  // inside the element, not a copy
    EXPECT_EQ(searchstringparam(a.n(), a.list(), "indlist"), nullptr);
    EXPECT_EQ(unreadparams(a.n(), a.list()), 1);
  }
  EXPECT_EQ(unreadparams(0, nullptr), 0);
  int32_t v = 3;
  EXPECT_EQ(searchintparam(0, nullptr, "n", &v), -1);
  EXPECT_EQ(v, 3);
}

TEST(IndexList, Diagnosis) {
  const char *accepted[] = {"7",        "0",          "1-3,7,9-10",  "1-5,7-9", "1-3(2)x",
                            "1-99(2)",  "1-3-5",      "4294967295",  "0-4294967295",
                            "1-999(0)", "10,20(2)",   "2(1)"};
  for (const char *l : accepted) EXPECT_EQ(strnumdiagnose(l), 0) << l;
  const char *rejected[] = {"",        "1,,2",  "1-",          "-1",          "1,a",        "1(2",
                            "1()",     "5-1",   "1-5,5",       "3,2",         "0,0",        "1-100(2)",
                            "10(1)",   "1 ",    "a",           "1(a)",        "1,-2",       "(2)",
                            "4294967296", "1-99999999999", "1(4294967296)", "1-3(2",   "1-3,"};
  for (const char *l : rejected) EXPECT_EQ(strnumdiagnose(l), -1) << l;
  EXPECT_EQ(strnumdiagnose(nullptr), -1);
}

TEST(IndexList, Iteration) {
  struct Case {
    const char *list;
    std::vector<uint32_t> expected;
  };
  const Case cases[] = {
      {"7", {7}},
      {"0", {0}},
      {"1-3,7,9-10", {1, 2, 3, 7, 9, 10}},
      {"1-3-5", {1, 2, 3}},
      {"2-4(3)", {2, 3, 4}},
      {"8(3)", {8}},
      {"4294967294-4294967295", {4294967294u, 4294967295u}},
  };
  for (const Case &c : cases) EXPECT_EQ(iterate(c.list), c.expected) << c.list;
  EXPECT_EQ(strnumintervend("12,5", 12), 12u);
  EXPECT_EQ(strnumintervend("12(3)", 12), 12u);
  EXPECT_EQ(strnumintervend("12-15,20", 12), 15u);
  EXPECT_STREQ(strnumnextinterv("1-3,7"), "7");
  EXPECT_EQ(strnumnextinterv("1-3(2),7"), nullptr);
  EXPECT_EQ(strnumnextinterv("7"), nullptr);
}

TEST(IndexList, ExpandToArray) {
  uint32_t *a = nullptr;
  ASSERT_EQ(strnum2numarray("1-3,7,9-10", &a), 6u);
  const uint32_t expected[] = {1, 2, 3, 7, 9, 10};
  for (int k = 0; k < 6; ++k) EXPECT_EQ(a[k], expected[k]);
  std::free(a);

  a = nullptr;
  ASSERT_EQ(strnum2numarray("4294967295", &a), 1u);
  EXPECT_EQ(a[0], 4294967295u);
  std::free(a);

  // 2^32 numbers do not fit a 32-bit count: refused, array untouched.
  uint32_t sentinel = 0;
  uint32_t *b = &sentinel;
  EXPECT_EQ(strnum2numarray("0-4294967295", &b), 0u);
  EXPECT_EQ(b, &sentinel);
  EXPECT_EQ(strnum2numarray("0-4294967294,4294967295", &b), 0u);
  EXPECT_EQ(b, &sentinel);
}

TEST(IndexList, WidthsAndDigits) {
  struct W {
    const char *list;
    uint32_t width;
  };
  const W widths[] = {{"1-99(2)", 2}, {"1(2)", 2}, {"(2)", 0},   {"1-3", 0},     {"1-3(12)", 12},
                      {"1(2)(3)", 3}, {"1(x)", 0}, {"123)", 0},  {"1-3(2)x", 0}, {"9(0)", 0}};
  for (const W &w : widths) EXPECT_EQ(strnumdigits(w.list), w.width) << w.list;

  const W defaults[] = {{"1-100(2)", 3},     {"1-5", 1},       {"1-1000", 4},  {"7(3)", 1}, {"0", 1},
                        {"1-4294967295", 10}, {"1-99999999999", 11}, {"3-007", 1}, {"10,20", 2}};
  for (const W &w : defaults) EXPECT_EQ(strnumdefaultdigits(w.list), w.width) << w.list;

  struct D {
    uint32_t v;
    uint32_t digits;
  };
  // 1410065408 is 10^10 mod 2^32: a power of ten that wrapped would count it
  // as an 11-digit number.
  const D digits[] = {{0, 1},          {9, 1},           {10, 2},          {99, 2},         {100, 3},
                      {999, 3},        {1000, 4},        {9999, 4},        {10000, 5},      {99999, 5},
                      {999999999, 9},  {1000000000, 10}, {1410065408, 10}, {1410065409, 10},
                      {4294967295u, 10}};
  for (const D &d : digits) EXPECT_EQ(getdigits(d.v), d.digits) << d.v;
}

TEST(FileNames, Parts) {
  EXPECT_STREQ(getfilename("a/b/c.wav"), "c.wav");
  EXPECT_STREQ(getfilename("c.wav"), "c.wav");
  EXPECT_STREQ(getfilename("d\\x.f0"), "x.f0");
  EXPECT_STREQ(getfilename("a\\b/c"), "c");
  EXPECT_STREQ(getfilename("dir/"), "");

  struct E {
    const char *path;
    const char *ext;
  };
  const E exts[] = {{"dir.v2/file", nullptr}, {"a.b.c", ".c"},    {".bashrc", ".bashrc"}, {"d/.hidden", ".hidden"},
                    {"noext", nullptr},       {"x.", "."},        {"a\\b.c\\d", nullptr}, {"", nullptr}};
  for (const E &e : exts) {
    const char *got = getfileextension(e.path);
    if (e.ext == nullptr) {
      EXPECT_EQ(got, nullptr) << e.path;
    } else {
      ASSERT_NE(got, nullptr) << e.path;
      EXPECT_STREQ(got, e.ext);
    }
  }

  const char *p = "out9/utt???.wav";
  EXPECT_EQ(getfileindex(p), p + 8);
  EXPECT_STREQ(getfileindex("a9/b1.cc"), "1.cc");
  EXPECT_EQ(getfileindex("a9/bc"), nullptr);
  EXPECT_STREQ(getfileindex("7x"), "7x");
}

TEST(FileNames, ReplaceIndex) {
  struct Case {
    const char *before;
    uint32_t index;
    int result;
    const char *after;
  };
  const Case cases[] = {
      {"out/utt???.wav", 7, 0, "out/utt007.wav"},
      {"a9/b1.cc", 5, 0, "a9/b5.cc"},
      {"utt??.cc", 100, -1, "utt??.cc"},
      {"utt??.cc", 5, 0, "utt05.cc"},
      {"utt??.cc", 99, 0, "utt99.cc"},
      {"x?", 0, 0, "x0"},
      {"a1?2b", 34, 0, "a034b"},
      {"plain.cc", 3, -1, "plain.cc"},
      {"dir7/plain", 3, -1, "dir7/plain"},
      {"u??????????.f0", 4294967295u, 0, "u4294967295.f0"},
      {"u?????????.f0", 4294967295u, -1, "u?????????.f0"},
      {"u????????????.f0", 42, 0, "u000000000042.f0"},
  };
  for (const Case &c : cases) {
    std::string buf = c.before;
    EXPECT_EQ(replacefileindex(&buf[0], c.index), c.result) << c.before << " " << c.index;
    EXPECT_STREQ(buf.c_str(), c.after) << c.before << " " << c.index;
  }
  // The rewritten name is rewritten again for the next index.
  std::string name = "out/utt???.wav";
  ASSERT_EQ(replacefileindex(&name[0], 7), 0);
  ASSERT_EQ(replacefileindex(&name[0], 12), 0);
  EXPECT_EQ(name, "out/utt012.wav");
  EXPECT_EQ(replacefileindex(&name[0], 1000), -1);
  EXPECT_EQ(name, "out/utt012.wav");
}

TEST(FileNames, ReplaceExtensionAndName) {
  char buf[64];
  std::strcpy(buf, "dir/a.b.c");
  EXPECT_EQ(replacefileextension(buf, ".wav"), 0);
  EXPECT_STREQ(buf, "dir/a.b.wav");
  std::strcpy(buf, "dir.v2/file");
  EXPECT_EQ(replacefileextension(buf, ".wav"), 0);
  EXPECT_STREQ(buf, "dir.v2/file.wav");
  std::strcpy(buf, "a.txt");
  EXPECT_EQ(replacefileextension(buf, ".100%%"), 0);
  EXPECT_STREQ(buf, "a.100%");
  std::strcpy(buf, "a.txt");
  EXPECT_EQ(replacefileextension(buf, ".%d"), -1);  // would need an argument
  EXPECT_STREQ(buf, "a.txt");

  std::strcpy(buf, "dir/sub/old.wav");
  EXPECT_EQ(replacefilename(buf, "new.f0"), 0);
  EXPECT_STREQ(buf, "dir/sub/new.f0");
  std::strcpy(buf, "old");
  EXPECT_EQ(replacefilename(buf, "brand-new"), 0);
  EXPECT_STREQ(buf, "brand-new");
  std::strcpy(buf, "d/old");
  EXPECT_EQ(replacefilename(buf, "%s"), -1);
  EXPECT_STREQ(buf, "d/old");
}

TEST(StringList, AppendAndMembership) {
  char *list = createemptystrlist(nullptr);
  ASSERT_NE(list, nullptr);
  EXPECT_STREQ(list, "{}");
  list = appendstrtolist(list, "x");
  EXPECT_STREQ(list, "{x}");
  list = appendstrtolist(list, "y");
  EXPECT_STREQ(list, "{x,y}");
  EXPECT_EQ(isinstrlist(list, "x"), 1);
  EXPECT_EQ(isinstrlist(list, "y"), 1);
  EXPECT_EQ(isinstrlist(list, "z"), 0);
  list = createemptystrlist(list);  // releases the old list
  EXPECT_STREQ(list, "{}");
  EXPECT_EQ(destroystrlist(list), 0);
  EXPECT_EQ(destroystrlist(nullptr), 0);

  char *fresh = appendstrtolist(nullptr, "abc");
  EXPECT_STREQ(fresh, "{abc}");
  destroystrlist(fresh);

  EXPECT_EQ(isinstrlist("{xy,x}", "x"), 1);  // a partial hit must not end the search
  EXPECT_EQ(isinstrlist("{xy}", "x"), 0);
  EXPECT_EQ(isinstrlist("{ax,xa}", "x"), 0);
  EXPECT_EQ(isinstrlist("{a,bxb,x}", "x"), 1);
  EXPECT_EQ(isinstrlist("{}", "x"), 0);
}

TEST(NumericList, CountAndValues) {
  struct Case {
    const char *list;
    uint32_t n;
  };
  const Case cases[] = {{"{1.5,2;30}", 3}, {"{1.,2}", 0}, {"{-1}", 0}, {"{}", 0},     {"1,2", 0},
                        {"{1,2", 0},        {"{1,}", 0},   {"{7}", 1},  {"{0.25;3}", 2}, {"{1,2}x", 2},
                        {"{.5}", 0},        {"{1..2}", 0}, {"{1 ,2}", 0}};
  for (const Case &c : cases) EXPECT_EQ(getnelemsinnumlist(c.list), c.n) << c.list;
  EXPECT_EQ(getnelemsinnumlist(nullptr), 0u);

  double v[3] = {0, 0, 0};
  EXPECT_EQ(getelemsinnumlist("{1.5,2;30}", 3, v), 0);
  EXPECT_EQ(v[0], 1.5);
  EXPECT_EQ(v[1], 2.0);
  EXPECT_EQ(v[2], 30.0);
  // Signs and a leading '.' are skipped like any other non-digit.
  double w[2] = {0, 0};
  getelemsinnumlist("{-1.25,+.5}", 2, w);
  EXPECT_EQ(w[0], 1.25);
  EXPECT_EQ(w[1], 5.0);
}

}  // namespace
