#pragma once
// Running the built VelExtracta under a fault, and looking at what it left:
// its processes (found in /proc by a mark in their environment, which every
// child and grandchild inherits), its working directories, and the place its
// output goes.

#include <sys/types.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace faults {

using EnvMap = std::map<std::string, std::optional<std::string>>;

// A small sample design from make-design, made once per test program.
const std::string& SampleDesign();

struct LaunchOptions {
  std::string cwd;  // empty: the test's current directory
  EnvMap env;       // on top of the defaults below; nullopt unsets
  // Runs the program as the unprivileged user "nobody" when the tests run as
  // root, for whom no directory is ever unwritable; the program and
  // extracta-sim then run from copies that user can reach. Without root the
  // tests' own user is unprivileged already and nothing changes.
  bool unprivileged = false;
  // A soft limit on the size of any file the program writes (RLIMIT_FSIZE),
  // standing in for a disk that fills up; 0: none. The hard limit stays, so a
  // child may raise its own soft limit again.
  long long fileSizeLimit = 0;
};

// One run of VelExtracta, started in the background. Unless the options say
// otherwise extracta-sim is the extractor, no fault is injected, the debug
// variable is unset and the extraction date is fixed.
class ProgramRun {
 public:
  ProgramRun(const std::vector<std::string>& args, const LaunchOptions& options = {});
  ~ProgramRun();
  ProgramRun(const ProgramRun&) = delete;
  ProgramRun& operator=(const ProgramRun&) = delete;

  pid_t pid() const { return pid_; }

  // Waits for the end (killing the run's process group after the time-out)
  // and returns the exit code and both streams.
  const veltest::RunResult& Wait(double timeoutSeconds = 120);

  // The processes of this run other than the program itself that still run
  // (zombies do not count), as "pid command line" texts.
  std::vector<std::string> Survivors() const;

 private:
  pid_t pid_ = -1;
  std::string mark_;
  veltest::TempDir streams_;
  std::optional<veltest::TempDir> programCopy_;
  std::optional<veltest::RunResult> result_;
};

// Starts a run and waits for it.
veltest::RunResult RunVelExtracta(const std::vector<std::string>& args,
                                  const LaunchOptions& options = {});

// The entries "extract" + run number of a directory.
std::vector<std::string> WorkingDirs(const std::string& directory);

// Every regular file under a directory (relative path -> its bytes, or its
// size and a hash when long) and every directory (relative path -> "<dir>"),
// for comparing a place before and after a run.
std::map<std::string, std::string> Snapshot(const std::string& directory);

// Entry names of a zip archive as Python's zipfile reads them after its own
// integrity test, sorted; empty (with a failed expectation) when damaged.
std::vector<std::string> ArchiveNames(const std::string& archive);

// The bytes of one archive entry.
std::string ArchiveEntry(const std::string& archive, const std::string& name);

// The file name part of a path or entry name.
std::string Leaf(const std::string& path);

// True when the text is exactly one outcome line: the label, a pointer value
// ("0x" and hexadecimal digits) and a line feed.
bool IsPointerLine(const std::string& text, const std::string& label);

// A program that raises its own soft file size limit again and then runs
// extracta-sim, so that a size limit set for the program does not reach the
// extractions.
std::string UnlimitedExtractor(const std::string& directory);

// True when the tests run as root (and so switch users for some runs).
bool RunningAsRoot();

}  // namespace faults
