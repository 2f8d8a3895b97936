#include "app/RunReport.h"

#include <chrono>
#include <vector>

#include "core/File.h"
#include "core/Memory.h"

namespace {

// The S records of a view file: lines that begin with "S!". -1 when the file
// cannot be read.
int64_t CountRecords(const std::string& path) {
  VeltInputFile file;
  if (!file.Open(AString(path))) return -1;
  std::vector<char> block(1 << 20);
  int64_t records = 0;
  // 0: at a line's start, 1: after an "S" there, 2: inside a line.
  int state = 0;
  for (;;) {
    const int64_t got = file.Read(block.data(), block.size());
    if (got < 0) return -1;
    if (got == 0) return records;
    for (int64_t i = 0; i < got; ++i) {
      const char c = block[static_cast<std::size_t>(i)];
      if (c == '\n') {
        state = 0;
      } else if (state == 0) {
        state = c == 'S' ? 1 : 2;
      } else if (state == 1) {
        records += c == '!';
        state = 2;
      }
    }
  }
}

}  // namespace

int64_t NowMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

RunReport::RunReport(std::string path, std::string version) : path_(std::move(path)) {
  record_.version = std::move(version);
  record_.startUs = NowMicroseconds();
  if (wanted()) counter_ = std::thread([this] { count(); });
}

RunReport::~RunReport() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  if (counter_.joinable()) counter_.join();
}

void RunReport::describe(const std::string& design, const std::string& destination,
                         const std::string& launcher, uint32_t slots) {
  record_.design = design;
  record_.destination = destination;
  record_.launcher = launcher;
  record_.slots = slots;
}

void RunReport::childStarted(const ChildRun& child, bool) {
  if (!wanted()) return;
  ReportChild started;
  started.label = child.label;
  for (const ActiveView& view : child.views) {
    started.views += (started.views.empty() ? "" : "+") + VEL_ANSI(ViewTypeName(view.viewType));
    started.outputFiles.push_back(VEL_ANSI(view.path));
  }
  started.controlFile = VEL_ANSI(child.controlFile);
  started.slot = child.slot;
  started.node = child.node;
  started.processId = child.processId;
  started.startUs = NowMicroseconds();
  std::lock_guard<std::mutex> lock(mutex_);
  open_[&child] = record_.children.size();
  record_.children.push_back(started);
}

void RunReport::childEnded(const ChildRun& child, int exitCode) {
  if (!wanted()) return;
  const int64_t now = NowMicroseconds();
  std::lock_guard<std::mutex> lock(mutex_);
  const auto started = open_.find(&child);
  if (started == open_.end()) return;
  ReportChild& ended = record_.children[started->second];
  ended.endUs = now;
  ended.ended = true;
  ended.exitCode = exitCode;
  for (const std::string& file : ended.outputFiles) {
    VeltFileInfo info;
    if (VeltFileStatus(AString(file), info)) ended.bytes += info.size;
  }
  // The records of what a child that failed wrote are not worth a look.
  if (exitCode == 0) {
    toCount_.push_back(started->second);
    changed_.notify_all();
  }
  open_.erase(started);
}

void RunReport::stepStarted(RunStep step) {
  if (!wanted()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  openSteps_[step] = record_.steps.size();
  record_.steps.push_back(ReportStep{RunStepName(step), NowMicroseconds(), 0});
}

void RunReport::stepEnded(RunStep step) {
  if (!wanted()) return;
  std::lock_guard<std::mutex> lock(mutex_);
  const auto started = openSteps_.find(step);
  if (started == openSteps_.end()) return;
  record_.steps[started->second].endUs = NowMicroseconds();
  openSteps_.erase(started);
}

void RunReport::count() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return stopping_ || !toCount_.empty(); });
    if (toCount_.empty()) return;
    const std::size_t index = toCount_.front();
    toCount_.pop_front();
    ++counting_;
    const std::vector<std::string> files = record_.children[index].outputFiles;
    lock.unlock();
    int64_t records = 0;
    for (const std::string& file : files) {
      const int64_t found = CountRecords(file);
      records = found < 0 || records < 0 ? -1 : records + found;
    }
    lock.lock();
    record_.children[index].records = records;
    --counting_;
    changed_.notify_all();
  }
}

void RunReport::settle() {
  if (!wanted()) return;
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return toCount_.empty() && counting_ == 0; });
}

bool RunReport::save(const std::string& outcome, bool succeeded, std::string& error) {
  if (!wanted()) return true;
  std::string text;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    record_.endUs = NowMicroseconds();
    record_.outcome = outcome;
    record_.succeeded = succeeded;
    record_.peakMemoryBytes = VeltPeakMemoryBytes();
    // A step the run left early ends with it.
    for (const auto& [step, index] : openSteps_) record_.steps[index].endUs = record_.endUs;
    const bool page = path_.size() >= 5 && path_.compare(path_.size() - 5, 5, ".html") == 0;
    text = page ? ReportPage(record_) : TraceJson(record_);
  }
  VeltFileInPlace file;
  if (file.Create(path_) && file.Write(text.data(), text.size()) && file.Commit()) return true;
  error = "cannot write the report " + path_ + ": " + file.ErrorText();
  return false;
}
