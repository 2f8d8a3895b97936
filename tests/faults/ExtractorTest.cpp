// The fault matrix, extractor faults: extracta missing, dying, failing (after
// a flood of output or not), writing no view file or a damaged survey, leaving
// a grandchild behind, hanging while the program is interrupted or killed.

#include "process/ExtractaViewGenerator.h"
#include "tests/faults/FaultMatrix.h"
#include "tools/extracta_sim/Faults.h"

namespace {

using namespace veltest;

const char kSurvey[] = "extracta_control_connnets.txt";

// Row: extracta missing
// Outcome: exit 1, "view creation failed (1)." on standard error, nothing on
//   standard output. The first child cannot start, and the control files
//   already written go with the working directory. Cell runs (one extracta
//   process) end the same way, and so does a missing extracta.exe on PATH.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta killed by a signal
// Outcome: exit 1, "view creation failed (1).". The crash of one connectivity
//   piece (SIGSEGV or SIGKILL) ends every other child at once.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta exits non-zero after printing several MiB
// Outcome: exit 1, "view creation failed (1)." and nothing else: what the
//   child printed is kept only in the failure's message, which is not shown.
//   The child never stalls on a full pipe, so the run ends as soon as it
//   fails.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes no output file
// Outcome: exit 1, "view creation failed (1).". A view file that extracta
//   did not write fails the run, whichever view it is (in the cell run's one
//   process too), instead of an archive delivered without that view.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes a malformed connectivity survey
// Outcome: exit 1, "view creation failed (1).": a survey with bare LF line
//   ends does not parse, and the children already running for other views
//   are ended.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes a survey without a NET_NAME column
// Outcome: exit 1, "view creation failed (1).": without the column the
//   survey's nets cannot be told apart, so it counts as a failed survey.
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.ChildFailures
// Row: extracta exits non-zero in any child: a split run, the remainder,
//   another view, the survey, the cell run's one process
// Outcome: exit 1, "view creation failed (1).": one failed child ends the
//   whole run; the children still running are ended and, with one child at
//   a time, no further child starts.
TEST_F(ExtractorFaults, ChildFailures) {
  struct Row {
    bool cell;
    EnvMap env;
  };
  // The injection, where it is given, strikes the runs its control file matches.
  const auto at = [](const char* match, EnvMap injection) {
    injection["EXTRACTA_SIM_MATCH"] = match;
    return injection;
  };
  const char *fail = "EXTRACTA_SIM_FAIL", *output = "EXTRACTA_SIM_OUTPUT";
  const EnvMap missing = {{"VELTAR_EXTRACTA_PATHOVERRIDE", dir / "no such extracta"}};
  // Looked up on PATH, under its own name, it is not found either.
  const EnvMap notOnPath = {{"VELTAR_EXTRACTA_PATHOVERRIDE", std::nullopt}, {"PATH", dir.path()}};
  const std::vector<Row> rows = {
      {false, missing},
      {true, missing},
      {false, notOnPath},
      {true, notOnPath},
      {false, at("extracta_control_conn1_*_PIN.txt", {{"EXTRACTA_SIM_SIGNAL", "11"}})},
      {false, at("extracta_control_conn0_*_ETCH.txt", {{"EXTRACTA_SIM_SIGNAL", "9"}})},
      {false,
       at("extracta_control_fullgeo.txt", {{"EXTRACTA_SIM_PRINT_BYTES", std::to_string(12 << 20)},
                                           {fail, "5:ERROR: no license available\n"}})},
      {false, at("extracta_control_outline.txt", {{output, "none"}})},
      {false, at(kSurvey, {{output, "none"}})},
      {true, at("extracta_control.txt", {{output, "none"}})},
      {false, at(kSurvey, {{output, "lf"}})},
      {false, at(kSurvey, {{output, "drop-field:NET_NAME"}})},
      {false, at("extracta_control_connremainder.txt", {{fail, "1:injected failure"}})},
      {false, at("extracta_control_outline.txt", {{fail, "2:injected failure"}})},
      {false, at(kSurvey, {{fail, "1:injected failure"}})},
      {true, at("extracta_control.txt", {{fail, "3:ERROR: bad view"}})},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.env) + (row.cell ? " cell" : ""));
    RunOptions launch;
    launch.env = row.env;
    launch.env["EXTRACTA_SIM_LOG"] = dir / "sim.log";
    std::remove((dir / "sim.log").c_str());
    std::vector<std::string> args = {"-z", design(), archive()};
    if (row.cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, launch);
    ExpectCleanFailure(run, kViewCreationFailed);

    // The fault struck where it was meant to. A child that failed with one
    // child at a time was the last started: nothing starts once a failure
    // is seen (a missing view file is only seen when all have ended).
    extracta_sim::FaultPlan plan;
    if (!row.env.count("EXTRACTA_SIM_MATCH")) continue;
    plan.match = *row.env.at("EXTRACTA_SIM_MATCH");
    const std::vector<SimRun> runs = ReadSimLog(dir / "sim.log");
    const auto struck = std::find_if(runs.begin(), runs.end(), [&](const SimRun& sim) {
      return extracta_sim::AppliesTo(plan, sim.control);
    });
    ASSERT_NE(struck, runs.end());
    if (ExtractaViewGenerator::DefaultConcurrencyLimit() == 1 &&
        !row.env.count("EXTRACTA_SIM_OUTPUT")) {
      EXPECT_EQ(struck, runs.end() - 1) << runs.back().control;
    }
  }
}

// Row: extracta leaves a grandchild running
// Outcome: the run succeeds (exit 0, the success line, the archive written):
//   when a child has ended, whatever it left in its process group is ended
//   too, so nothing of the run outlives it; a grandchild that holds the
//   output pipe open does not hold the run up.
TEST_F(ExtractorFaults, ExtractaLeavesAGrandchildRunning) {
  // The cell run's one process leaves one without the pipe, a default run's
  // children leave theirs holding it.
  for (const bool cell : {true, false}) {
    SCOPED_TRACE(cell ? "cell" : "default");
    RunOptions leaving;
    leaving.env = {{"EXTRACTA_SIM_GRANDCHILD_SECONDS", "600"},
                   {"EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT", cell ? "0" : "1"}};
    std::vector<std::string> args = {"-z", design(), dir / "fresh.vlx"};
    if (cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, leaving);
    ExpectCleanSuccess(run);
    const std::vector<std::string> leaves = ArchiveLeaves(dir / "fresh.vlx");
    if (cell) {
      EXPECT_EQ(leaves, kCellFiles);
    } else {
      for (const std::string& view : kOtherStandardViews)
        EXPECT_TRUE(std::binary_search(leaves.begin(), leaves.end(), view + ".txt")) << view;
    }
  }
}

// Row: extracta writes a truncated connectivity survey
// Outcome: the run succeeds and delivers complete connectivity: a survey cut
//   inside a record reads as a shorter survey, and the survey only chooses
//   which nets get processes of their own; the remainder extracts every other
//   net. conn.txt holds the same records as with an intact survey.
TEST_F(ExtractorFaults, ExtractaWritesATruncatedSurvey) {
  ProgramRun intact({"-z", design(), dir / "intact.vlx"});
  ExpectCleanSuccess(intact);
  RunOptions cut;
  cut.env = {{"EXTRACTA_SIM_MATCH", kSurvey}, {"EXTRACTA_SIM_OUTPUT", "truncate"}};
  ProgramRun run({"-z", design(), dir / "cut.vlx"}, cut);
  ExpectCleanSuccess(run);

  EXPECT_LT(ArchiveEntry(dir / "cut.vlx", "connnets.txt").size(),
            ArchiveEntry(dir / "intact.vlx", "connnets.txt").size());
  const std::string expected = ArchiveEntry(dir / "intact.vlx", "conn.txt");
  const std::string delivered = ArchiveEntry(dir / "cut.vlx", "conn.txt");
  EXPECT_EQ(SplitHeader(delivered).header, SplitHeader(expected).header);
  EXPECT_EQ(SortedRecords(delivered), SortedRecords(expected));
  EXPECT_GT(SortedRecords(expected).size(), 100u);
}

// Row: extracta rewrites a connectivity piece shorter once it has written it
// Outcome: the run succeeds, and conn.txt is the first piece's header and
//   every piece's body as the pieces finally stand, the shortened one
//   included: what was compressed while the piece was written is dropped,
//   and the combined file is written out in full for the zip writer.
TEST_F(ExtractorFaults, ExtractaRewritesAPieceShorter) {
  // The remainder must be several compression segments long, and written
  // slowly enough to be followed past its final length.
  const std::string large = MakeDesign(dir.path(), 11, 150000);
  RunOptions shortened;
  shortened.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_connremainder.txt"},
                   {"EXTRACTA_SIM_OUTPUT", "truncate"},
                   {"EXTRACTA_SIM_NS_PER_RECORD", "10000"}};
  ProgramRun run({"-z", large, dir / "short.vlx"}, shortened);
  ExpectCleanSuccess(run);

  const std::string archive = dir / "short.vlx";
  std::string bodies;
  for (const std::string& leaf : ArchiveLeaves(archive))
    if (leaf.rfind("conn", 0) == 0 && leaf != "conn.txt" && leaf != "connnets.txt")
      bodies += SplitHeader(ArchiveEntry(archive, leaf)).body;
  const std::string remainder = SplitHeader(ArchiveEntry(archive, "connremainder.txt")).body;
  ASSERT_GT(remainder.size(), 2u << 20);                      // half of what was followed
  EXPECT_NE(remainder.substr(remainder.size() - 2), "\r\n");  // cut inside a record
  const std::string delivered = SplitHeader(ArchiveEntry(archive, "conn.txt")).body;
  EXPECT_EQ(delivered.size(), bodies.size());
  EXPECT_EQ(delivered.substr(delivered.size() - remainder.size()), remainder);
}

using Clock = std::chrono::steady_clock;

// Row: the program itself killed outright (SIGKILL, the out-of-memory
//   killer) mid-run
// Outcome: every extracta child ends with it, and so does every process a
//   child started in its process group (the watchdog on Linux, the job
//   objects on Windows), all within two seconds; queued ones never start;
//   nothing is packed or moved. The watchdog then removes the working
//   directory and its mark (on Windows the next run on the base does).
// Proof: tests/faults/ExtractorTest.cpp ExtractorFaults.HungChildInterruptedOrKilled
// Row: a hung child, and SIGTERM, SIGINT or SIGHUP to the program mid-run
// Outcome: exit 1, "view creation failed (1).", nothing packed or moved. The
//   signal ends every running child's process tree at once (all of them gone
//   within a second, grandchildren included), queued children never start,
//   the threads deflating finished views end, and the working directory is
//   removed.
TEST_F(ExtractorFaults, HungChildInterruptedOrKilled) {
  struct Case {
    int signal;
    bool cell;  // the cell run's one extracta, outside the generator pool
    // Only this child hangs: every view before it was handed to the packer.
    const char* match;
  };
  for (const Case& c :
       {Case{SIGTERM, false, nullptr}, Case{SIGINT, false, nullptr}, Case{SIGHUP, false, nullptr},
        Case{SIGINT, true, nullptr}, Case{SIGTERM, false, "extracta_control_connremainder.txt"},
        Case{SIGKILL, false, nullptr}, Case{SIGKILL, true, nullptr}}) {
    // Ctrl-C, Ctrl-Break and console close reach a console program under wine
    // only from a terminal, which a test run does not have.
    if (kOnWindows && c.signal != SIGKILL) continue;
    SCOPED_TRACE(std::to_string(c.signal) + (c.cell ? " cell" : ""));
    const bool killed = c.signal == SIGKILL;
    RunOptions hung;
    hung.env = {{"EXTRACTA_SIM_SLEEP_MS", "600000"}};
    // The grandchild an extracta leaves goes with an interrupt and a kill alike.
    hung.env["EXTRACTA_SIM_GRANDCHILD_SECONDS"] = "600";
    if (c.match) hung.env["EXTRACTA_SIM_MATCH"] = c.match;
    std::vector<std::string> args = {"-z", design(), archive()};
    if (c.cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, hung);
    // What the folder holds with nothing of a run in it.
    TempDir clean;
    WriteFile(clean / "pkg.mcm", "");
    MakeDirectory(clean / "out");
    // An extracta, its grandchild and, on Linux, the watchdog.
    ASSERT_TRUE(PollUntil([&] { return run.Survivors().size() >= (kOnWindows ? 2u : 3u); }, 60));
    ASSERT_TRUE(SendSignal(run.pid(), c.signal));
    const auto sent = Clock::now();
    EXPECT_TRUE(PollUntil([&] { return run.Survivors().empty(); }, killed ? 2.0 : 1.0))
        << "still running after the signal: " << ::testing::PrintToString(run.Survivors());
    if (!killed) {
      ExpectCleanFailure(run, kViewCreationFailed);
      EXPECT_LT(std::chrono::duration<double>(Clock::now() - sent).count(), 5.0);
      continue;
    }
    EXPECT_EQ(run.Wait().exitCode, 128 + SIGKILL);
    EXPECT_EQ(Snapshot(outDir()), outBefore);
    if (kOnWindows) {
      ProgramRun next({"-cell", "-z", design(), outDir() + "/next.vlx"});
      ExpectCleanSuccess(next);
      std::remove((outDir() + "/next.vlx").c_str());
    }
    EXPECT_TRUE(PollUntil([&] { return ListDir(dir.path()) == ListDir(clean.path()); }, 2))
        << ::testing::PrintToString(ListDir(dir.path()));
  }
}

}  // namespace
