// The command line as users type it: what the options do is read off the
// control file a kept working directory holds and off the delivered files.

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/e2e/RunSupport.h"

namespace {

using e2e::ArchiveNames;
using e2e::IsPointerLine;
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

// The positions at which the net conditions appear in a control file, in
// the order of `nets`; npos for a missing one.
std::vector<std::size_t> NetPositions(const std::string& control,
                                      const std::vector<std::string>& nets) {
  std::vector<std::size_t> positions;
  for (const auto& net : nets) positions.push_back(control.find("NET_NAME ='" + net + "'"));
  return positions;
}

// Runs in a fresh directory holding a copy of the sample design, with the
// working directory kept; returns the kept control file ("" when none).
struct KeptRun {
  TempDir dir;
  RunResult result;
  std::string control;
  std::string design() const { return dir / "pkg.mcm"; }
};

void RunKeeping(KeptRun& run, const std::vector<std::string>& options,
                const std::string& output = "out.vlx") {
  veltest::WriteFile(run.design(), ReadFile(SampleDesign()));
  std::vector<std::string> args = options;
  args.push_back(run.design());
  args.push_back(run.dir / output);
  RunOptions keep;
  keep.env["VELTAR_EXTRACTA_DEBUG"] = "";
  run.result = RunVelExtracta(args, keep);
  const auto kept = WorkingDirs(run.dir.path());
  if (kept.size() == 1) run.control = ReadFile(run.dir / kept[0] + "/extracta_control.txt");
}

TEST(CommandLineRunTest, TooFewArgumentsEndTheRunSilently) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, std::vector<std::string>{SampleDesign()}}) {
    const RunResult run = RunVelExtracta(args);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
  }
}

TEST(CommandLineRunTest, OptionsIgnoreCaseRepeatAndCollectNetsInOrder) {
  KeptRun run;
  RunKeeping(run, {"-Z", "/CeLL", "-q", "-n", "VDD,GND", "/z", "-N", "CLK", "-cell"});
  ASSERT_EQ(run.result.exitCode, 0) << run.result.err;
  EXPECT_TRUE(IsPointerLine(run.result.out, "VLX file written: "));
  EXPECT_EQ(run.result.err.find("view creation failed"), std::string::npos);  // debug traces only
  // The cell set: one control file, its first block the layer view.
  EXPECT_EQ(run.control.rfind("LAYER\r\n", 0), 0u);
  const auto positions = NetPositions(run.control, {"VDD", "GND", "CLK"});
  ASSERT_NE(positions[2], std::string::npos) << run.control;
  EXPECT_LT(positions[0], positions[1]);
  EXPECT_LT(positions[1], positions[2]);
  EXPECT_EQ(ArchiveNames(run.dir / "out.vlx").size(), 5u);
}

TEST(CommandLineRunTest, AnOptionsValueIsScannedAsAnOptionToo) {
  // "-z" is the net list and also switches zipping on.
  KeptRun netsThenZip;
  RunKeeping(netsThenZip, {"-cell", "-n", "-z"});
  ASSERT_EQ(netsThenZip.result.exitCode, 0) << netsThenZip.result.err;
  EXPECT_NE(netsThenZip.control.find("NET_NAME ='-z'"), std::string::npos);
  EXPECT_EQ(ArchiveNames(netsThenZip.dir / "out.vlx").size(), 5u);

  // In the last scanned place the nets option takes the design file itself.
  KeptRun designAsNet;
  RunKeeping(designAsNet, {"-cell", "-z", "-n"});
  ASSERT_EQ(designAsNet.result.exitCode, 0) << designAsNet.result.err;
  EXPECT_NE(designAsNet.control.find("NET_NAME ='" + designAsNet.design() + "'"),
            std::string::npos);

  // ... and so does the add option: the design is packed with the views.
  KeptRun designAdded;
  RunKeeping(designAdded, {"-cell", "-z", "-add"});
  ASSERT_EQ(designAdded.result.exitCode, 0) << designAdded.result.err;
  const auto names = ArchiveNames(designAdded.dir / "out.vlx");
  ASSERT_EQ(names.size(), 6u);
  EXPECT_EQ(std::count_if(names.begin(), names.end(),
                          [](const std::string& n) { return Leaf(n) == "pkg.mcm"; }),
            1);
}

TEST(CommandLineRunTest, TheProgramsOwnNameIsScannedForOptions) {
  TempDir dir;
  ASSERT_EQ(::symlink(veltest::BinPath("VelExtracta").c_str(), (dir / "-z").c_str()), 0);
  RunOptions options;
  options.cwd = dir.path();
  options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = veltest::BinPath("extracta-sim");
  options.env["VELTAR_EXTRACTA_DEBUG"] = std::nullopt;
  const RunResult run =
      veltest::RunProgram({"-z", "-cell", SampleDesign(), dir / "named.vlx"}, options);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_EQ(ArchiveNames(dir / "named.vlx").size(), 5u);
}

TEST(CommandLineRunTest, AMissingDesignIsReportedBeforeAnythingIsCreated) {
  TempDir dir;
  const RunResult run = RunVelExtracta({"-z", "-cell", dir / "absent.mcm", dir / "out.vlx"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_TRUE(IsPointerLine(run.err, "mcm file does not exist: ")) << run.err;
  EXPECT_TRUE(ListDir(dir.path()).empty());

  // Any existing object passes the check, a directory too; extracta then
  // refuses it.
  ::mkdir((dir / "folder.mcm").c_str(), 0777);
  const RunResult folder = RunVelExtracta({"-z", "-cell", dir / "folder.mcm", dir / "out.vlx"});
  EXPECT_EQ(folder.exitCode, 1);
  EXPECT_EQ(folder.err, "view creation failed (1).\n");
  EXPECT_FALSE(PathExists(dir / "out.vlx"));
}

}  // namespace
