// kestrelsyn helpers: the help text and the usage error name the program
// without its directory (either separator). The inverse HTS scaling is
// checked end to end in tests/cli.
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

TEST(Help, NamesTheProgramVersionAndOptions) {
  for (const auto &c : {std::make_pair("./build/kestrelsyn", "kestrelsyn"), {"C:\\tools\\syn.exe", "syn.exe"}}) {
    const std::string help = captured(plothelp, c.first), name = c.second;
    for (const std::string &line : std::vector<std::string>{"  === KESTRELSYN16 v0.99 ===", "   " + name + " filef0 filecc filefv fileout [params]",
                                    "   --wavnorm=0     Adapt wav amplitude to available range"})
      EXPECT_NE(help.find("\n" + line + "\n"), std::string::npos) << line;
    EXPECT_EQ(captured(argcerror, c.first), "Error: incorrect input arguments.\nType '" + name + "' for help.\n");
  }
}

}  // namespace
