// make-design's snapshots: the same bytes for the same seed and size, the
// net sizes the connectivity split needs, and the options it refuses.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "tests/support/RunCheck.h"

namespace {

using namespace veltest;

TEST(GeneratedDesign, SameSeedSameBytesAndASkewedConnectivity) {
  TempDir dir, other;
  const std::string bytes = ReadFile(MakeDesign(dir.path(), 3, 6000));
  EXPECT_EQ(bytes, ReadFile(MakeDesign(other.path(), 3, 6000)));
  EXPECT_NE(bytes, ReadFile(MakeDesign(dir.path(), 4, 6000)));

  // The table as a view file: its header and its records.
  const std::size_t table = bytes.find("\nT!CONNECTIVITY!");
  ASSERT_NE(table, std::string::npos);
  const std::string rest = bytes.substr(bytes.find('\n', table + 1) + 1);
  const std::size_t end = rest.find("\nT!");
  const std::vector<std::string> nets =
      FieldValues(rest.substr(0, end == std::string::npos ? end : end + 1), "NET_NAME");
  EXPECT_EQ(nets.size(), 6000u);
  // The largest nets hold most records, the fourth and fifth tie, ties among
  // the smaller nets too; names with a blank and a bracket.
  std::map<std::string, std::size_t> counts;
  for (const std::string& net : nets) ++counts[net];
  std::vector<std::size_t> ranked;
  for (const auto& [net, count] : counts) ranked.push_back(count);
  std::sort(ranked.rbegin(), ranked.rend());
  ASSERT_GE(ranked.size(), 6u);
  EXPECT_GT(ranked[0] * 4, 6000u);
  EXPECT_EQ(ranked[3], ranked[4]);
  EXPECT_GT(ranked[4], ranked[5]);
  for (const char c : {' ', '['})
    EXPECT_TRUE(std::any_of(counts.begin(), counts.end(),
                            [c](const auto& n) { return n.first.find(c) != std::string::npos; }));
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
