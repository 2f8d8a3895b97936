// What a run delivers: the archive, the moved views, added files, and the
// outcome lines and exit codes when something fails.

#include <gtest/gtest.h>

#include "tests/e2e/RunSupport.h"

namespace {

using e2e::ArchiveNames;
using e2e::IsPointerLine;
using e2e::Leaf;
using e2e::NotesWritingExtracta;
using e2e::RunTool;
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

const std::vector<std::string> kCellFiles = {"cconn.txt", "cfullgeo.txt", "diestack.txt",
                                             "extracta_control.txt", "layer.txt"};

std::vector<std::string> Leaves(const std::vector<std::string>& names) {
  std::vector<std::string> leaves;
  for (const auto& n : names) leaves.push_back(Leaf(n));
  std::sort(leaves.begin(), leaves.end());
  return leaves;
}

TEST(DeliveryRunTest, ACellRunIsZippedIntoOneReadableArchive) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  ::mkdir((dir / "sub").c_str(), 0777);
  RunOptions options;
  options.cwd = dir / "sub";
  // A relative design path with ".." in it: entry names stay absolute and clean.
  const RunResult run = RunVelExtracta({"-cell", "-z", "../pkg.mcm", out / "pkg.vlx"}, options);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(IsPointerLine(run.out, "VLX file written: ")) << run.out;
  EXPECT_EQ(run.err, "");
  EXPECT_TRUE(WorkingDirs(dir.path()).empty());
  EXPECT_EQ(ListDir(out.path()), std::vector<std::string>{"pkg.vlx"});

  const RunResult tested = RunTool({"unzip", "-t", out / "pkg.vlx"});
  EXPECT_EQ(tested.exitCode, 0) << tested.out;
  const auto names = ArchiveNames(out / "pkg.vlx");
  EXPECT_EQ(Leaves(names), kCellFiles);
  const std::string prefix = (dir / "extract").substr(1);
  for (const auto& name : names) {
    EXPECT_EQ(name.rfind(prefix, 0), 0u) << name;
    const std::string number =
        name.substr(prefix.size(), name.find('/', prefix.size()) - prefix.size());
    EXPECT_EQ(name, prefix + number + "/" + Leaf(name));
    EXPECT_NE(number.find_first_of("0123456789"), std::string::npos);
    EXPECT_EQ(name.find(".."), std::string::npos);
  }
}

TEST(DeliveryRunTest, MovingIntoAnOutputDirectoryReplacesFilesAndSkipsOtherExtensions) {
  TempDir tools, out;
  WriteFile(out / "layer.txt", "an older layer view");
  WriteFile(out / "keep.dat", "not ours");
  RunOptions options;
  options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = NotesWritingExtracta(tools);
  const RunResult run = RunVelExtracta({"-cell", SampleDesign(), out.path()}, options);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(IsPointerLine(run.out, "VLX file written: "));

  std::vector<std::string> expected = kCellFiles;
  expected.push_back("keep.dat");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(ListDir(out.path()), expected);  // no notes.TXT, no working directory
  EXPECT_EQ(ReadFile(out / "layer.txt").rfind("A!", 0), 0u);

  // Zipped, notes.TXT stays out of the archive just the same.
  TempDir zipped;
  const RunResult zip =
      RunVelExtracta({"-cell", "-z", SampleDesign(), zipped / "pkg.vlx"}, options);
  ASSERT_EQ(zip.exitCode, 0) << zip.err;
  EXPECT_EQ(Leaves(ArchiveNames(zipped / "pkg.vlx")), kCellFiles);
}

TEST(DeliveryRunTest, AddedFilesArePackedWithEverythingElse) {
  TempDir tools, extras, out;
  WriteFile(extras / "stackup.csv", "layer,thickness\n");
  WriteFile(extras / "readme", "about this package\n");
  RunOptions options;
  options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = NotesWritingExtracta(tools);
  const std::string adds =
      extras / "stackup.csv" + "," + extras / "missing.bin" + ",," + extras / "readme";
  const RunResult run =
      RunVelExtracta({"-cell", "-z", "-add", adds, SampleDesign(), out / "pkg.vlx"}, options);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(run.err, "");
  std::vector<std::string> expected = kCellFiles;
  expected.insert(expected.end(), {"notes.TXT", "readme", "stackup.csv"});
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(Leaves(ArchiveNames(out / "pkg.vlx")), expected);
}

TEST(DeliveryRunTest, AnAddedFileNamedLikeAViewEndsTheRunAbnormally) {
  TempDir dir, extras, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));
  WriteFile(extras / "layer.txt", "a layer view of the user's own");
  const RunResult run = RunVelExtracta(
      {"-cell", "-z", "-add", extras / "layer.txt", dir / "pkg.mcm", out / "pkg.vlx"});
  EXPECT_GE(run.exitCode, 128) << "exit " << run.exitCode;
  EXPECT_EQ(run.out, "");
  EXPECT_TRUE(ListDir(out.path()).empty());
  EXPECT_EQ(ReadFile(extras / "layer.txt"), "a layer view of the user's own");
  // No clean-up ran: the working directory is left beside the design.
  const auto left = WorkingDirs(dir.path());
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(ReadFile(dir / left[0] + "/layer.txt").rfind("A!", 0), 0u);
}

TEST(DeliveryRunTest, FailuresGiveTheirLineAndExitCodeOne) {
  TempDir dir, out;
  WriteFile(dir / "pkg.mcm", ReadFile(SampleDesign()));

  RunOptions failing;
  failing.env["EXTRACTA_SIM_FAIL"] = "3:ERROR: bad view";
  const RunResult failed =
      RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out / "pkg.vlx"}, failing);
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_EQ(failed.out, "");
  EXPECT_EQ(failed.err, "view creation failed (1).\n");
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"pkg.mcm"});
  EXPECT_TRUE(ListDir(out.path()).empty());

  // Zipping onto a directory: the success line first, then the failure.
  const RunResult onDirectory = RunVelExtracta({"-cell", "-z", dir / "pkg.mcm", out.path()});
  EXPECT_EQ(onDirectory.exitCode, 1);
  EXPECT_TRUE(IsPointerLine(onDirectory.out, "VLX file written: ")) << onDirectory.out;
  EXPECT_EQ(onDirectory.err, "view creation failed (2).\n");
  EXPECT_TRUE(ListDir(out.path()).empty());  // its working directory, made there, is gone

  // Moving into a path that is no directory fails the same way.
  const RunResult noDirectory = RunVelExtracta({"-cell", dir / "pkg.mcm", out / "none"});
  EXPECT_EQ(noDirectory.exitCode, 1);
  EXPECT_TRUE(IsPointerLine(noDirectory.out, "VLX file written: "));
  EXPECT_EQ(noDirectory.err, "view creation failed (2).\n");
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"pkg.mcm"});
}

}  // namespace
