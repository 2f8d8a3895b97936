#pragma once
// Helpers shared by the test suites: scratch directories, files, environment
// overrides, running a built program with its output captured, and running
// VelExtracta end to end and looking at what a run left.

#include <csignal>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#ifdef _WIN32
// The POSIX signals tests name that Windows lacks: sending SIGKILL ends a
// process there as well; the cases sending any other are skipped.
#ifndef SIGHUP
#define SIGHUP 1
#endif
#ifndef SIGKILL
#define SIGKILL 9
#endif
// Skips the test (where GoogleTest is included) on Windows, saying why.
#define VEL_SKIP_ON_WINDOWS(reason) GTEST_SKIP() << "POSIX only: " << (reason)
#else
#define VEL_SKIP_ON_WINDOWS(reason) static_cast<void>(0)
#endif

namespace veltest {

// Directory names in the system's own spellings, and the directory text
// LongFileName makes of each.
#ifdef _WIN32
constexpr bool kOnWindows = true;
// A name written with "\\" goes on with it.
inline const std::vector<std::pair<std::string, std::wstring>> kSystemDirectoryNames = {
    {"C:\\d\\e", L"C:\\d\\e\\"},
    {"C:\\d/e\\\\", L"C:\\d/e\\"},
    {"C:/d", L"C:/d/"},
    {"C:\\", L"C:\\"},
    {"C:", L"C:./"}};
#else
constexpr bool kOnWindows = false;
// "\\" is an ordinary character here.
inline const std::vector<std::pair<std::string, std::wstring>> kSystemDirectoryNames = {
    {"a\\b\\", L"a\\b\\/"}};
#endif

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }  // no trailing separator
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Sets (or, with nullopt, unsets) an environment variable.
void SetEnv(const std::string& name, const std::optional<std::string>& value);

// Sets (or, with nullopt, unsets) an environment variable while it lives.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, std::optional<std::string> value);
  ~ScopedEnv();

 private:
  std::string name_;
  std::optional<std::string> old_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool PathExists(const std::string& path);
// The text with each CR LF line end turned into LF.
std::string WithoutCarriageReturns(const std::string& text);
// True when the directory was made (it did not exist).
bool MakeDirectory(const std::string& path);
// A file name as the system allows it: on Windows without the double quotes
// and backslashes it cannot hold.
std::string FileName(std::string name);
// An absolute path without its root ("/", or a drive and "/" on Windows), as
// archives name their entries.
std::string WithoutRoot(const std::string& path);
// Names of the entries of a directory (top level), sorted.
std::vector<std::string> ListDir(const std::string& path);

// Path of a program built into the build tree's bin directory.
std::string BinPath(const std::string& program);

struct RunResult {
  int exitCode = -1;  // exit status, or 128 + signal number
  std::string out;    // standard output
  std::string err;    // standard error
  bool timedOut = false;
};

using EnvMap = std::map<std::string, std::optional<std::string>>;

struct RunOptions {
  std::string cwd;  // empty: the current directory
  EnvMap env;       // set (value) or unset (nullopt); EXTRACTA_SIM_* never leaks in
  double timeoutSeconds = 120;
  // POSIX: a program and its arguments that run the program given after them
  // (prlimit for a full disk, script for a terminal).
  std::vector<std::string> wrapper = {};
  // ProgramRun: as the user "nobody" (when run as root), running copies of the
  // program and extracta-sim that "nobody" can reach.
  bool unprivileged = false;
};

// A started program: its process id, also its process group's on POSIX; on
// Windows its process handle.
struct Started {
  int pid = -1;
  void* process = nullptr;
};

// Starts, waits and releases.
RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Sends the signal; on Windows only SIGKILL, as TerminateProcess with the exit
// code a SIGKILL shows on POSIX (137). True when it was sent.
bool SendSignal(int pid, int signal);
inline void KillProcess(int pid) { SendSignal(pid, SIGKILL); }

// Seconds since 1970 of the local wall clock now: the run number of a run
// started now.
long LocalSecondsNow();

// Polls the condition every few milliseconds for at most `seconds`.
bool PollUntil(const std::function<bool()>& condition, double seconds);

// Running the built VelExtracta end to end, with extracta-sim standing in for
// extracta, and looking at what a run left: its processes (on POSIX found in
// /proc by a mark in their environment, which every child and grandchild
// inherits; on Windows the program's descendants), its working directories,
// its archive, its view files and the stand-in's run log.

// The views of the default set other than conn, in the set's order, and the
// files a cell run delivers (its views and its control file), sorted.
inline const std::vector<std::string> kOtherStandardViews = {
    "layer",     "paddef",  "fullgeo",      "diestack",  "net",
    "component", "outline", "compositepad", "logicalpin"};
inline const std::vector<std::string> kCellFiles = {"cconn.txt", "cfullgeo.txt", "diestack.txt",
                                                    "extracta_control.txt", "layer.txt"};

// A design from make-design in `directory`; the sample design (seed 5, 300
// connectivity records) is made once per test program.
const std::string& SampleDesign();
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
  std::string header, body;
};
ViewParts SplitHeader(const std::string& bytes);
std::vector<std::string> SortedRecords(const std::string& bytes);
std::vector<std::string> FieldValues(const std::string& bytes, const std::string& field);

// The stand-in's run log (EXTRACTA_SIM_LOG), one line a run, read in the order
// the runs started; the most runs under way at one moment.
struct SimRun {
  uint64_t startNs = 0, endNs = 0;
  int pid = 0;
  std::string control;  // control file name, no directory
};
std::vector<SimRun> ReadSimLog(const std::string& path);
int MostAtOnce(const std::vector<SimRun>& runs);

// One run of VelExtracta, started in the background. Unless the options say
// otherwise extracta-sim is the extractor, no fault is injected, no run log is
// written, the debug variable is unset and the extraction date is fixed.
class ProgramRun {
 public:
  ProgramRun(const std::vector<std::string>& args, const RunOptions& options = {});
  ~ProgramRun();

  int pid() const { return started_.pid; }
  // Waits for the end (killing the run's process group after the time-out).
  const RunResult& Wait(double timeoutSeconds = 120);
  // The run's processes but the program itself that still run (zombies do
  // not count), as "pid command line" texts.
  std::vector<std::string> Survivors() const;

 private:
  std::string MarkEntry() const;

  Started started_;
  std::string mark_;
  TempDir streams_;
  std::optional<TempDir> programCopy_;
  std::optional<RunResult> result_;
};

// One run with its working directory kept (debug on) and the stand-in's run
// log in `base`/sim.log: checks that it succeeded with the success line alone
// on standard output and left no process, then moves the one working
// directory it left in `base` out of the next run's way; its new path (with a
// "/", "" when the run left none) and the runs the log lists.
struct KeptRun {
  std::string workDir;
  std::vector<SimRun> runs;
};
KeptRun RunKeeping(const std::string& base, const std::vector<std::string>& args,
                   RunOptions options = {});

// Waits for the run and checks its outcome: not timed out, the exit code, on
// standard output the one success line ("VLX file written: " and a pointer
// value) or nothing, standard error exactly `err`, and no process of the run
// left.
void ExpectOutcome(ProgramRun& run, int exitCode, bool successLine, const std::string& err);
// True when the text is exactly the label, a pointer value ("0x" and
// hexadecimal digits) and a line feed.
bool IsPointerLine(const std::string& text, const std::string& label);

// The entries "extract" + run number of a directory; every file (relative
// path -> bytes) and directory (-> "<dir>") under one, to compare before and
// after a run.
std::vector<std::string> WorkingDirs(const std::string& directory);
std::map<std::string, std::string> Snapshot(const std::string& directory);

// A zip archive read back through the library, every entry checked: entry
// name -> bytes and compression method (empty, with a failed expectation,
// when damaged); the entry names, sorted; their file name parts, sorted; the
// bytes of the one entry named `leaf`.
struct ArchiveFile {
  std::string data;
  int method = 0;
};
std::map<std::string, ArchiveFile> ReadArchive(const std::string& archive);
std::vector<std::string> ArchiveNames(const std::string& archive);
std::vector<std::string> ArchiveLeaves(const std::string& archive);
std::string ArchiveEntry(const std::string& archive, const std::string& leaf);
std::string Leaf(const std::string& path);

}  // namespace veltest
