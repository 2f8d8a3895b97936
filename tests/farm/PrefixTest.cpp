// Children behind a command prefix, and the slots a run is given, on every
// system: the prefix's program gets its own words whole and then the extracta
// command, the child exactly the arguments it gets without a prefix (on a
// design path with a blank and, where names may hold one, a double quote),
// and the run delivers what a plain run delivers.

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/farm/FarmSupport.h"

namespace {

using namespace veltest;

// The arguments each run of vel-test-child recorded, argv[0] first.
std::vector<std::vector<std::string>> RecordedArguments(const std::string& file) {
  std::vector<std::vector<std::string>> records;
  std::istringstream lines(PathExists(file) ? ReadFile(file) : "");
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> fields;
    std::istringstream split(line);
    for (std::string field; std::getline(split, field, '\t');) fields.push_back(field);
    // cwd, standard input, descriptors, then the arguments.
    if (fields.size() > 3) records.emplace_back(fields.begin() + 3, fields.end());
  }
  return records;
}

class LaunchPrefix : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(MakeDirectory(folder));
    design = MakeDesign(folder, 9, 2000);
  }

  TempDir dir;
  const std::string folder = dir / FileName("a b\"c");
  std::string design;
};

TEST_F(LaunchPrefix, PrefixGetsItsWordsAndTheChildItsArguments) {
  ProgramRun plain({"-z", design, dir / "plain.vlx"});
  ExpectOutcome(plain, 0, true, "");

  RunOptions prefixed;
  // The prefix's program records how it was called and runs the rest.
  prefixed.env = {
      {"VELTAR_EXTRACTA_LAUNCHER", "'" + BinPath("vel-test-child") + "' 'a quoted argument'"},
      {"VEL_TEST_CHILD", "record=" + (dir / "prefix.log") + ";run=2"}};
  ProgramRun run({"-z", design, dir / "prefixed.vlx"}, prefixed);
  ExpectOutcome(run, 0, true, "");
  EXPECT_TRUE(ReadArchiveByLeaf(dir / "prefixed.vlx") == ReadArchiveByLeaf(dir / "plain.vlx"));

  const auto records = RecordedArguments(dir / "prefix.log");
  ASSERT_EQ(records.size(), 23u);
  for (const auto& args : records) {
    ASSERT_EQ(args.size(), 9u) << ::testing::PrintToString(args);
    EXPECT_EQ(args[1], "a quoted argument");
    EXPECT_EQ(Leaf(std::filesystem::u8path(args[2]).generic_u8string()),
              kOnWindows ? "extracta-sim.exe" : "extracta-sim");
    EXPECT_THAT(std::vector<std::string>(args.begin() + 3, args.begin() + 6),
                ::testing::ElementsAre("-k", "-c", "-m"));
    EXPECT_EQ(std::filesystem::u8path(args[6]), std::filesystem::u8path(design));
    EXPECT_THAT(args[7], ::testing::HasSubstr("extracta_control_"));
  }
}

// A prefix whose program hands the command to a shell: marked "shell:", each
// word is quoted for that shell and arrives whole; unmarked, the shell splits
// the design's path and the run fails cleanly.
TEST_F(LaunchPrefix, ShellMarkQuotesForAProgramThatReparses) {
  VEL_SKIP_ON_WINDOWS("no POSIX shell");
  const std::string reparsing = "/bin/sh -c 'eval \"$*\"' a-shell";
  for (const bool marked : {true, false}) {
    SCOPED_TRACE(marked);
    RunOptions options;
    options.env = {{"VELTAR_EXTRACTA_LAUNCHER", (marked ? "shell:" : "") + reparsing}};
    ProgramRun run({"-z", design, dir / "out.vlx"}, options);
    if (marked) {
      ExpectOutcome(run, 0, true, "");
      EXPECT_EQ(ArchiveLeaves(dir / "out.vlx").size(), 47u);
    } else {
      ExpectOutcome(run, 1, false, "view creation failed (1).\n");
    }
    EXPECT_EQ(WorkingDirs(folder), std::vector<std::string>{});
  }
}

// VELTAR_EXTRACTA_SLOTS sets how many children run at once, with a launcher
// or without.
TEST_F(LaunchPrefix, SlotsSetHowManyRunAtOnce) {
  for (const bool prefixed : {false, true}) {
    SCOPED_TRACE(prefixed);
    RunOptions options;
    options.env = {{"VELTAR_EXTRACTA_SLOTS", "3"}, {"EXTRACTA_SIM_SLEEP_MS", "400"}};
    if (prefixed) {
      options.env["VELTAR_EXTRACTA_LAUNCHER"] = "'" + BinPath("vel-test-child") + "'";
      options.env["VEL_TEST_CHILD"] = "run=1";
    }
    const KeptRun kept = RunKeeping(folder, {"-z", design, dir / "out.vlx"}, options);
    EXPECT_EQ(kept.runs.size(), 23u);
    EXPECT_EQ(MostAtOnce(kept.runs), 3);
  }
}

}  // namespace
