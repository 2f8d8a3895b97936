// The fault matrix: the built program run under faults, each test one or more
// rows of docs/reliability.md. Every row starts from a design in a directory of
// its own and an archive that an earlier run left at the output path; a run
// that fails must leave that archive, and everything else beside it, exactly
// as it was.
//
// Each test carries its row in a comment block:
//   // Row: the fault
//   // Outcome: what the program does
//   //   (continued on indented comment lines)
// directly above the TEST, or with a line
//   // Proof: tests/<file>.cpp Suite.Name
// when another test (often a table holding several rows) proves the row.
// scripts/reliability-doc builds the table from these blocks, and a test
// fails when the committed page differs.
//
// Extractor faults: extracta missing, dying, failing (after a flood of output
// or not), writing no view file or a damaged survey, leaving a grandchild
// behind, hanging while the program is interrupted or killed. File system
// faults: directories the program may not write, output paths it cannot
// deliver to, a disk that fills up while the program itself writes, and paths
// it cannot add or look at. "Not writable" needs an unprivileged user: when
// the tests run as root, the program runs as "nobody" for these rows (see
// RunOptions::unprivileged), and the directories it must write are opened
// to everybody. Awkward names: paths and net names with blanks, quotes,
// commas, leading dashes and non-ASCII characters.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "process/ExtractaViewGenerator.h"
#include "tests/support/TestSupport.h"
#include "tools/extracta_sim/Faults.h"

namespace {

using namespace veltest;

const char kViewCreationFailed[] = "view creation failed (1).\n";
const char kPackagingFailed[] = "view creation failed (2).\n";

class FaultMatrix : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile(design(), ReadFile(SampleDesign()));
    ASSERT_TRUE(MakeDirectory(outDir()));
    WriteFile(archive(), "the archive of an earlier run");
    WriteFile(dir / "out/notes.txt", "the user's own notes");
    outBefore = Snapshot(outDir());
  }

  std::string design() const { return dir / "pkg.mcm"; }
  std::string archive() const { return dir / "out/pkg.vlx"; }
  std::string outDir() const { return dir / "out"; }

  // What every failed run must show: exit code 1, the exact lines (the
  // success line first when packaging failed), no process of the run left,
  // no working directory beside the design or in the output directory, and
  // the output directory as it was before the run.
  void ExpectCleanFailure(ProgramRun& run, const std::string& failureLine,
                          bool packagingFailed = false) {
    ExpectOutcome(run, 1, packagingFailed, failureLine);
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
    EXPECT_EQ(Snapshot(outDir()), outBefore);
  }

  // What a successful run must show: exit code 0, the success line alone, no
  // process of the run left and no working directory beside the design.
  void ExpectCleanSuccess(ProgramRun& run) {
    ExpectOutcome(run, 0, true, "");
    EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
  }

  // A disk that is full once the program itself has written `bytes` to one
  // file: the extractor lifts the limit again for itself.
  RunOptions DiskFullAt(long long bytes) {
    RunOptions options;
    options.wrapper = {"/usr/bin/prlimit", "--fsize=" + std::to_string(bytes) + ":"};
    const std::string extractor = dir / "extracta-unlimited";
    WriteFile(extractor,
              "#!/bin/sh\nulimit -f unlimited\nexec '" + BinPath("extracta-sim") + "' \"$@\"\n");
    chmod(extractor.c_str(), 0755);
    options.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = extractor;
    return options;
  }

  TempDir dir;
  std::map<std::string, std::string> outBefore;
};

using ExtractorFaults = FaultMatrix;
using FileSystemFaults = FaultMatrix;
using NameFaults = FaultMatrix;

const char kSurvey[] = "extracta_control_connnets.txt";

// Row: extracta missing
// Outcome: exit 1, "view creation failed (1)." on standard error, nothing on
//   standard output. The first child cannot start, and the control files
//   already written go with the working directory. Cell runs (one extracta
//   process) end the same way, and so does a missing extracta.exe on PATH.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
// Row: extracta killed by a signal
// Outcome: exit 1, "view creation failed (1).". The crash of one connectivity
//   piece (SIGSEGV or SIGKILL) ends every other child at once.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
// Row: extracta exits non-zero after printing several MiB
// Outcome: exit 1, "view creation failed (1)." and nothing else: what the
//   child printed is kept only in the failure's message, which is not shown.
//   The child never stalls on a full pipe, so the run ends as soon as it
//   fails.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes no output file
// Outcome: exit 1, "view creation failed (1).". A view file that extracta
//   did not write fails the run, whichever view it is (in the cell run's one
//   process too), instead of an archive delivered without that view.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes a malformed connectivity survey
// Outcome: exit 1, "view creation failed (1).": a survey with bare LF line
//   ends does not parse, and the children already running for other views
//   are ended.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
// Row: extracta writes a survey without a NET_NAME column
// Outcome: exit 1, "view creation failed (1).": without the column the
//   survey's nets cannot be told apart, so it counts as a failed survey.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.ChildFailures
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

using Clock = std::chrono::steady_clock;

// Row: the program itself killed outright (SIGKILL, the out-of-memory
//   killer) mid-run
// Outcome: every extracta child ends with it, and so does every process a
//   child started in its process group (the watchdog on Linux, the job
//   objects on Windows), all within two seconds; queued ones never start;
//   nothing is packed or moved. The working directory stays behind: nothing
//   of a killed run is left to remove it.
// Proof: tests/faults/FaultMatrixTest.cpp ExtractorFaults.HungChildInterruptedOrKilled
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
    const std::vector<std::string> left = WorkingDirs(dir.path());
    ASSERT_EQ(left.size(), 1u);
    std::filesystem::remove_all(dir / left[0]);
  }
}

// Row: the base directory (beside the design) is not writable
// Outcome: exit 1, "view creation failed (1).": the working directory cannot
//   be created, no extracta starts, and the archive already at the output
//   path is left as it was.
// Proof: tests/faults/FaultMatrixTest.cpp FileSystemFaults.UnwritableDirectories
// Row: the output directory is not writable
// Outcome: moving into it: exit 1, "view creation failed (1).", since the
//   working directory is made inside an output directory and cannot be;
//   its files stay as they were. Zipping into it: the views are created
//   beside the design, then exit 1 with the success line followed by
//   "view creation failed (2)."; the earlier archive there is left as it
//   was and the working directory is removed.
TEST_F(FileSystemFaults, UnwritableDirectories) {
  VEL_SKIP_ON_WINDOWS("directory mode bits and the user \"nobody\"");
  struct Row {
    mode_t designDirMode;
    mode_t outDirMode;
    std::vector<std::string> args;
    bool packagingFailed;
  };
  const std::vector<Row> rows = {
      {0555, 0777, {"-z", design(), archive()}, false},
      {0755, 0555, {"-cell", design(), outDir()}, false},
      {0777, 0555, {"-z", design(), archive()}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.back());
    ASSERT_EQ(chmod(dir.path().c_str(), row.designDirMode), 0);
    ASSERT_EQ(chmod(outDir().c_str(), row.outDirMode), 0);
    RunOptions unprivileged;
    unprivileged.unprivileged = true;
    ProgramRun run(row.args, unprivileged);
    ExpectCleanFailure(run, row.packagingFailed ? kPackagingFailed : kViewCreationFailed,
                       row.packagingFailed);
  }
}

// Row: the output path is in a directory that does not exist, is an existing
//   directory when zipping, or names no directory when moving
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive cannot be opened, or the views cannot be moved, and nothing
//   is created on the way (no directory, no partial archive); the working
//   directory, beside the design or in the output directory, is removed.
TEST_F(FileSystemFaults, OutputPathsThatCannotBeDeliveredTo) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"-z", design(), outDir() + "/missing/pkg.vlx"},
                                             {design(), outDir() + "/missing/views"},
                                             {"-cell", "-z", design(), outDir()},
                                             {"-cell", design(), dir / "none"}}) {
    SCOPED_TRACE(args.back());
    ProgramRun run(args);
    ExpectCleanFailure(run, kPackagingFailed, /*packagingFailed=*/true);
    EXPECT_FALSE(PathExists(dir / "none"));
  }
}

// Row: the disk fills up during the merge of the connectivity pieces
// Outcome: exit 1, "view creation failed (1).": the program ignores SIGXFSZ,
//   so the write that no longer fits fails (EFBIG) instead of killing the
//   program, and the failure path ends the children and removes the working
//   directory with the partial conn.txt.
// Proof: tests/faults/FaultMatrixTest.cpp FileSystemFaults.DiskFillsUpDuringTheMergeOrTheZipping
// Row: the disk fills up while the archive is written
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive is assembled in a temporary file beside the output path,
//   which is removed when a write fails, so the earlier archive there is
//   left as it was; the working directory is removed.
TEST_F(FileSystemFaults, DiskFillsUpDuringTheMergeOrTheZipping) {
  VEL_SKIP_ON_WINDOWS("file size limits are a POSIX resource limit");
  // The disk is full halfway through the merged connectivity file, or halfway
  // through the cell run's archive.
  ProgramRun measure({"-z", "-cell", design(), dir / "measured.vlx"});
  ASSERT_EQ(measure.Wait().exitCode, 0);
  const struct {
    std::vector<std::string> args;
    std::size_t full;
    const char* line;
  } rows[] = {
      {{"-z", design(), archive()},
       PlainConnectivity(design(), dir.path()).size() / 2,
       kViewCreationFailed},
      {{"-z", "-cell", design(), archive()},
       ReadFile(dir / "measured.vlx").size() / 2,
       kPackagingFailed},
  };
  // Above the largest control file the program writes itself, the cell run's.
  const std::size_t control =
      ReadFile(std::string(VEL_SOURCE_DIR) + "/tests/views/golden/cell.txt").size();
  for (const auto& row : rows) {
    ASSERT_GT(row.full, control);
    ProgramRun run(row.args, DiskFullAt(static_cast<long long>(row.full)));
    ExpectCleanFailure(run, row.line, row.line == std::string(kPackagingFailed));
  }
}

// Row: an added file whose name the working directory already holds (a view
//   file's), an added directory, an added file that does not fit on the disk,
//   or a design path whose status cannot be read (a loop of symbolic links)
// Outcome: exit 1 and one line on standard error that names the path and the
//   system's reason, nothing on standard output; the children are ended, the
//   working directory is removed, nothing is packed or moved, and the design
//   and the added files are left as they were.
TEST_F(FileSystemFaults, PathsThatCannotBeAddedOrLookedAt) {
  VEL_SKIP_ON_WINDOWS(
      "the reasons are the C library's texts; file size limits, symbolic link loops");
  const std::string extra = dir / "extra", loop = dir / "loop.mcm";
  ASSERT_TRUE(MakeDirectory(extra));
  WriteFile(extra + "/layer.txt", "a layer view of the user's own");
  WriteFile(extra + "/big.bin", std::string(256 << 10, 'x'));
  std::filesystem::create_symlink(loop, loop);
  const auto extraBefore = Snapshot(extra);
  const RunOptions full = DiskFullAt(64 << 10);
  const std::string cannotAdd = "cannot add a file to the working directory: ";
  const struct {
    std::vector<std::string> args;
    std::string line;
    RunOptions options;
  } rows[] = {
      {{"-cell", "-z", "-add", extra + "/layer.txt", design(), archive()},
       cannotAdd + "File exists: \"" + extra + "/layer.txt\"\n",
       {}},
      {{"-add", extra, design(), outDir()}, cannotAdd + "Is a directory: \"" + extra + "\"\n", {}},
      {{"-cell", "-z", "-add", extra + "/big.bin", design(), archive()},
       cannotAdd + "File too large: \"" + extra + "/big.bin\"\n",
       full},
      {{"-cell", "-z", loop, archive()},
       "cannot read the status of a path: Too many levels of symbolic links: \"" + loop + "\"\n",
       {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    ProgramRun run(row.args, row.options);
    ExpectCleanFailure(run, row.line);
    EXPECT_EQ(ReadFile(design()), ReadFile(SampleDesign()));
    EXPECT_EQ(Snapshot(extra), extraBefore);
  }
}

// Row: design, output and added paths with blanks, quotes, commas, leading
//   dashes and non-ASCII characters
// Outcome: the run succeeds and every path reaches extracta and the archive
//   unchanged: each is handed over in double quotes, a double quote inside
//   a path escaped so that the child's argument split gives it back. Only
//   the add list is split at commas, so a file whose name holds a comma
//   cannot be added: its pieces name no file and are skipped.
TEST_F(NameFaults, PathsWithAwkwardCharacters) {
  // A backslash before a quote, and one at the end of the design's name,
  // test the escapes of the child's argument split where names hold them.
  const std::string odd = dir / FileName("-odd dir, \\\"q\" 's' ü");
  ASSERT_TRUE(MakeDirectory(odd));
  const std::string designName = FileName("-my design, \"v2\" é.mcm\\");
  const std::string added = FileName("-notes \"a\" 's' ü.csv");
  WriteFile(odd + "/" + designName, ReadFile(design()));
  WriteFile(odd + "/" + added, "net,length\n");
  WriteFile(odd + "/x,y.csv", "never packed\n");

  // Relative paths, from inside the odd directory.
  RunOptions inside;
  inside.cwd = odd;
  const std::string archiveName = FileName("-out, \"x\" ü.vlx");
  ProgramRun zip({"-z", "-add", added + ",x,y.csv", designName, archiveName}, inside);
  ExpectCleanSuccess(zip);
  EXPECT_EQ(WorkingDirs(odd), std::vector<std::string>{});
  const std::vector<std::string> names = ArchiveNames(odd + "/" + archiveName);
  ASSERT_FALSE(names.empty());
  for (const std::string& name : names)
    EXPECT_EQ(name.rfind(WithoutRoot(odd) + "/extract", 0), 0u) << name;
  const std::vector<std::string> leaves = ArchiveLeaves(odd + "/" + archiveName);
  for (const std::string& leaf : {std::string("conn.txt"), std::string("layer.txt"), added})
    EXPECT_TRUE(std::binary_search(leaves.begin(), leaves.end(), leaf)) << leaf;
  EXPECT_FALSE(std::binary_search(leaves.begin(), leaves.end(), "x,y.csv"));
  EXPECT_EQ(ArchiveEntry(odd + "/" + archiveName, added), "net,length\n");

  // Moved into an odd output directory, given by absolute paths.
  const std::string views = dir / FileName("-views, \"q\" ü");
  ASSERT_TRUE(MakeDirectory(views));
  ProgramRun move({"-cell", odd + "/" + designName, views});
  ExpectCleanSuccess(move);
  EXPECT_EQ(ListDir(views), kCellFiles);
  EXPECT_EQ(ReadFile(views + "/layer.txt").rfind("A!", 0), 0u);
}

// Row: net names with blanks, quotes, commas and non-ASCII characters
// Outcome: the run succeeds; each selected name reaches extracta's filter
//   byte for byte (inside single quotes, a quote in the name left as it is)
//   and selects exactly its records, in the survey and the cell views alike.
//   The net list is split at commas, so a net whose name holds a comma
//   cannot be selected; its records still reach conn.txt by the remainder.
TEST_F(NameFaults, NetNamesWithAwkwardCharacters) {
  // Records per net; "a,b" is one net whose name holds a comma.
  const std::vector<std::pair<std::string, int>> nets = {
      {"VDD CORE", 6}, {"GND's", 5}, {"\"CLK\"", 4}, {"Ünïcode", 3}, {"a,b", 2}, {"plain", 1}};
  const char* classes[] = {"ETCH", "PIN", "VIA CLASS", "CONDUCTOR"};
  std::vector<NetClass> records;
  std::vector<std::string> all, selected;  // the NET_NAME values, sorted
  for (const auto& [net, count] : nets) {
    for (int i = 0; i < count; ++i) records.emplace_back(net, classes[i % 4]);
    all.insert(all.end(), count, net);
    if (count > 2) selected.insert(selected.end(), count, net);
  }
  WithConnectivity(design(), design(), records);
  std::sort(all.begin(), all.end());
  std::sort(selected.begin(), selected.end());
  const auto netNames = [](const std::string& viewFile) {
    std::vector<std::string> names = FieldValues(ReadFile(viewFile), "NET_NAME");
    std::sort(names.begin(), names.end());
    return names;
  };

  const std::string selection = "VDD CORE,GND's,\"CLK\",Ünïcode,a,b";
  const std::string standard =
      RunKeeping(dir.path(), {"-n", selection, "-z", design(), dir / "std.vlx"}).workDir;
  ASSERT_FALSE(standard.empty());
  EXPECT_EQ(netNames(standard + "connnets.txt"), selected);
  EXPECT_EQ(SortedRecords(ReadFile(standard + "conn.txt")),
            SortedRecords(PlainConnectivity(design(), dir.path())));
  EXPECT_EQ(netNames(standard + "conn.txt"), all);

  const std::string cell =
      RunKeeping(dir.path(), {"-cell", "-n", selection, "-z", design(), dir / "c.vlx"}).workDir;
  ASSERT_FALSE(cell.empty());
  EXPECT_EQ(netNames(cell + "cconn.txt"), selected);
}

// Row: 12 or more nets on the command line
// Outcome: the run succeeds and is not restricted to them at all, as with no
//   net option: every net's records are surveyed and extracted. Up to 11
//   nets restrict the run to those nets.
// Proof: tests/views/ViewsTest.cpp ExtractaViewDefTest.NetFiltersFollowTheCountOfNets
// Row: two runs in the same second on the same base
// Outcome: the later run cannot create the working directory the earlier
//   one made and fails (exit 1, "view creation failed (1)."), without
//   removing that directory: the earlier run finishes and delivers all its
//   views.
// Proof: tests/executor/ExecutorTest.cpp ExecutorTest.AClashingRunKeepsTheEarlierDirectory

}  // namespace
