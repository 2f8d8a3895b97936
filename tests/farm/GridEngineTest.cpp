// Children on a real Grid Engine cell: this machine as master and execution
// host, a queue of 4 slots and a parallel environment whose jobs start tasks
// with "qrsh -inherit", brought up by scripts/gridengine-cell before these
// tests (CTest's fixture). Inside a parallel job every child is a task the
// engine started, its arguments whole on a path that a shell would split,
// and deleting the job leaves no process.

#include <regex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/farm/FarmSupport.h"
#include "tests/support/PlatformHelpers.h"

namespace {

using namespace veltest;

std::string ReadIfThere(const std::string& path) {
  return PathExists(path) ? ReadFile(path) : std::string();
}

constexpr char kFixedDate[] = "Mon Jan  5 09:00:00 2026";
// The first four children (layer, pad definitions, full geometry, die
// stacks) take long enough to run side by side however slowly the engine
// starts its tasks; the others are quick.
constexpr char kFirstFourSleep[] =
    "export EXTRACTA_SIM_MATCH='extracta_control_[lpfd]*' EXTRACTA_SIM_SLEEP_MS=4000\n";

class GridEngineJob : public ::testing::Test {
 protected:
  // The design where a shell on the node would break it: a blank and a
  // double quote in its folder's name.
  void SetUp() override {
    ASSERT_TRUE(MakeDirectory(folder));
    design = MakeDesign(folder, 7, 3000);
  }
  // A test that ends early leaves no job behind to hold the queue's slots.
  void TearDown() override { RunProgram({"/usr/bin/qdel", "-f", jobName}); }

  // qsub's command for a job script that runs VelExtracta in that folder
  // with the engine's launcher, its outcome written beside it; the job finds
  // the paths and settings in its environment (-V).
  std::vector<std::string> Submit(bool wait, const std::string& extraSettings) {
    const std::string script = dir / "job.sh";
    WriteFile(script,
              "#!/bin/bash\ncd \"$VEL_JOB_FOLDER\" || exit 99\n" + extraSettings +
                  "\"$VEL_JOB_PROGRAM\" -z \"$VEL_JOB_DESIGN\" out.vlx >\"$VEL_JOB_DIR/out\" "
                  "2>\"$VEL_JOB_DIR/err\"\necho $? >\"$VEL_JOB_DIR/rc\"\n");
    MakeExecutable(script);
    std::vector<std::string> qsub = {"/usr/bin/qsub", "-N", jobName, "-V"};
    qsub.insert(qsub.end(), {"-pe", "velextracta", "4"});
    if (wait) qsub.insert(qsub.end(), {"-sync", "y"});
    qsub.insert(qsub.end(), {"-o", dir / "job.out", "-e", dir / "job.err", script});
    return qsub;
  }
  EnvMap JobEnvironment() {
    return {{"VEL_JOB_FOLDER", folder},
            {"VEL_JOB_PROGRAM", BinPath("VelExtracta")},
            {"VEL_JOB_DESIGN", Leaf(design)},
            {"VEL_JOB_DIR", dir.path()},
            {"VELTAR_EXTRACTA_LAUNCHER", "sge"},
            {"VELTAR_EXTRACTA_PATHOVERRIDE", PlacedExtractor(dir.path())},
            {"EXTRACTA_SIM_LOG", dir / "sim.log"},
            {"VELTAR_EXTRACTA_DEBUG", std::nullopt}};
  }

  TempDir dir;
  const std::string jobName = "velextracta-" + Leaf(dir.path());
  const std::string folder = dir / "a b\"c";
  std::string design;
};

TEST_F(GridEngineJob, EveryChildATaskOfTheJobFourAtOnceArgumentsWhole) {
  RunOptions local;
  local.env = {{"VELTAR_EXTRACTA_SLOTS", "4"}, {"EXTRACTA_SIM_DATE", kFixedDate}};
  ProgramRun here({"-z", design, dir / "local.vlx"}, local);
  ExpectOutcome(here, 0, true, "");

  // The job gets this environment (-V), with the extraction date of the run
  // on this machine.
  RunOptions submit;
  submit.env = JobEnvironment();
  submit.env["EXTRACTA_SIM_DATE"] = kFixedDate;
  const RunResult job = RunProgram(Submit(true, kFirstFourSleep), submit);
  ASSERT_EQ(job.exitCode, 0) << job.out << job.err << ReadFile(dir / "job.err");
  EXPECT_EQ(ReadFile(dir / "rc"), "0\n") << ReadFile(dir / "err");
  EXPECT_TRUE(IsPointerLine(ReadFile(dir / "out"), "VLX file written: "));
  EXPECT_EQ(ReadFile(dir / "err"), "");
  EXPECT_EQ(WorkingDirs(folder), std::vector<std::string>{});
  EXPECT_TRUE(ReadArchiveByLeaf(folder + "/out.vlx") == ReadArchiveByLeaf(dir / "local.vlx"));

  const std::vector<PlacedRun> runs = ReadPlacedRuns(dir.path());
  ASSERT_EQ(runs.size(), 23u);
  std::vector<SimRun> sims;
  for (const PlacedRun& placed : runs) {
    // Started by the engine's task starter, not by VelExtracta.
    EXPECT_EQ(placed.parent, "qrsh_starter") << placed.run.control;
    sims.push_back(placed.run);
  }
  EXPECT_EQ(MostAtOnce(sims), 4);
}

TEST_F(GridEngineJob, DeletedJobLeavesNoProcess) {
  // Every process of the job carries the mark, passed on by -V.
  const std::string mark = "VEL_GRIDENGINE_JOB=" + dir.path();
  RunOptions submit;
  submit.env = JobEnvironment();
  submit.env["VEL_GRIDENGINE_JOB"] = dir.path();
  const RunResult queued =
      RunProgram(Submit(false, "export EXTRACTA_SIM_SLEEP_MS=600000\n"), submit);
  ASSERT_EQ(queued.exitCode, 0) << queued.err;
  std::smatch id;
  ASSERT_TRUE(std::regex_search(queued.out, id, std::regex("job (\\d+)"))) << queued.out;
  // Four children started: each child has recorded its place.
  const auto started = [&] {
    const std::string log = ReadIfThere(dir / "placed.log");
    return std::count(log.begin(), log.end(), '\n');
  };
  const auto state = [&] {
    return RunProgram({"/usr/bin/qstat", "-j", id[1]}).out + ReadIfThere(dir / "job.err") +
           ReadIfThere(dir / "err") + ::testing::PrintToString(MarkedProcesses(mark));
  };
  ASSERT_TRUE(PollUntil([&] { return started() >= 4; }, 120)) << state();
  RunProgram({"/usr/bin/qdel", id[1]});
  EXPECT_TRUE(PollUntil([&] { return MarkedProcesses(mark).empty(); }, 10))
      << ::testing::PrintToString(MarkedProcesses(mark));
  EXPECT_FALSE(PathExists(folder + "/out.vlx"));
}

}  // namespace
