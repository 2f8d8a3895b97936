// The built program run as a user runs it: too few arguments or no design,
// what a run delivers, and where it works. How options are scanned is held
// to the rules on the command line fuzz target's seeds (tests/replay). Failures of the extractor
// and of delivery are rows of the fault matrix (tests/faults).

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/RunCheck.h"

namespace {

using namespace veltest;

LaunchOptions Keeping() {
  LaunchOptions options;
  options.env["VELTAR_EXTRACTA_DEBUG"] = "";
  return options;
}

TEST(CommandLineRunTest, TooFewArgumentsEndTheRunSilently) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, std::vector<std::string>{SampleDesign()}}) {
    ProgramRun run(args);
    ExpectOutcome(run, 1, false, "");
  }
}

TEST(CommandLineRunTest, AMissingDesignIsReportedBeforeAnythingIsCreated) {
  TempDir dir;
  ProgramRun missing({"-z", "-cell", dir / "absent.mcm", dir / "out.vlx"});
  EXPECT_EQ(missing.Wait().exitCode, 1);
  EXPECT_EQ(missing.Wait().out, "");
  EXPECT_TRUE(IsPointerLine(missing.Wait().err, "mcm file does not exist: ")) << missing.Wait().err;
  EXPECT_TRUE(ListDir(dir.path()).empty());

  // Any existing object passes the check, a directory too; extracta then
  // refuses it.
  ::mkdir((dir / "folder.mcm").c_str(), 0777);
  ProgramRun folder({"-z", "-cell", dir / "folder.mcm", dir / "out.vlx"});
  ExpectOutcome(folder, 1, false, "view creation failed (1).\n");
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"folder.mcm"});
}

TEST(DeliveryRunTest, ACellRunIsZippedIntoOneReadableArchive) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  ::mkdir((dir / "sub").c_str(), 0777);
  LaunchOptions options;
  options.cwd = dir / "sub";
  // A relative design path with ".." in it: entry names stay absolute and clean.
  ProgramRun run({"-cell", "-z", "../pkg.mcm", out / "pkg.vlx"}, options);
  ExpectOutcome(run, 0, true, "");
  EXPECT_TRUE(WorkingDirs(dir.path()).empty());
  EXPECT_EQ(ListDir(out.path()), std::vector<std::string>{"pkg.vlx"});

  const RunResult tested = RunProgram({"/usr/bin/env", "unzip", "-t", out / "pkg.vlx"});
  EXPECT_EQ(tested.exitCode, 0) << tested.out;
  EXPECT_EQ(ArchiveLeaves(out / "pkg.vlx"), kCellFiles);
  const std::string prefix = (dir / "extract").substr(1);
  for (const auto& name : ArchiveNames(out / "pkg.vlx")) {
    const std::size_t slash = name.find('/', prefix.size());
    EXPECT_EQ(name.rfind(prefix, 0), 0u) << name;
    EXPECT_EQ(name.substr(slash + 1), Leaf(name));
    EXPECT_EQ(name.find_first_not_of("0123456789", prefix.size()), slash) << name;
  }
  EXPECT_EQ(ArchiveEntry(out / "pkg.vlx", "extracta_control.txt"),
            ReadFile(std::string(VEL_SOURCE_DIR) + "/tests/views/golden/cell.txt"));
}

TEST(DeliveryRunTest, AnAddedFileNamedLikeAViewEndsTheRunAbnormally) {
  TempDir dir, extras, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  WriteFile(extras / "layer.txt", "a layer view of the user's own");
  ProgramRun run({"-cell", "-z", "-add", extras / "layer.txt", dir / "pkg.mcm", out / "pkg.vlx"});
  EXPECT_GE(run.Wait().exitCode, 128) << "exit " << run.Wait().exitCode;
  EXPECT_EQ(run.Wait().out, "");
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
  EXPECT_TRUE(ListDir(out.path()).empty());
  EXPECT_EQ(ReadFile(extras / "layer.txt"), "a layer view of the user's own");
  // No clean-up ran: the working directory is left beside the design.
  const auto left = WorkingDirs(dir.path());
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(ReadFile(dir / left[0] + "/layer.txt").rfind("A!", 0), 0u);
}

// Debug mode keeps the working directory where the run made it, named by the
// local clock's seconds.
TEST(WorkingDirRunTest, DebugModeKeepsTheWorkingDirectoryWhereTheRunMadeIt) {
  // Output path not a directory: beside the design, with every file.
  TempDir dir, out, target, here;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  LaunchOptions east = Keeping();
  east.env["TZ"] = "XST-9";  // nine hours east of UTC
  const long before = static_cast<long>(std::time(nullptr));
  ProgramRun zipped({"-cell", "-z", dir / "pkg.mcm", out / "pkg.vlx"}, east);
  ASSERT_EQ(zipped.Wait().exitCode, 0) << zipped.Wait().err;
  const long after = static_cast<long>(std::time(nullptr));
  const auto kept = WorkingDirs(dir.path());
  ASSERT_EQ(kept.size(), 1u);
  const long number = std::stol(kept[0].substr(std::string("extract").size()));
  EXPECT_GE(number, before + 9 * 3600);
  EXPECT_LE(number, after + 9 * 3600);
  EXPECT_EQ(ListDir(dir / kept[0]), kCellFiles);
  for (const auto& name : ArchiveNames(out / "pkg.vlx"))
    EXPECT_EQ(name, (dir / kept[0]).substr(1) + "/" + Leaf(name));

  // Output path an existing directory: inside it, emptied by the move.
  ProgramRun moved({"-cell", dir / "pkg.mcm", target.path()}, Keeping());
  ASSERT_EQ(moved.Wait().exitCode, 0) << moved.Wait().err;
  const auto inside = WorkingDirs(target.path());
  ASSERT_EQ(inside.size(), 1u);
  EXPECT_TRUE(ListDir(target / inside[0]).empty());
  EXPECT_EQ(ListDir(target.path()).size(), 6u);

  // A design named without a directory: in the current directory.
  WriteFile(here / "bare.mcm", ReadFile(SampleDesign()));
  LaunchOptions inHere = Keeping();
  inHere.cwd = here.path();
  ProgramRun bare({"-cell", "-z", "bare.mcm", out / "bare.vlx"}, inHere);
  ASSERT_EQ(bare.Wait().exitCode, 0) << bare.Wait().err;
  EXPECT_EQ(WorkingDirs(here.path()).size(), 1u);
}

}  // namespace
