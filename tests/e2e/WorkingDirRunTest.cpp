// Where a run works and what it leaves: the working directory's place and
// name, debug mode, runs that clash, and interrupted runs.

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include <gtest/gtest.h>

#include "tests/e2e/RunSupport.h"

namespace {

using e2e::ArchiveNames;
using e2e::Leaf;
using e2e::RunVelExtracta;
using e2e::SampleDesign;
using e2e::WorkingDirs;
using veltest::ListDir;
using veltest::PathExists;
using veltest::ReadFile;
using veltest::RunOptions;
using veltest::RunResult;
using veltest::TempDir;
using veltest::WriteFile;

RunOptions Keeping() {
  RunOptions options;
  options.env["VELTAR_EXTRACTA_DEBUG"] = "";
  return options;
}

long RunNumber(const std::string& workingDir) {
  return std::stol(workingDir.substr(std::string("extract").size()));
}

TEST(WorkingDirRunTest, DebugModeKeepsTheWorkingDirectoryWhereTheRunMadeIt) {
  // Output path not a directory: beside the design, with every file.
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  const RunResult zipped =
      RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out / "pkg.vlx"}, Keeping());
  ASSERT_EQ(zipped.exitCode, 0) << zipped.err;
  const auto kept = WorkingDirs(dir.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(ListDir(dir / kept[0]),
            (std::vector<std::string>{"cconn.txt", "cfullgeo.txt", "diestack.txt",
                                      "extracta_control.txt", "layer.txt"}));
  for (const auto& name : ArchiveNames(out / "pkg.vlx"))
    EXPECT_EQ(name, (dir / kept[0]).substr(1) + "/" + Leaf(name));

  // Output path an existing directory: inside it, emptied by the move.
  TempDir target;
  const RunResult moved = RunVelExtracta({"-cell", dir / "pkg.mcm", target.path()}, Keeping());
  ASSERT_EQ(moved.exitCode, 0) << moved.err;
  EXPECT_EQ(WorkingDirs(dir.path()), kept);
  const auto inside = WorkingDirs(target.path());
  ASSERT_EQ(inside.size(), 1u);
  EXPECT_TRUE(ListDir(target / inside[0]).empty());
  EXPECT_EQ(ListDir(target.path()).size(), 6u);

  // A design named without a directory: in the current directory.
  TempDir here;
  WriteFile(here / "bare.mcm", ReadFile(SampleDesign()));
  RunOptions inHere = Keeping();
  inHere.cwd = here.path();
  const RunResult bare = RunVelExtracta({"-cell", "-z", "bare.mcm", out / "bare.vlx"}, inHere);
  ASSERT_EQ(bare.exitCode, 0) << bare.err;
  EXPECT_EQ(WorkingDirs(here.path()).size(), 1u);
  EXPECT_EQ(ArchiveNames(out / "bare.vlx").size(), 5u);
}

TEST(WorkingDirRunTest, TheRunNumberFollowsTheLocalClock) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  RunOptions east = Keeping();
  east.env["TZ"] = "XST-9";  // nine hours east of UTC
  const long before = static_cast<long>(std::time(nullptr));
  const RunResult run = RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out / "pkg.vlx"}, east);
  const long after = static_cast<long>(std::time(nullptr));
  ASSERT_EQ(run.exitCode, 0) << run.err;
  const auto kept = WorkingDirs(dir.path());
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_GE(RunNumber(kept[0]), before + 9 * 3600);
  EXPECT_LE(RunNumber(kept[0]), after + 9 * 3600);
}

// Two runs on one base in one second compute one working directory name. The
// later run fails; the earlier one must finish with all its files.
TEST(WorkingDirRunTest, ARunThatClashesLeavesTheOtherRunAlone) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));

  RunResult first, second;
  // Start just after a second begins, so both runs fall into it. A heavily
  // loaded machine may still push the second run into the next second; then
  // nothing clashed, and the attempt is repeated.
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::remove((out / "first.vlx").c_str());
    std::remove((out / "second.vlx").c_str());
    const auto now = std::chrono::system_clock::now();
    std::this_thread::sleep_until(std::chrono::ceil<std::chrono::seconds>(now) +
                                  std::chrono::milliseconds(50));
    std::thread firstRun([&] {
      RunOptions slow;
      slow.env["EXTRACTA_SIM_SLEEP_MS"] = "1500";  // still extracting when the second run ends
      first = RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out / "first.vlx"}, slow);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    second = RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out / "second.vlx"});
    firstRun.join();
    if (second.exitCode != 0) break;
  }

  EXPECT_EQ(second.exitCode, 1);
  EXPECT_EQ(second.out, "");
  EXPECT_EQ(second.err, "view creation failed (1).\n");
  ASSERT_EQ(first.exitCode, 0) << first.err;
  EXPECT_EQ(ArchiveNames(out / "first.vlx").size(), 5u);
  EXPECT_EQ(ListDir(out.path()), std::vector<std::string>{"first.vlx"});
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"pkg.mcm"});
}

TEST(WorkingDirRunTest, AnInterruptedRunDeliversNothing) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  RunOptions options;
  options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = veltest::BinPath("extracta-sim");
  options.env["VELTAR_EXTRACTA_DEBUG"] = std::nullopt;
  options.env["EXTRACTA_SIM_SLEEP_MS"] = "20000";
  const auto start = std::chrono::steady_clock::now();
  // One SIGINT after one second, while extracta still works. (Without
  // --foreground, timeout signals its whole process group as well, and a
  // second interrupt ends the program at once.)
  const RunResult run = veltest::RunProgram(
      {"/usr/bin/timeout", "--foreground", "--preserve-status", "-s", "INT", "1",
       veltest::BinPath("VelExtracta"), "-cell", "-z", dir / "pkg.mcm", out / "pkg.vlx"},
      options);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_LT(seconds, 5.0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "view creation failed (1).\n");
  EXPECT_TRUE(ListDir(out.path()).empty());
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"pkg.mcm"});
}

}  // namespace
