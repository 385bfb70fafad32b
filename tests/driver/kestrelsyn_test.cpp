// kestrelsyn helpers: help text, usage error, inverse HTS scaling.
#include "kestrelsyn.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

std::vector<std::string> lines(const std::string &text) {
  std::vector<std::string> out;
  std::string line;
  std::istringstream in(text);
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

const char *const kHelpTail =
    "  Usage:\n"
    "   kestrelsyn filef0 filecc filefv fileout [params]\n"
    "\n"
    "  Arguments:\n"
    "   filef0:  input file for logf0\n"
    "   filecc:  input file for cepstral coeffs.\n"
    "   filefv:  input file for max. voiced freq.\n"
    "   fileout: output wav file (mono 16kHz 16bits)\n"
    "\n"
    "  Optional parameters and default values:\n"
    "   --lframe=80     Frame shift (samples)\n"
    "   --fpitch=1.0    Pitch modification factor [0.25...4]\n"
    "   --fvpitch=1.0   Log-pitch variance modification factor [0...4]\n"
    "   --fdur=1.0      Duration modification factor [0.25...4]\n"
    "   --fwarp=0.0     All-pass factor for vocal tract modification [-1...1]\n"
    "   --floud=0.0     Factor for perceptual loudness [-4...4]\n"
    "   --fpfilt=0.0    Postfiltering factor [0...1]\n"
    "   --wavnorm=0     Adapt wav amplitude to available range\n"
    "\n"
    "\n";

TEST(Help, LayoutAndExactOptionTable) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(plothelp("/usr/local/bin/kestrelsyn"), 0);
  const std::string out = testing::internal::GetCapturedStdout();

  const std::string tail = kHelpTail;
  ASSERT_GE(out.size(), tail.size());
  EXPECT_EQ(out.substr(out.size() - tail.size()), tail);

  // Head: empty line, box with the contact line inside, empty line, title,
  // empty line, two credit lines, empty line.
  const std::vector<std::string> head = lines(out.substr(0, out.size() - tail.size()));
  ASSERT_GE(head.size(), 9u);
  EXPECT_EQ(head[0], "");
  size_t k = 1;
  const std::string top = head[k];
  ASSERT_FALSE(top.empty());
  size_t bottom = k + 1;
  while (bottom < head.size() && head[bottom] != top) ++bottom;
  ASSERT_LT(bottom, head.size()) << "box not closed";
  bool contact = false;
  bool licence = false;
  for (size_t i = k + 1; i < bottom; ++i) {
    EXPECT_EQ(head[i].size(), top.size()) << "ragged box line: " << head[i];
    EXPECT_EQ(head[i].back(), '|');
    contact = contact || head[i].find("Contact: Kestrel developers, see README.md") != std::string::npos;
    licence = licence || head[i].find("MIT") != std::string::npos;
  }
  EXPECT_TRUE(contact);
  EXPECT_TRUE(licence);
  ASSERT_EQ(head.size(), bottom + 7);
  EXPECT_EQ(head[bottom + 1], "");
  EXPECT_EQ(head[bottom + 2], "  === KESTRELSYN16 v0.99 ===");
  EXPECT_EQ(head[bottom + 3], "");
  EXPECT_FALSE(head[bottom + 4].empty());
  EXPECT_FALSE(head[bottom + 5].empty());
  EXPECT_EQ(head[bottom + 6], "");
}

TEST(Help, ProgramNameWithoutDirectory) {
  const struct {
    const char *path;
    const char *shown;
  } cases[] = {{"kestrelsyn", "kestrelsyn"}, {"./build/kestrelsyn", "kestrelsyn"}, {"C:\\tools\\syn.exe", "syn.exe"}};
  for (const auto &c : cases) {
    testing::internal::CaptureStdout();
    plothelp(c.path);
    const std::string help = testing::internal::GetCapturedStdout();
    EXPECT_NE(help.find(std::string("\n   ") + c.shown + " filef0 filecc filefv fileout [params]\n"),
              std::string::npos)
        << c.path;

    testing::internal::CaptureStdout();
    EXPECT_EQ(argcerror(c.path), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              std::string("Error: incorrect input arguments.\nType '") + c.shown + "' for help.\n");
  }
}

TEST(InvHtsScaling, LowersC0AndHalvesTheRest) {
  // Two frames of order 2, then order 0 (c0 only), then no frames.
  double cc[6] = {10.0, 2.0, 4.0, 5.0, -6.0, 1.0};
  EXPECT_EQ(invhtsadapteradhoc(cc, 2, 2), 0);
  const double want[6] = {5.0, 1.0, 2.0, 0.0, -3.0, 0.5};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(cc[i], want[i]) << i;

  double c0only[3] = {1.0, 2.0, 3.0};
  invhtsadapteradhoc(c0only, 0, 3);
  EXPECT_EQ(c0only[0], -4.0);
  EXPECT_EQ(c0only[1], -3.0);
  EXPECT_EQ(c0only[2], -2.0);

  double untouched[2] = {1.0, 2.0};
  invhtsadapteradhoc(untouched, 1, 0);
  EXPECT_EQ(untouched[0], 1.0);
  EXPECT_EQ(untouched[1], 2.0);

  // One frame of order 3 inside a larger buffer: the last coefficient is
  // included, the value after the frame is not.
  double guard[5] = {0.0, 8.0, 8.0, 8.0, 8.0};
  invhtsadapteradhoc(guard, 3, 1);
  EXPECT_EQ(guard[3], 4.0);
  EXPECT_EQ(guard[4], 8.0);
}

}  // namespace
