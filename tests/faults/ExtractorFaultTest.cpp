// The fault matrix, extractor faults: extracta missing, dying, failing after
// a flood of output, leaving a grandchild behind, writing no view file, and
// writing a damaged connectivity survey.

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/faults/FaultMatrix.h"

namespace faults {
namespace {

const char kViewCreationFailed[] = "view creation failed (1).\n";

// The S records of a view file, sorted.
std::vector<std::string> SortedRecords(const std::string& view) {
  std::vector<std::string> records;
  std::istringstream lines(view);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("S!", 0) == 0) records.push_back(line);
  std::sort(records.begin(), records.end());
  return records;
}

// The bytes of the archive's entry whose file name is `leaf`.
std::string EntryNamed(const std::string& archive, const std::string& leaf) {
  for (const std::string& name : ArchiveNames(archive))
    if (Leaf(name) == leaf) return ArchiveEntry(archive, name);
  ADD_FAILURE() << archive << " holds no " << leaf;
  return "";
}

const std::vector<std::string> kStandardViews = {
    "layer", "paddef",    "fullgeo", "conn",         "diestack",
    "net",   "component", "outline", "compositepad", "logicalpin"};
const std::vector<std::string> kCellViews = {"layer", "cfullgeo", "cconn", "diestack"};

// True when the archive holds a file for each of the views.
bool HoldsEveryView(const std::string& archive, const std::vector<std::string>& views) {
  std::vector<std::string> leaves;
  for (const std::string& name : ArchiveNames(archive)) leaves.push_back(Leaf(name));
  for (const std::string& view : views) {
    if (std::find(leaves.begin(), leaves.end(), view + ".txt") == leaves.end()) return false;
  }
  return true;
}

using ExtractorFaults = FaultMatrix;

// Row: extracta missing
// Outcome: exit 1, "view creation failed (1)." on standard error, nothing on
//   standard output. The first child cannot start, and the control files
//   already written go with the working directory. Cell runs (one extracta
//   process) end the same way, and so does a missing extracta.exe on PATH.
TEST_F(ExtractorFaults, ExtractaMissing) {
  for (const std::vector<std::string>& options :
       {std::vector<std::string>{"-z"}, std::vector<std::string>{"-z", "-cell"}}) {
    SCOPED_TRACE(options.back());
    std::vector<std::string> args = options;
    args.insert(args.end(), {design(), archive()});
    LaunchOptions launch;
    launch.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = dir / "no such extracta";
    ProgramRun run(args, launch);
    ExpectCleanFailure(run, kViewCreationFailed);

    // Looked up on PATH, under its own name, it is not found either.
    launch.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = std::nullopt;
    launch.env["PATH"] = dir.path();
    ProgramRun onPath(args, launch);
    ExpectCleanFailure(onPath, kViewCreationFailed);
  }
}

// Row: extracta killed by a signal
// Outcome: exit 1, "view creation failed (1).". The crash of one connectivity
//   piece (SIGSEGV or SIGKILL) ends every other child at once. With
//   VELTAR_EXTRACTA_DEBUG defined the working directory stays for a look,
//   and standard error ends with the same line.
TEST_F(ExtractorFaults, ExtractaKilledByASignal) {
  for (const char* signal : {"11", "9"}) {
    SCOPED_TRACE(signal);
    LaunchOptions crash;
    crash.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_conn1_*_PIN.txt"},
                 {"EXTRACTA_SIM_SIGNAL", signal}};
    ProgramRun run({"-z", design(), archive()}, crash);
    ExpectCleanFailure(run, kViewCreationFailed);
  }

  LaunchOptions debug;
  debug.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_conn1_*_PIN.txt"},
               {"EXTRACTA_SIM_SIGNAL", "11"},
               {"VELTAR_EXTRACTA_DEBUG", ""}};
  ProgramRun kept({"-z", design(), archive()}, debug);
  const veltest::RunResult& result = kept.Wait();
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.out, "");
  const std::string tail = "\nview creation failed (1).\n";
  ASSERT_GE(result.err.size(), tail.size());
  EXPECT_EQ(result.err.substr(result.err.size() - tail.size()), tail);
  EXPECT_EQ(kept.Survivors(), std::vector<std::string>{});
  const std::vector<std::string> workingDirs = WorkingDirs(dir.path());
  ASSERT_EQ(workingDirs.size(), 1u);
  EXPECT_TRUE(veltest::PathExists(dir / workingDirs[0] + "/extracta_control_connnets.txt"));
  EXPECT_EQ(Snapshot(outDir()), outBefore);
}

// Row: extracta exits non-zero after printing several MiB
// Outcome: exit 1, "view creation failed (1)." and nothing else: what the
//   child printed is kept only in the failure's message, which is not shown.
//   The child never stalls on a full pipe, so the run ends as soon as it
//   fails.
TEST_F(ExtractorFaults, ExtractaFailsAfterPrintingSeveralMebibytes) {
  for (const char* match : {"extracta_control_fullgeo.txt", "extracta_control.txt"}) {
    SCOPED_TRACE(match);
    LaunchOptions chatty;
    chatty.env = {{"EXTRACTA_SIM_MATCH", match},
                  {"EXTRACTA_SIM_PRINT_BYTES", std::to_string(12 << 20)},
                  {"EXTRACTA_SIM_FAIL", "5:ERROR: no license available\n"}};
    const bool cell = std::string(match) == "extracta_control.txt";
    std::vector<std::string> args = {"-z", design(), archive()};
    if (cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, chatty);
    ExpectCleanFailure(run, kViewCreationFailed);
  }
}

// Row: extracta leaves a grandchild running
// Outcome: the run succeeds (exit 0, the success line, the archive written):
//   when a child has ended, whatever it left in its process group is ended
//   too, so nothing of the run outlives it; a grandchild that holds the
//   output pipe open does not hold the run up.
TEST_F(ExtractorFaults, ExtractaLeavesAGrandchildRunning) {
  for (const char* keepsOutput : {"0", "1"}) {
    SCOPED_TRACE(keepsOutput);
    for (const bool cell : {false, true}) {
      LaunchOptions leaving;
      leaving.env = {{"EXTRACTA_SIM_GRANDCHILD_SECONDS", "600"},
                     {"EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT", keepsOutput}};
      std::vector<std::string> args = {"-z", design(), dir / "fresh.vlx"};
      if (cell) args.insert(args.begin(), "-cell");
      ProgramRun run(args, leaving);
      ExpectCleanSuccess(run);
      EXPECT_TRUE(HoldsEveryView(dir / "fresh.vlx", cell ? kCellViews : kStandardViews));
    }
  }
}

// Row: extracta writes no output file
// Outcome: exit 1, "view creation failed (1).". A view file that extracta
//   did not write fails the run, whichever view it is (in the cell run's one
//   process too), instead of an archive delivered without that view.
TEST_F(ExtractorFaults, ExtractaWritesNoOutputFile) {
  for (const char* match : {"extracta_control_outline.txt", "extracta_control_conn0_*_PIN.txt",
                            "extracta_control_connnets.txt", "extracta_control.txt"}) {
    SCOPED_TRACE(match);
    LaunchOptions silent;
    silent.env = {{"EXTRACTA_SIM_MATCH", match}, {"EXTRACTA_SIM_OUTPUT", "none"}};
    std::vector<std::string> args = {"-z", design(), archive()};
    if (std::string(match) == "extracta_control.txt") args.insert(args.begin(), "-cell");
    ProgramRun run(args, silent);
    ExpectCleanFailure(run, kViewCreationFailed);
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

  LaunchOptions cut;
  cut.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_connnets.txt"},
             {"EXTRACTA_SIM_OUTPUT", "truncate"}};
  ProgramRun run({"-z", design(), dir / "cut.vlx"}, cut);
  ExpectCleanSuccess(run);

  const std::string survey = EntryNamed(dir / "cut.vlx", "connnets.txt");
  EXPECT_LT(survey.size(), EntryNamed(dir / "intact.vlx", "connnets.txt").size());
  const std::string expected = EntryNamed(dir / "intact.vlx", "conn.txt");
  const std::string delivered = EntryNamed(dir / "cut.vlx", "conn.txt");
  EXPECT_EQ(delivered.substr(0, delivered.find("S!")), expected.substr(0, expected.find("S!")));
  EXPECT_EQ(SortedRecords(delivered), SortedRecords(expected));
  EXPECT_GT(SortedRecords(expected).size(), 100u);
}

// Row: extracta writes a malformed connectivity survey
// Outcome: exit 1, "view creation failed (1).": a survey with bare LF line
//   ends does not parse, and the children already running for other views
//   are ended.
TEST_F(ExtractorFaults, ExtractaWritesAMalformedSurvey) {
  LaunchOptions malformed;
  malformed.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_connnets.txt"},
                   {"EXTRACTA_SIM_OUTPUT", "lf"}};
  ProgramRun run({"-z", design(), archive()}, malformed);
  ExpectCleanFailure(run, kViewCreationFailed);
}

// Row: extracta writes a survey without a NET_NAME column
// Outcome: exit 1, "view creation failed (1).": without the column the
//   survey's nets cannot be told apart, so it counts as a failed survey.
TEST_F(ExtractorFaults, ExtractaWritesASurveyWithoutNetNames) {
  LaunchOptions noColumn;
  noColumn.env = {{"EXTRACTA_SIM_MATCH", "extracta_control_connnets.txt"},
                  {"EXTRACTA_SIM_OUTPUT", "drop-field:NET_NAME"}};
  ProgramRun run({"-z", design(), archive()}, noColumn);
  ExpectCleanFailure(run, kViewCreationFailed);
}

}  // namespace
}  // namespace faults
