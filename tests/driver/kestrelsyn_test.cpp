// kestrelsyn helpers: help text, usage error, inverse HTS scaling.
#include "kestrelsyn.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

std::string captured(int (*print)(const char *), const char *progpath) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(print(progpath), 0);
  return testing::internal::GetCapturedStdout();
}

TEST(Help, ExactText) {
  EXPECT_EQ(captured(plothelp, "/usr/local/bin/kestrelsyn"),
            "\n"
            "  +---------------------------------------------------------------+\n"
            "  |  Kestrel speech vocoder toolkit, released under the MIT       |\n"
            "  |  licence: you may use, copy, modify and distribute it freely, |\n"
            "  |  keeping the copyright notice. It comes with no warranty.     |\n"
            "  |  Contact: Kestrel developers, see README.md                   |\n"
            "  +---------------------------------------------------------------+\n"
            "\n"
            "  === KESTRELSYN16 v0.99 ===\n"
            "\n"
            "  Written by the Kestrel developers.\n"
            "  Harmonic-plus-noise decoder for 16 kHz speech.\n"
            "\n"
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
            "\n");
}

// Both messages name the program without its directory (either separator).
TEST(Help, ProgramNameWithoutDirectory) {
  const std::pair<const char *, std::string> rows[] = {
      {"kestrelsyn", "kestrelsyn"}, {"./build/kestrelsyn", "kestrelsyn"}, {"C:\\tools\\syn.exe", "syn.exe"}};
  for (const auto &c : rows) {
    const std::string usage = "\n   " + c.second + " filef0 filecc filefv fileout [params]\n";
    EXPECT_NE(captured(plothelp, c.first).find(usage), std::string::npos) << c.first;
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
