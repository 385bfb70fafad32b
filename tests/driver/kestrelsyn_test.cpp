// kestrelsyn helpers: help text, usage error, inverse HTS scaling.
#include "kestrelsyn.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::string captured(int (*print)(const char *), const char *progpath) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(print(progpath), 0);
  return testing::internal::GetCapturedStdout();
}

// Both messages name the program without its directory (either separator).
TEST(Help, NamesTheProgramVersionAndOptions) {
  for (const auto &c : std::vector<std::pair<const char *, std::string>>{
           {"kestrelsyn", "kestrelsyn"}, {"./build/kestrelsyn", "kestrelsyn"}, {"C:\\tools\\syn.exe", "syn.exe"}}) {
    const std::string help = captured(plothelp, c.first);
    for (const std::string &line : std::vector<std::string>{
             "  === KESTRELSYN16 v0.99 ===", "   " + c.second + " filef0 filecc filefv fileout [params]",
             "   --lframe=80     Frame shift (samples)", "   --wavnorm=0     Adapt wav amplitude to available range"})
      EXPECT_NE(help.find("\n" + line + "\n"), std::string::npos) << line;
    EXPECT_EQ(captured(argcerror, c.first), "Error: incorrect input arguments.\nType '" + c.second + "' for help.\n");
  }
}

TEST(InvHtsScaling, LowersC0AndHalvesTheRest) {
  // Two frames of order 2; no frames; one frame of order 3 in a larger buffer
  // (its last coefficient included, the next value not).
  struct Row { uint32_t order, nframes; std::vector<double> in, want; } rows[] = {
      {2, 2, {10, 2, 4, 5, -6, 1}, {5, 1, 2, 0, -3, 0.5}}, {1, 0, {1, 2}, {1, 2}}, {3, 1, {0, 8, 8, 8, 8}, {-5, 4, 4, 4, 8}}};
  for (Row &r : rows) {
    EXPECT_EQ(invhtsadapteradhoc(r.in.data(), r.order, r.nframes), 0);
    EXPECT_EQ(r.in, r.want) << "order " << r.order;
  }
}

}  // namespace
