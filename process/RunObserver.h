#pragma once
// RunObserver: what one run tells whoever follows it (the status line, the
// background packer, the run's report) while its children run. The executor
// hands one observer to every generator and to runExtracta; the process
// layer calls nothing above it except through that object, and a run's
// counts begin at zero, so nothing of an earlier run in the same process
// shows.
//
// Every call comes on the polling thread. The default does nothing, so that an
// observer overrides only what it follows.

#include <cstdint>
#include <string>
#include <vector>

#include "core/AString.h"
#include "views/ViewTypes.h"

// One extracta child as the run knows it. The object stays put from the
// child's start to its end, so observers may tell children apart by its
// address.
struct ChildRun {
  // Its view and net part: "layer", "conn0_GND_PIN", "connremainder"; the
  // cell run's views joined by "+".
  std::string label;
  AString controlFile;
  std::vector<ActiveView> views;  // the view files it writes
  uint32_t slot = 0;              // its place in the pool
  std::string node;               // the farm node it runs on; empty: this machine
  int processId = 0;              // of the process started here (a farm's launcher)
};

// The exit code a child is reported with when the run itself ended it: a
// failure elsewhere, an interrupt.
constexpr int kEndedByRun = -1;

// The run's own steps beside its children.
enum class RunStep {
  kSurvey,    // counting the connectivity survey, planning the split
  kMerge,     // merging the connectivity pieces into one file
  kPacking,   // adding the files to the archive
  kDelivery,  // writing the archive into place, or moving the files
};
const char* RunStepName(RunStep step);  // "survey", "merge", "packing", "delivery"

class RunObserver {
 public:
  virtual ~RunObserver() = default;

  // A child waits for room in the pool.
  virtual void childQueued() {}
  // A child started; `fromQueue` when it had waited for room first.
  virtual void childStarted(const ChildRun& /*child*/, bool /*fromQueue*/) {}
  // A child of the pool has started to write this view file, front to back.
  virtual void viewStarted(const ActiveView& /*view*/) {}
  // A child ended: exit code 0, the code it failed with, or kEndedByRun.
  virtual void childEnded(const ChildRun& /*child*/, int /*exitCode*/) {}
  // The view file of a child of the pool is complete and will not change.
  virtual void viewFinished(const ActiveView& /*view*/) {}
  // The run began or ended one of its own steps.
  virtual void stepStarted(RunStep /*step*/) {}
  virtual void stepEnded(RunStep /*step*/) {}
  // A wait made a pass and found nothing ended: the time moved on.
  virtual void waiting() {}
};

// Reports a step as begun now and as ended when it goes out of scope, however
// the step ends.
class RunStepScope {
 public:
  RunStepScope(RunObserver& observer, RunStep step) : observer_(observer), step_(step) {
    observer_.stepStarted(step_);
  }
  ~RunStepScope() { observer_.stepEnded(step_); }
  RunStepScope(const RunStepScope&) = delete;
  RunStepScope& operator=(const RunStepScope&) = delete;

 private:
  RunObserver& observer_;
  RunStep step_;
};
