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
#include <string>

#include "process/ExtractaViewGenerator.h"

class ExtractaExecutor;

class ProgressLine {
 public:
  // Follows the generator pool and the executor's steps while it lives.
  explicit ProgressLine(ExtractaExecutor& executor);
  ~ProgressLine();
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void step(const char* name);
  // Erases the line, so that the next line written on either stream stands
  // on its own; a later update draws it again.
  void clear();

 private:
  void poolChanged(const ExtractaViewGenerator::PoolState& state);
  void draw();

  using Clock = std::chrono::steady_clock;
  ExtractaExecutor& executor_;
  bool active_;
  Clock::time_point start_ = Clock::now();
  Clock::time_point drawn_{};
  bool shown_ = false;
  std::string line_;             // as last drawn
  std::size_t endedBefore_ = 0;  // children of earlier runs in this process
  ExtractaViewGenerator::PoolState pool_;
  std::string step_ = "extracting";
};
