// The fault matrix: the built program run under faults, each test one or more
// rows of docs/reliability.md. Every row starts from a design in a directory of
// its own and an archive that an earlier run left at the output path; a run
// that fails must leave that archive, and everything else beside it, exactly
// as it was.
//
// Each test carries its row in a comment block:
//   // Row: the fault
//   // Outcome: what the program does
//   //   (continued on indented comment lines)
// directly above the TEST, or with a line
//   // Proof: tests/<file>.cpp Suite.Name
// when another test (often a table holding several rows) proves the row.
// scripts/reliability-doc builds the table from these blocks, and a test
// fails when the committed page differs.
//
// The fixture and what every row checks live here; the rows themselves are
// in a file per theme.

#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace veltest {

inline constexpr char kViewCreationFailed[] = "view creation failed (1).\n";
inline constexpr char kPackagingFailed[] = "view creation failed (2).\n";

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

  // A disk that is full once the program itself has written `bytes` to one
  // file: the extractor lifts the limit again for itself.
  RunOptions DiskFullAt(long long bytes) {
    RunOptions options;
    options.wrapper = {"/usr/bin/prlimit", "--fsize=" + std::to_string(bytes) + ":"};
    const std::string extractor = dir / "extracta-unlimited";
    WriteFile(extractor,
              "#!/bin/sh\nulimit -f unlimited\nexec '" + BinPath("extracta-sim") + "' \"$@\"\n");
    chmod(extractor.c_str(), 0755);
    options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = extractor;
    return options;
  }

  TempDir dir;
  std::map<std::string, std::string> outBefore;
};

using ExtractorFaults = FaultMatrix;
using FileSystemFaults = FaultMatrix;
using NameFaults = FaultMatrix;
using LaunchFaults = FaultMatrix;

}  // namespace veltest
