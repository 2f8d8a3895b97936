#pragma once
// The report of one run (VELTAR_EXTRACTA_REPORT): a run observer that notes
// when each extracta child started and ended as this program saw it, on
// which slot and node and with what exit code, and the run's own steps; once
// the run is over (succeeded, failed or interrupted) it is written, beside
// its path and renamed into place: a page when the path ends in ".html",
// else a trace in the Trace Event format.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "app/ReportFormats.h"
#include "process/RunObserver.h"

class RunReport : public RunObserver {
 public:
  // `path` empty: no report is kept (every call does next to nothing).
  RunReport(std::string path, std::string version);
  ~RunReport() override;
  RunReport(const RunReport&) = delete;
  RunReport& operator=(const RunReport&) = delete;

  bool wanted() const { return !path_.empty(); }

  void describe(const std::string& design, const std::string& destination,
                const std::string& launcher, uint32_t slots);

  void childStarted(const ChildRun& child, bool fromQueue) override;
  void childEnded(const ChildRun& child, int exitCode) override;
  void stepStarted(RunStep step) override;
  void stepEnded(RunStep step) override;

  // The records of the view files of children that ended well are counted on
  // a thread of its own while the run goes on; this waits until every file
  // handed over so far is counted. Call it before packaging, which may
  // remove or move them.
  void settle();

  // Writes the report; false with the path and the reason in `error`.
  bool save(const std::string& outcome, bool succeeded, std::string& error);

 private:
  void count();

  const std::string path_;
  RunRecord record_;
  std::map<const ChildRun*, std::size_t> open_;  // started, not yet ended
  std::map<RunStep, std::size_t> openSteps_;

  // The counting thread's queue: a child's index and its view files.
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::size_t> toCount_;
  std::size_t counting_ = 0;
  bool stopping_ = false;
  std::thread counter_;
};

// Microseconds since 1970 (UTC) now.
int64_t NowMicroseconds();
