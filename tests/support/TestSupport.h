#pragma once
// Helpers shared by the test suites: scratch directories, files, environment
// overrides, and running a built program with its output captured.

#include <csignal>
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

#ifdef _WIN32
constexpr bool kOnWindows = true;
#else
constexpr bool kOnWindows = false;
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

// Sets (or, with nullopt, unsets) an environment variable while it lives.
class ScopedEnv {
 public:
  ScopedEnv(std::string name, std::optional<std::string> value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  std::optional<std::string> old_;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool PathExists(const std::string& path);
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
  // A soft RLIMIT_FSIZE standing in for a full disk (0: none); the hard limit
  // stays, so a child may raise its own soft limit again.
  long long fileSizeLimit = 0;
  bool unprivileged = false;  // as the user "nobody" (when run as root)
  // Above 0: standard error on a pseudo-terminal this many columns wide (no
  // output processing, so its bytes arrive as written); what it showed is the
  // run's `err`.
  int terminalColumns = 0;
  bool outputOnTerminal = false;  // standard output there too
};

// A started program: its process id, also its process group's on POSIX; the
// pseudo-terminal's master side (-1: none); on Windows its process handle.
struct Started {
  int pid = -1;
  int terminal = -1;
  void* process = nullptr;
};

// The one launcher: starts argv[0] (a path) in a process group of its own,
// standard input from the null device, standard output and error into the
// files. On Windows the result's texts have CR LF line ends turned into LF,
// as the standard streams there are in text mode.
Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile);
// Waits for a started program, killing its process group after the time-out.
RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile);
// Lets the system forget a waited-for program: on Windows its id, held until
// then, may name another process afterwards.
void ReleaseProgram(Started& started);
// Starts, waits and releases.
RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Processes not yet ended, as (pid, command line; on Windows program name):
// on POSIX those whose environment holds `mark` ("NAME=value", inherited by
// every child), on Windows `root` and its descendants (a process keeps its
// parent's id after the parent ended).
std::vector<std::pair<int, std::string>> RunProcesses(int root, const std::string& mark);
// The processes of the tree `group` started: on POSIX its process group,
// zombies too unless liveOnly; on Windows, where ended processes are gone,
// RunProcesses' ids.
std::vector<int> ProcessesInGroup(int group, bool liveOnly = false);
// Whether the process still exists (on POSIX a zombie, not yet reaped, does).
bool ProcessExists(int pid);
// Sends the signal; on Windows only SIGKILL, as TerminateProcess with the exit
// code a SIGKILL shows on POSIX (137). True when it was sent.
bool SendSignal(int pid, int signal);
inline void KillProcess(int pid) { SendSignal(pid, SIGKILL); }

// Polls the condition every few milliseconds for at most `seconds`.
bool PollUntil(const std::function<bool()>& condition, double seconds);

}  // namespace veltest
