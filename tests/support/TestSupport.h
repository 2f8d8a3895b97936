#pragma once
// Helpers shared by the test suites: scratch directories, files, environment
// overrides, and running a built program with its output captured.

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace veltest {

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

// A started program: its process id, also its process group's; the
// pseudo-terminal's master side (-1: none); on Windows, where the run has
// ended when StartProgram returns, its exit status.
struct Started {
  int pid = -1;
  int terminal = -1;
  int exitCode = -1;
};

// The one launcher: starts argv[0] (a path) in a process group of its own,
// standard input from /dev/null, standard output and error into the files.
Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile);
// Waits for a started program, killing its process group after the time-out.
RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile);
// Starts and waits.
RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options = {});

// Polls the condition every few milliseconds for at most `seconds`.
bool PollUntil(const std::function<bool()>& condition, double seconds);

}  // namespace veltest
