#pragma once
// BackgroundPacker: deflates a run's view files on a few worker threads while
// its other extracta processes still run, so that once the last view exists
// the archive is written from data compressed already.
//
// Every byte is compressed once. A view file is deflated as its two header
// lines and its body, apart and in joinable segments (a large body in several,
// so that all workers share it); the file's entry is header + body. The
// combined connectivity file, which holds the first piece's header and then
// every piece's body, gets the header it was written with + the pieces'
// bodies in merge order. Files that were not deflated here (control files,
// added files, a file that changed or could not be read) are compressed by
// the zip writer as usual, so the archive reads back the same either way.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/DeflateSegments.h"
#include "process/RunObserver.h"

class CZipArchive;

// Follows a run as one of its observers: a view file is deflated while its
// child writes it, a segment as soon as the child has written past its end,
// and the rest once the child has ended. extracta writes its files front to
// back and never goes back, so a segment read early holds the final bytes;
// a file that shrank, or changed after its child ended, is compressed by the
// zip writer instead.
class BackgroundPacker : public RunObserver {
 public:
  // Compressed data beyond this waits in a temporary file.
  static constexpr std::size_t kMemoryBudget = 4 << 20;
  // Uncompressed bytes per segment: the unit of work a thread takes.
  static constexpr std::size_t kSegmentBytes = 2 << 20;

  explicit BackgroundPacker(unsigned threads = DefaultThreads(),
                            std::size_t memoryBudget = kMemoryBudget);
  // Ends the workers (each finishes at most its current segment) and drops
  // everything compressed; the temporary file goes with it.
  ~BackgroundPacker() override;
  BackgroundPacker(const BackgroundPacker&) = delete;
  BackgroundPacker& operator=(const BackgroundPacker&) = delete;

  // The hardware threads the extracta processes leave: at least 1, at most 4.
  static unsigned DefaultThreads();

  // A child has begun to write the view file at `path` (narrow).
  void viewStarted(const std::string& path);
  void viewStarted(const ActiveView& view) override;
  // Looks at the files being written: each pass of a wait.
  void waiting() override;
  // A view file (narrow path) is complete and will not change.
  void viewFinished(const std::string& path);
  void viewFinished(const ActiveView& view) override;
  // `combined` was written as a header of two lines followed by the bodies of
  // `pieces`, each after its own two header lines, in this order, or with
  // the bodies' places left unwritten (the entry never reads them).
  void combinedFrom(const std::string& combined, const std::vector<std::string>& pieces);

  // Waits until the workers are done. False when an interrupt arrived first.
  bool finish();
  // After finish: adds the file at `path` from its compressed data and returns
  // true, or returns false when there is none for the file as it is now.
  bool addTo(CZipArchive& archive, const std::string& path, bool fullPath);
  // After finish: whether addTo would add the file at `path`.
  bool holds(const std::string& path) const { return ready(path) != nullptr; }

 private:
  struct Job;
  struct Task {
    Job* job;
    std::size_t segment;  // kPlan: read the header and divide the file
    uint64_t offset;
    std::size_t length;
    std::size_t dictionary;  // bytes before `offset` the segment may refer to
  };
  static constexpr std::size_t kPlan = SIZE_MAX;

  // What one thread keeps from one segment to the next.
  struct Worker {
    std::unique_ptr<SegmentDeflater> deflater;
    std::string input;  // the segment read, with its dictionary before it
  };

  void work();
  // Runs the first task; called with the lock held, returns with it held.
  void runNext(std::unique_lock<std::mutex>& lock, Worker& worker);
  void run(const Task& task, Worker& worker);
  void plan(Job& job);
  // Queues the segments of a followed file written so far; all that is left
  // once `ended`.
  void follow(Job& job, bool ended);
  void divide(Job& job, uint64_t part, uint64_t& from, uint64_t to, bool last,
              std::vector<Task>& tasks);
  void done(Job& job, bool failed);
  const Job* ready(const std::string& path) const;
  void buildCombined();
  static std::string Key(const std::string& path);

  DeflateStore store_;
  std::mutex mutex_;
  std::condition_variable wake_;  // a task or the end is there
  std::condition_variable idle_;  // a task was completed
  std::deque<Task> tasks_;
  std::size_t active_ = 0;
  bool stopping_ = false;
  std::map<std::string, std::unique_ptr<Job>> jobs_;  // by file name
  std::vector<Job*> following_;                       // the polling thread's own
  std::string combined_;
  std::vector<std::string> pieces_;
  std::vector<std::thread> threads_;
};
