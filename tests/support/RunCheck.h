#pragma once
// Running the built VelExtracta end to end, with extracta-sim standing in for
// extracta, and looking at what a run left: its processes (found in /proc by a
// mark in their environment, which every child and grandchild inherits), its
// working directories, its archive, its view files and the stand-in's run log.
// Shared by the end-to-end, default run and fault matrix suites.

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace veltest {

using EnvMap = std::map<std::string, std::optional<std::string>>;

// A small sample design (make-design, seed 5, 300 connectivity records), made
// once per test program.
const std::string& SampleDesign();
// A design from make-design in `directory`.
std::string MakeDesign(const std::string& directory, int seed, int connRecords);

// A copy of `design` at `path` whose connectivity table holds exactly one
// record per (net, class) pair given, in order, every other field empty except
// a record tag that tells the records apart.
using NetClass = std::pair<std::string, std::string>;
std::string WithConnectivity(const std::string& design, const std::string& path,
                             const std::vector<NetClass>& records);
// The view file of one extracta-sim run on a control file for the plain
// connectivity view (all nets): what a default run's conn.txt must hold.
std::string PlainConnectivity(const std::string& design, const std::string& scratchDir);

// View files: the lines (each with its line end), the first two lines and the
// rest, the S records sorted (to compare as multisets), one field's values.
std::vector<std::string> Lines(const std::string& bytes);
struct ViewParts {
  std::string header;
  std::string body;
};
ViewParts SplitHeader(const std::string& bytes);
std::vector<std::string> SortedRecords(const std::string& bytes);
std::vector<std::string> FieldValues(const std::string& bytes, const std::string& field);

// One line of the stand-in's run log (EXTRACTA_SIM_LOG); the log's runs in the
// order they started; the most runs under way at one moment.
struct SimRun {
  uint64_t startNs = 0;
  uint64_t endNs = 0;
  int pid = 0;
  std::string control;  // control file name, no directory
};
std::vector<SimRun> ReadSimLog(const std::string& path);
int MostAtOnce(const std::vector<SimRun>& runs);

struct LaunchOptions {
  std::string cwd;  // empty: the test's current directory
  EnvMap env;       // on top of the defaults of ProgramRun; nullopt unsets
  // Runs the program as the unprivileged user "nobody" when the tests run as
  // root, for whom no directory is ever unwritable; the program and
  // extracta-sim then run from copies that user can reach.
  bool unprivileged = false;
  // A soft limit on the size of any file the program writes (RLIMIT_FSIZE),
  // standing in for a disk that fills up; 0: none. The hard limit stays, so a
  // child may raise its own soft limit again.
  long long fileSizeLimit = 0;
};

// One run of VelExtracta, started in the background. Unless the options say
// otherwise extracta-sim is the extractor, no fault is injected, no run log is
// written, the debug variable is unset and the extraction date is fixed.
class ProgramRun {
 public:
  ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options = {});
  ~ProgramRun();
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;

  pid_t pid() const { return pid_; }
  // Waits for the end (killing the run's process group after the time-out).
  const RunResult& Wait(double timeoutSeconds = 120);
  // The processes of this run other than the program itself that still run
  // (zombies do not count), as "pid command line" texts.
  std::vector<std::string> Survivors() const;

 private:
  pid_t pid_ = -1;
  std::string mark_;
  TempDir streams_;
  std::optional<TempDir> programCopy_;
  std::optional<RunResult> result_;
};

// Waits for the run and checks its outcome: not timed out, the exit code, on
// standard output the one success line ("VLX file written: " and a pointer
// value) or nothing, standard error exactly `err`, and no process of the run
// left.
void ExpectOutcome(ProgramRun& run, int exitCode, bool successLine, const std::string& err);

// The entries "extract" + run number of a directory.
std::vector<std::string> WorkingDirs(const std::string& directory);
// Every file (relative path -> bytes) and directory (-> "<dir>") under a
// directory, to compare a place before and after a run.
std::map<std::string, std::string> Snapshot(const std::string& directory);

// Entry names of a zip archive as Python's zipfile reads them after its own
// integrity test, sorted; empty (with a failed expectation) when damaged.
std::vector<std::string> ArchiveNames(const std::string& archive);
// The file name parts of the archive's entries, sorted.
std::vector<std::string> ArchiveLeaves(const std::string& archive);
// The bytes of the entry whose file name part is `leaf`.
std::string ArchiveEntry(const std::string& archive, const std::string& leaf);
std::string Leaf(const std::string& path);

// True when the text is exactly one outcome line: the label, a pointer value
// ("0x" and hexadecimal digits) and a line feed.
bool IsPointerLine(const std::string& text, const std::string& label);

// An executable shell script `directory`/`name` that runs extracta-sim with
// the run's arguments after the `before` commands and then the `after` ones.
std::string WrappedExtractor(const std::string& directory, const std::string& name,
                             const std::string& before, const std::string& after = "");

bool RunningAsRoot();

}  // namespace veltest
