// The fault matrix, launching: settings of the launcher and the slots that
// cannot be used, a node that does not see the working directory, and
// children on a farm that fail or are interrupted.

#include "tests/faults/FaultMatrix.h"

namespace {

using namespace veltest;

// Row: a launcher or slot setting that cannot be used: a farm engine named
//   outside its job (or, on Windows, at all), a command prefix that cannot be
//   split into words or whose program cannot be started, a slot count that is
//   not a whole number from 1 to 1024 (0, -2, four, a number past 64 bits)
// Outcome: exit 1 and one line on standard error naming the setting and why,
//   before anything is made: no working directory, no child, the output
//   untouched.
TEST_F(LaunchFaults, SettingsThatCannotBeUsed) {
  const std::string slurm =
      kOnWindows ? "VELTAR_EXTRACTA_LAUNCHER=slurm: a farm engine's launcher is started from "
                   "Linux only; here, give a command prefix instead\n"
                 : "VELTAR_EXTRACTA_LAUNCHER=slurm: not inside a Slurm allocation (SLURM_JOB_ID "
                   "is not set)\n";
  const std::string missing = dir / "no such wrapper";
  const std::vector<std::pair<EnvMap, std::string>> rows = {
      {{{"VELTAR_EXTRACTA_LAUNCHER", "slurm"}, {"SLURM_JOB_ID", std::nullopt}}, slurm},
      {{{"VELTAR_EXTRACTA_LAUNCHER", "wrap --queue 'short"}},
       "VELTAR_EXTRACTA_LAUNCHER=wrap --queue 'short: cannot be split into words: a single quote "
       "is not closed\n"},
      {{{"VELTAR_EXTRACTA_LAUNCHER", "'" + missing + "' -x"}},
       "VELTAR_EXTRACTA_LAUNCHER='" + missing + "' -x: cannot start " + missing + ": "},
      {{{"VELTAR_EXTRACTA_SLOTS", "0"}}, ""},
      {{{"VELTAR_EXTRACTA_SLOTS", "-2"}}, ""},
      {{{"VELTAR_EXTRACTA_SLOTS", "four"}}, ""},
      {{{"VELTAR_EXTRACTA_SLOTS", "18446744073709551617"}}, ""},
  };
  for (const auto& [env, line] : rows) {
    SCOPED_TRACE(::testing::PrintToString(env));
    RunOptions settings;
    settings.env = env;
    ProgramRun run({"-z", design(), archive()}, settings);
    const RunResult& result = run.Wait();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    // The slot rows: the setting and the rule; the missing program: the
    // system's own words follow.
    const std::string expected = line.empty() ? "VELTAR_EXTRACTA_SLOTS=" + *env.begin()->second +
                                                    ": not a whole number from 1 to 1024\n"
                                              : line;
    if (expected.back() == '\n') {
      EXPECT_EQ(result.err, expected);
    } else {
      EXPECT_EQ(result.err.rfind(expected, 0), 0u) << result.err;
      EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
    EXPECT_EQ(Snapshot(outDir()), outBefore);
  }
}

// Row: a launcher whose node does not see the working directory: the child
//   ends well but its view file never appears
// Outcome: exit 1, "view creation failed (1).", at once: the missing view
//   file fails the run, nothing waits for it.
TEST_F(LaunchFaults, ChildOutputNeverAppears) {
  RunOptions elsewhere;
  // A launcher that reports success without running anything here.
  elsewhere.env = {{"VELTAR_EXTRACTA_LAUNCHER", "'" + BinPath("vel-test-child") + "'"},
                   {"VEL_TEST_CHILD", "exit=0"}};
  for (const bool cell : {false, true}) {
    std::vector<std::string> args = {"-z", design(), archive()};
    if (cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, elsewhere);
    ExpectCleanFailure(run, kViewCreationFailed);
  }
}

// Row: a child on a farm fails (a Slurm job step exits non-zero)
// Outcome: exit 1, "view creation failed (1).", exactly as on this machine;
//   the other steps are cancelled and the job keeps no step of the run.
// Proof: tests/farm/SlurmTest.cpp SlurmRun.FailingChildFailsTheRunAsOnThisMachine
// Row: SIGINT, SIGTERM or SIGHUP to the program, or SIGKILL, while its
//   children run as Slurm job steps
// Outcome: every step is cancelled through the controller (srun quits on
//   the interrupt and cancels its step; a killed program's srun children are
//   told as it dies); an srun left after a second is killed, and a step
//   caught while its task was being launched is sent SIGKILL through the
//   controller: no step and no process of the run within seconds. An
//   interrupt ends the run as on this machine (exit 1, "view creation failed
//   (1).").
// Proof: tests/farm/SlurmTest.cpp SlurmRun.InterruptOrKillLeavesNoStepAndNoProcess
// Row: a Grid Engine job running the program is deleted (qdel)
// Outcome: the engine ends the program and every task it started with
//   qrsh -inherit; no process of the job is left within seconds and nothing
//   is delivered.
// Proof: tests/farm/GridEngineTest.cpp GridEngineJob.DeletedJobLeavesNoProcess

}  // namespace
