#pragma once
// The status line: while standard error is a terminal (and
// VELTAR_EXTRACTA_DEBUG is not defined), one line there is rewritten in place
// with how many extracta processes have ended out of those known so far, how
// many run, the step under way and the time elapsed, e.g.
//
//   [7/23] extracting, 2 running, 3.4s
//
// Anywhere else it writes nothing at all, so scripts and the tools that call
// the program read exactly the lines they always did.

#include <chrono>
#include <cstddef>
#include <string>

#include "process/RunObserver.h"

// Follows one run as its observer: the children it knows of and the steps.
class ProgressLine : public RunObserver {
 public:
  ProgressLine();
  ~ProgressLine() override;
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void childQueued() override;
  void childStarted(const ChildRun& child, bool fromQueue) override;
  void childEnded(const ChildRun& child, int exitCode) override;
  void stepStarted(RunStep step) override;
  void stepEnded(RunStep step) override;
  void waiting() override;
  // Erases the line, so that the next line written on either stream stands
  // on its own; a later update draws it again.
  void clear();

 private:
  void draw();

  using Clock = std::chrono::steady_clock;
  bool active_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_{};
  bool shown_ = false;
  std::string line_;  // as last drawn
  std::size_t ended_ = 0, running_ = 0, waiting_ = 0;
  std::string step_ = "extracting";
};
