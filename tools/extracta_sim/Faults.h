#pragma once
// Fault and cost injection for the stand-in extractor, read from environment
// variables, so tests and benchmarks of the program can make a run fail, die,
// hang, chatter, take time or write a damaged view file on purpose.

#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace extracta_sim {

class FaultPlanError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct FaultPlan {
  std::string match;  // glob on the control file's base name; empty: every run

  std::optional<int> failCode;  // exit with this code after printing failMessage
  std::string failMessage;
  int signal = 0;  // kill itself with this signal
  std::uint64_t printBytes = 0;
  std::uint64_t sleepMs = 0;
  std::uint64_t nsPerRecord = 0;

  std::optional<double> grandchildSeconds;  // leave a sleeping grandchild behind
  std::string grandchildPidFile;
  bool grandchildKeepsOutput = false;  // the grandchild holds stdout and stderr open

  bool writeNoOutput = false;
  bool truncateOutput = false;
  // Each view is written under another name and renamed onto its output
  // file when done; the output file holds a placeholder meanwhile (empty, or
  // the view's two header lines).
  bool renameOutput = false;
  bool headerPlaceholder = false;
  bool lfLineEnds = false;
  std::vector<std::string> droppedFields;

  // Not injections: they apply to every run.
  std::string logFile;  // one line per run: start ns, end ns, pid, control file name
  std::string date;     // extraction date written into the job record
};

using EnvLookup = std::function<const char*(const char*)>;

// Reads every EXTRACTA_SIM_* variable; throws FaultPlanError naming the
// variable whose value cannot be understood.
FaultPlan ReadFaultPlan(const EnvLookup& lookup);

// Whether the injections apply to a run on the control file `controlPath`.
bool AppliesTo(const FaultPlan& plan, const std::string& controlPath);

// The name of a path without its directory part ("/" or "\" separated).
std::string BaseName(const std::string& path);

// Leaves a process that sleeps for `seconds` and then ends; returns its pid.
// Unless `keepOutput`, the child lets go of standard output and error first,
// so it does not keep a reader of the parent's output waiting.
int LeaveGrandchild(double seconds, bool keepOutput);

// Writes `count` bytes of plain text lines to standard output.
void PrintFiller(std::uint64_t count);

}  // namespace extracta_sim
