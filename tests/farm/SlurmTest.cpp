// Children on a real Slurm cluster: two nodes of 2 CPUs on this machine,
// brought up by scripts/slurm-cluster before these tests (CTest's fixture;
// SLURM_CONF names it). Every child is a job step of the allocation, the
// steps spread over both nodes within their CPUs, the run delivers what a run
// on this machine delivers, and a failure, an interrupt or an outright kill
// leaves no step and no process.

#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/farm/FarmSupport.h"
#include "tests/support/Internal.h"

namespace {

using namespace veltest;

// Slurm's commands on this machine's PATH.
std::string Command(const std::string& name) { return "/usr/bin/" + name; }

// An allocation of the cluster, held while the object lives, as a batch job
// holds one: salloc runs a shell that writes down what the job's environment
// says of it and then waits, so that what a run leaves of its steps can be
// seen after the run. Cancelled when the object goes.
class SlurmJob {
 public:
  SlurmJob() {
    const std::string said = scratch_ / "job";
    // The shell's own process id last: salloc runs it in a process group of
    // its own, so it is ended by that id.
    const std::string script =
        "printenv SLURM_JOB_ID SLURM_JOB_NODELIST SLURM_JOB_CPUS_PER_NODE >" + said +
        ".part && echo $$ >>" + said + ".part && mv " + said + ".part " + said +
        " && exec sleep 100000";
    holder_ = StartProgram({Command("salloc"), "-N2", "-n4", "-Q", "/bin/sh", "-c", script}, {},
                           scratch_ / "out", scratch_ / "err");
    if (!PollUntil([&] { return PathExists(said); }, 30))
      throw std::runtime_error("no allocation from the test cluster (SLURM_CONF=" +
                               std::string(getenv("SLURM_CONF") ? getenv("SLURM_CONF") : "") +
                               "): " + ReadFile(scratch_ / "err"));
    std::istringstream lines(ReadFile(said));
    std::getline(lines, id_);
    std::getline(lines, nodes_);
    std::getline(lines, cpus_);
    std::getline(lines, waiting_);
  }
  ~SlurmJob() {
    RunProgram({Command("scancel"), id_});
    // salloc waits for its shell, which the cancel does not end.
    kill(std::atoi(waiting_.c_str()), SIGKILL);
    WaitProgram(holder_, 30, scratch_ / "out", scratch_ / "err");
    ReleaseProgram(holder_);
  }

  // The variables a run inside the job finds.
  EnvMap Environment() const {
    return {{"SLURM_JOB_ID", id_},
            {"SLURM_JOB_NODELIST", nodes_},
            {"SLURM_JOB_CPUS_PER_NODE", cpus_},
            {"VELTAR_EXTRACTA_LAUNCHER", "slurm"}};
  }
  const std::string& id() const { return id_; }

  // The job's steps that still run, as "JOB.STEP NODE".
  std::vector<std::string> Steps() const {
    std::istringstream lines(
        RunProgram({Command("squeue"), "-h", "-s", "-j", id_, "-o", "%i %N"}).out);
    std::vector<std::string> steps;
    for (std::string line; std::getline(lines, line);)
      if (!line.empty()) steps.push_back(line);
    return steps;
  }

 private:
  TempDir scratch_;
  Started holder_;
  std::string id_, nodes_, cpus_, waiting_;
};

class SlurmRun : public ::testing::Test {
 protected:
  TempDir dir;
  SlurmJob job;
  const std::string design = MakeDesign(dir.path(), 7, 3000);
};

// Every child a step of the job's allocation, four at once over both nodes
// and never more than two on one; the archive is the one a run on this
// machine with four slots delivers.
TEST_F(SlurmRun, EveryChildIsAStepFourAtOnceTwoPerNode) {
  ASSERT_EQ(job.Environment().at("SLURM_JOB_CPUS_PER_NODE"), "2(x2)");
  RunOptions local;
  local.env = {{"VELTAR_EXTRACTA_SLOTS", "4"}};
  ProgramRun here({"-z", design, dir / "local.vlx"}, local);
  ExpectOutcome(here, 0, true, "");

  RunOptions farm;
  farm.env = job.Environment();
  // Long enough that the steps overlap however quickly they start.
  farm.env["EXTRACTA_SIM_SLEEP_MS"] = "400";
  farm.env["EXTRACTA_SIM_LOG"] = dir / "sim.log";
  farm.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = PlacedExtractor(dir.path());
  ProgramRun run({"-z", design, dir / "farm.vlx"}, farm);
  ExpectOutcome(run, 0, true, "");
  EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});

  EXPECT_TRUE(ReadArchiveByLeaf(dir / "farm.vlx") == ReadArchiveByLeaf(dir / "local.vlx"));
  const std::vector<PlacedRun> runs = ReadPlacedRuns(dir.path());
  ASSERT_EQ(runs.size(), 23u);
  std::set<std::string> tasks, nodes;
  for (const PlacedRun& placed : runs) {
    EXPECT_EQ(placed.task.substr(0, job.id().size() + 1), job.id() + ".") << placed.run.control;
    EXPECT_EQ(placed.parent, "slurmstepd") << placed.run.control;
    tasks.insert(placed.task);
    nodes.insert(placed.node);
  }
  EXPECT_EQ(tasks.size(), runs.size()) << "a step of its own for every child";
  EXPECT_EQ(nodes, (std::set<std::string>{"n1", "n2"}));
  std::vector<SimRun> sims;
  for (const PlacedRun& placed : runs) sims.push_back(placed.run);
  EXPECT_EQ(MostAtOnce(sims), 4);
  EXPECT_EQ(MostAtOnceOnANode(runs), 2);
  EXPECT_EQ(job.Steps(), std::vector<std::string>{});
}

// VelExtracta started as a step of the job holds CPUs of its own: its
// children's steps share them and do not wait for them to be given back.
TEST_F(SlurmRun, RunThatIsItselfAStepDoesNotWaitForItsOwnCpus) {
  RunOptions step;
  step.env = job.Environment();
  step.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = BinPath("extracta-sim");
  step.timeoutSeconds = 60;
  const RunResult run = RunProgram({Command("srun"), "--jobid=" + job.id(), "-N1", "-n1", "-Q",
                                    BinPath("VelExtracta"), "-z", design, dir / "out.vlx"},
                                   step);
  EXPECT_FALSE(run.timedOut) << "the children's steps waited for the run's own CPUs";
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(IsPointerLine(run.out, "VLX file written: ")) << run.out;
  EXPECT_EQ(ArchiveLeaves(dir / "out.vlx").size(), 47u);
  EXPECT_TRUE(PollUntil([&] { return job.Steps().empty(); }, 5));
}

// A child that fails through the farm fails the run exactly as on this
// machine, and the run's steps still running are cancelled; another step of
// the job is not the run's to end.
TEST_F(SlurmRun, FailingChildFailsTheRunAsOnThisMachine) {
  TempDir scratch;
  Started neighbour = StartProgram({Command("srun"), "--jobid=" + job.id(), "-N1", "-n1",
                                    "--overlap", "-J", "neighbour", "sleep", "300"},
                                   {}, scratch / "out", scratch / "err");
  ASSERT_TRUE(PollUntil([&] { return job.Steps().size() == 1; }, 10)) << ReadFile(scratch / "err");
  const std::vector<std::string> others = job.Steps();
  for (const bool onFarm : {false, true}) {
    SCOPED_TRACE(onFarm ? "farm" : "this machine");
    RunOptions failing;
    if (onFarm) failing.env = job.Environment();
    failing.env["EXTRACTA_SIM_MATCH"] = "extracta_control_connremainder.txt";
    failing.env["EXTRACTA_SIM_FAIL"] = "3:ERROR: bad view";
    failing.env["EXTRACTA_SIM_SLEEP_MS"] = "300";
    ProgramRun run({"-z", design, dir / "out.vlx"}, failing);
    ExpectOutcome(run, 1, false, "view creation failed (1).\n");
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
    EXPECT_FALSE(PathExists(dir / "out.vlx"));
    EXPECT_TRUE(PollUntil([&] { return job.Steps() == others; }, 5))
        << ::testing::PrintToString(job.Steps());
  }
  RunProgram({Command("scancel"), others[0].substr(0, others[0].find(' '))});
  WaitProgram(neighbour, 30, scratch / "out", scratch / "err");
  ReleaseProgram(neighbour);
}

// SIGINT, SIGTERM and SIGHUP cancel every step through the controller; a
// VelExtracta killed outright leaves none either: its srun children are told
// as it dies and cancel theirs, and the watchdog kills what is left.
TEST_F(SlurmRun, InterruptOrKillLeavesNoStepAndNoProcess) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGKILL}) {
    SCOPED_TRACE(signal);
    RunOptions hung;
    hung.env = job.Environment();
    hung.env["EXTRACTA_SIM_SLEEP_MS"] = "600000";
    ProgramRun run({"-z", design, dir / "out.vlx"}, hung);
    ASSERT_TRUE(PollUntil([&] { return job.Steps().size() == 4; }, 30))
        << ::testing::PrintToString(job.Steps());
    ASSERT_TRUE(SendSignal(run.pid(), signal));
    const auto sent = std::chrono::steady_clock::now();
    EXPECT_TRUE(PollUntil([&] { return job.Steps().empty() && run.Survivors().empty(); }, 5))
        << ::testing::PrintToString(job.Steps()) << ::testing::PrintToString(run.Survivors());
    std::cout << "signal " << signal << ": steps and processes gone after "
              << std::chrono::duration<double>(std::chrono::steady_clock::now() - sent).count()
              << " s\n";
    if (signal == SIGKILL) {
      EXPECT_EQ(run.Wait().exitCode, 128 + SIGKILL);
      for (const std::string& left : WorkingDirs(dir.path()))
        std::filesystem::remove_all(dir / left);
      continue;
    }
    ExpectOutcome(run, 1, false, "view creation failed (1).\n");
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
  }
}

}  // namespace
