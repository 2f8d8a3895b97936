#pragma once
// The fixture every row of the fault matrix starts from: a design in a
// directory of its own, and an archive that an earlier run left at the output
// path. A run that fails must leave that archive, and everything else beside
// it, exactly as it was.
//
// Each test carries its row of docs/reliability.md in a comment block:
//   // Row: the fault
//   // Outcome: what the program does
//   //   (continued on indented comment lines)
// directly above the TEST, or with a line
//   // Proof: tests/<file>.cpp Suite.Name
// when another test (often a table holding several rows) proves the row.
// scripts/reliability-doc builds the table from these blocks, and a test
// fails when the committed page differs.

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/RunCheck.h"

namespace faults {

using namespace veltest;

const char kViewCreationFailed[] = "view creation failed (1).\n";
const char kPackagingFailed[] = "view creation failed (2).\n";

class FaultMatrix : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(design(), ReadFile(SampleDesign()));
    ASSERT_TRUE(MakeDirectory(outDir()));
    WriteFile(archive(), "the archive of an earlier run");
    WriteFile(dir / "out/notes.txt", "the user's own notes");
    outBefore = Snapshot(outDir());
  }

  std::string design() const { return dir / "pkg.mcm"; }
  std::string archive() const { return dir / "out/pkg.vlx"; }
  std::string outDir() const { return dir / "out"; }

  // What every failed run must show: exit code 1, the exact lines (the
  // success line first when packaging failed), no process of the run left,
  // no working directory beside the design or in the output directory, and
  // the output directory as it was before the run.
  void ExpectCleanFailure(ProgramRun& run, const std::string& failureLine,
                          bool packagingFailed = false) {
    ExpectOutcome(run, 1, packagingFailed, failureLine);
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
    EXPECT_EQ(Snapshot(outDir()), outBefore);
  }

  // What a successful run must show: exit code 0, the success line alone, no
  // process of the run left and no working directory beside the design.
  void ExpectCleanSuccess(ProgramRun& run) {
    ExpectOutcome(run, 0, true, "");
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
  }

  TempDir dir;
  std::map<std::string, std::string> outBefore;
};

}  // namespace faults
