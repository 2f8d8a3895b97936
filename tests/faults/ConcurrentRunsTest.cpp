// The fault matrix, runs started together: batch scripts and simulation tools
// start several runs at once, often in one folder, so their working
// directories compete for the same run number.

#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

// An archive's entries by file name (the entry names carry the working
// directory, which differs from run to run).
std::map<std::string, std::string> EntriesByLeaf(const std::string& archive) {
  std::map<std::string, std::string> entries;
  for (const auto& [name, file] : ReadArchive(archive)) entries[Leaf(name)] = file.data;
  return entries;
}

// Row: the thousand run numbers from a run's own all taken beside the design
// Outcome: exit 1, "view creation failed (1).": the run gives up without
//   writing into or removing any of the directories that hold those names.
// Proof: tests/executor/ExecutorTest.cpp ExecutorTest.TakenNamesMoveTheRunOn
// Row: several runs started together in one folder: each on a design of its
//   own, or all on one design with outputs of their own, or after someone
//   else made the directories of the coming minute's run numbers
// Outcome: every run succeeds and delivers exactly what it delivers alone.
//   A run whose working directory name is taken takes the next number up,
//   creating each candidate in one step, and never writes into or removes a
//   directory it did not make: directories beside the design that other
//   runs or other people made stay as they were.
TEST(ConcurrentRuns, RunsStartedTogetherAllSucceed) {
  constexpr int kRuns = 4;
  struct Row {
    const char* what;
    bool ownDesigns;       // else one design for every run
    bool takenBeforehand;  // the coming minute's names made by someone else
  } rows[] = {
      {"a design each", true, false},
      {"one design, outputs of their own", false, false},
      {"the coming minute's names taken", true, true},
  };
  const TempDir alone;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const TempDir dir;
    std::vector<std::string> designs;
    for (int i = 0; i < kRuns; ++i) {
      designs.push_back(row.ownDesigns || i == 0 ? dir / ("pkg" + std::to_string(i) + ".mcm")
                                                 : designs.front());
      WriteFile(designs.back(), ReadFile(SampleDesign()));
    }
    // What each design delivers when it runs alone (in a folder of its own,
    // under the same file name, which its views record).
    std::vector<std::map<std::string, std::string>> expected;
    for (int i = 0; i < kRuns; ++i) {
      const std::string design = alone / Leaf(designs[i]);
      WriteFile(design, ReadFile(SampleDesign()));
      ProgramRun single({"-z", design, alone / "a.vlx"});
      ExpectOutcome(single, 0, true, "");
      expected.push_back(EntriesByLeaf(alone / "a.vlx"));
    }
    if (row.takenBeforehand) {
      const long now = LocalSecondsNow();
      for (long n = now - 1; n <= now + 60; ++n) {
        const std::string taken = dir / ("extract" + std::to_string(n));
        MakeDirectory(taken);
        WriteFile(taken + "/layer.txt", "someone else's");
      }
    }
    const auto before = Snapshot(dir.path());

    std::vector<std::unique_ptr<ProgramRun>> runs;
    for (int i = 0; i < kRuns; ++i) {
      runs.push_back(std::make_unique<ProgramRun>(
          std::vector<std::string>{"-z", designs[i], dir / ("out" + std::to_string(i) + ".vlx")}));
    }
    for (auto& run : runs) ExpectOutcome(*run, 0, true, "");

    auto after = Snapshot(dir.path());
    for (int i = 0; i < kRuns; ++i) {
      const std::string archive = "out" + std::to_string(i) + ".vlx";
      EXPECT_EQ(EntriesByLeaf(dir / archive), expected[i]) << archive;
      after.erase(archive);
    }
    EXPECT_EQ(after, before);
  }
}

}  // namespace
