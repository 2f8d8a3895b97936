#pragma once
// Helpers for the tests of the default run: designs with chosen connectivity,
// the stand-in extractor's run log, view files taken apart into header and
// records, and one plain connectivity extraction to compare a merge with.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TestSupport.h"

namespace defaultrun {

using EnvMap = std::map<std::string, std::optional<std::string>>;

// One line of the stand-in's run log.
struct SimRun {
  uint64_t startNs = 0;
  uint64_t endNs = 0;
  int pid = 0;
  std::string control;  // control file name, no directory
};

// The log's runs, in the order they started.
std::vector<SimRun> ReadSimLog(const std::string& path);

// The most runs that were under way at one moment.
int MostAtOnce(const std::vector<SimRun>& runs);

// True while a process with the pid exists (a zombie counts).
bool ProcessExists(int pid);

// A view file taken apart: its first two lines (line ends included) and
// everything after them.
struct ViewParts {
  std::string header;
  std::string body;
};
ViewParts SplitHeader(const std::string& bytes);

// The lines of a text, each with its line end; a last line without one is kept.
std::vector<std::string> Lines(const std::string& bytes);

// The S records of a view file, sorted, for comparing as multisets.
std::vector<std::string> SortedRecords(const std::string& bytes);

// The value of a field in each S record of a view file, in file order.
std::vector<std::string> FieldValues(const std::string& bytes, const std::string& field);

// A design from the sample generator.
std::string MakeDesign(const std::string& directory, int seed, int connRecords);

// A copy of `design` whose connectivity table holds exactly one record per
// (net, class) pair given, in order, every other field empty except a record
// tag that tells the records apart.
using NetClass = std::pair<std::string, std::string>;
std::string WithConnectivity(const std::string& design, const std::string& path,
                             const std::vector<NetClass>& records);

// The view file of one extracta-sim run on a control file for the plain
// connectivity view (all nets, all classes): what the default run's conn.txt
// must hold, as records.
std::string PlainConnectivity(const std::string& design, const std::string& scratchDir);

// Environment every run of the program gets: the stand-in as extractor, its
// run log, a fixed extraction date.
EnvMap ExtractorEnv(const std::string& logFile);

// One run of VelExtracta with the working directory kept (debug on).
struct ProgramRun {
  veltest::RunResult result;
  std::string workDir;  // with a trailing "/"; empty when none was left
  std::vector<SimRun> runs;
};
ProgramRun RunProgram(const std::string& base, const std::vector<std::string>& arguments,
                      const EnvMap& extraEnv = {}, bool keepWorkDir = true);

// The working directories ("extract" + digits) found in a directory.
std::vector<std::string> WorkingDirsIn(const std::string& directory);

// The control file names the default run must start, in start order, for
// the standard views and the given split nets' sanitised names.
std::vector<std::string> ExpectedControlFiles(const std::vector<std::string>& sanitisedSplitNets);

}  // namespace defaultrun
