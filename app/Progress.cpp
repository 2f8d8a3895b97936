#include "app/Progress.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "core/Terminal.h"

namespace {

// Redrawn at most this often unless a count or the step changes.
constexpr std::chrono::milliseconds kRedrawInterval(100);

}  // namespace

ProgressLine::ProgressLine()
    : active_(StandardErrorIsTerminal() && std::getenv("VELTAR_EXTRACTA_DEBUG") == nullptr) {}

ProgressLine::~ProgressLine() { clear(); }

void ProgressLine::childQueued() {
  ++waiting_;
  draw();
}

void ProgressLine::childStarted(const ChildRun&, bool fromQueue) {
  if (fromQueue && waiting_ > 0) --waiting_;
  ++running_;
  draw();
}

void ProgressLine::childEnded(const ChildRun&, int) {
  if (running_ > 0) --running_;
  ++ended_;
  draw();
}

void ProgressLine::waiting() {
  if (Clock::now() - drawn_ >= kRedrawInterval) draw();
}

void ProgressLine::stepStarted(RunStep step) {
  static const char* const kShown[] = {"counting the survey", "merging connectivity", "packing",
                                       "delivering"};
  const std::string name = kShown[static_cast<int>(step)];
  if (!active_ || step_ == name) return;
  step_ = name;
  draw();
}

void ProgressLine::stepEnded(RunStep step) {
  // The children go on after the survey; the merge lasts until the last
  // piece, and packing follows at once.
  if (step == RunStep::kSurvey) {
    step_ = "extracting";
    draw();
  }
}

void ProgressLine::clear() {
  if (!active_ || !shown_) return;
  std::cerr << "\r\x1b[K" << std::flush;
  shown_ = false;
}

void ProgressLine::draw() {
  if (!active_) return;
  drawn_ = Clock::now();
  const double seconds = std::chrono::duration<double>(drawn_ - start_).count();
  char text[160];
  std::snprintf(text, sizeof text, "[%zu/%zu] %s, %zu running, %.1fs", ended_,
                ended_ + running_ + waiting_, step_.c_str(), running_, seconds);
  // One column short of the width: a line that fills the last column wraps
  // on some terminals, and "\r" would then rewrite only its second half.
  std::string line(text);
  const std::size_t width = static_cast<std::size_t>(StandardErrorColumns());
  if (line.size() >= width) line.resize(width > 1 ? width - 1 : 0);
  if (shown_ && line == line_) return;
  std::cerr << '\r' << line << "\x1b[K" << std::flush;
  line_ = line;
  shown_ = true;
}
