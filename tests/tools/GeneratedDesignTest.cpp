// make-design's snapshots: the same bytes for the same seed and size, and the
// options it refuses.

#include <gtest/gtest.h>

#include "tests/support/RunCheck.h"

namespace {

using namespace veltest;

TEST(GeneratedDesign, SameSeedSameBytes) {
  TempDir dir, other;
  const std::string bytes = ReadFile(MakeDesign(dir.path(), 3, 6000));
  EXPECT_EQ(bytes, ReadFile(MakeDesign(other.path(), 3, 6000)));
  EXPECT_NE(bytes, ReadFile(MakeDesign(dir.path(), 4, 6000)));
}

TEST(GeneratedDesign, RefusesBadOptions) {
  TempDir dir;
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--nets", "3"},
                                              {"--layers", "1"},
                                              {"--seed", "x"},
                                              {"--bogus", "1"},
                                              {"--name", "a!b"}}) {
    std::vector<std::string> argv = {BinPath("make-design"), "-o", dir / "bad.mcm"};
    argv.insert(argv.end(), bad.begin(), bad.end());
    const RunResult result = RunProgram(argv);
    EXPECT_EQ(result.exitCode, 2) << bad[0];
    EXPECT_NE(result.err.find("usage: make-design"), std::string::npos);
  }
  EXPECT_FALSE(PathExists(dir / "bad.mcm"));
}

}  // namespace
