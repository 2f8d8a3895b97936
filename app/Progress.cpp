#include "app/Progress.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "core/Terminal.h"
#include "executor/ExtractaExecutor.h"

namespace {

// Redrawn at most this often unless a count or the step changes.
constexpr std::chrono::milliseconds kRedrawInterval(100);

}  // namespace

ProgressLine::ProgressLine(ExtractaExecutor& executor)
    : executor_(executor),
      active_(StandardErrorIsTerminal() && std::getenv("VELTAR_EXTRACTA_DEBUG") == nullptr) {
  if (!active_) return;
  ExtractaViewGenerator::observer = [this](const ExtractaViewGenerator::PoolState& state) {
    poolChanged(state);
  };
  executor_.onStep = [this](const char* name) { step(name); };
  // The pool counts every child since the program began; this line counts
  // from now.
  pool_ = ExtractaViewGenerator::poolState();
  endedBefore_ = pool_.ended;
}

ProgressLine::~ProgressLine() {
  if (!active_) return;
  clear();
  ExtractaViewGenerator::observer = nullptr;
  executor_.onStep = nullptr;
}

void ProgressLine::poolChanged(const ExtractaViewGenerator::PoolState& state) {
  const bool changed = state.ended != pool_.ended || state.running != pool_.running ||
                       state.waiting != pool_.waiting;
  pool_ = state;
  if (changed || Clock::now() - drawn_ >= kRedrawInterval) draw();
}

void ProgressLine::step(const char* name) {
  if (!active_ || step_ == name) return;
  step_ = name;
  draw();
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
  const std::size_t ended = pool_.ended - endedBefore_;
  char text[160];
  std::snprintf(text, sizeof text, "[%zu/%zu] %s, %zu running, %.1fs", ended,
                ended + pool_.running + pool_.waiting, step_.c_str(), pool_.running, seconds);
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
