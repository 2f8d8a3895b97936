#include "executor/BackgroundPacker.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>

#include "core/AString.h"
#include "core/File.h"
#include "core/Interrupt.h"
#include "core/ThreadPriority.h"
#include "core/UsableThreads.h"
#include "core/VelDebug.h"
#include "core/ZipArchive.h"
#include "process/ExtractaViewGenerator.h"

namespace {

// A view file's header: the "A!" line naming the fields and the "J!" line
// describing the extraction.
constexpr int kHeaderLines = 2;

// The header written into the combined file is a few hundred bytes; one
// segment of it is plenty.
constexpr std::size_t kMaxCombinedHeader = 1 << 20;

// How far into a file being written its header is looked for.
constexpr std::size_t kHeaderLook = 64 << 10;

// What tells a file rewritten after it was deflated: its size and its time
// of last change, to the file system's full resolution.
struct FileState {
  uint64_t size;
  std::filesystem::file_time_type changed;
  bool operator==(const FileState& other) const {
    return size == other.size && changed == other.changed;
  }
};

// Throws on failure.
FileState StateOf(const std::string& path) {
  const std::filesystem::path file = std::filesystem::u8path(path);
  return FileState{std::filesystem::file_size(file), std::filesystem::last_write_time(file)};
}

}  // namespace

struct BackgroundPacker::Job {
  std::string path;
  FileState state{};  // once its child has ended
  std::size_t headerSegments = 0;
  std::vector<DeflateSegment> segments;
  std::size_t pending = 0;
  bool ended = true;  // its child has ended (false while a followed file grows)
  bool complete = false;
  bool failed = false;
  // A followed file: where its header ends once both lines are there, and
  // the bytes divided into segments so far.
  bool headerKnown = false;
  uint64_t headerEnd = 0;
  uint64_t divided = 0;
  bool watched = true;  // false once its header proved too long to wait for
};

BackgroundPacker::BackgroundPacker(unsigned threads, std::size_t memoryBudget)
    : store_(memoryBudget) {
  threads = std::max(1u, threads);
  threads_.reserve(threads);
  for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

BackgroundPacker::~BackgroundPacker() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    tasks_.clear();
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

unsigned BackgroundPacker::DefaultThreads() {
  // The hardware threads the extracta processes leave, so that no extraction
  // waits for a processor; once the last one has ended the polling thread
  // joins in.
  const unsigned hardware = VeltUsableThreads();
  const unsigned children = ExtractaViewGenerator::ConcurrencyLimitFor(hardware);
  return std::min(4u, std::max(1u, hardware > children ? hardware - children : 1u));
}

std::string BackgroundPacker::Key(const std::string& path) {
  return std::filesystem::u8path(path).filename().u8string();
}

void BackgroundPacker::viewStarted(const std::string& path) {
  // Where following it could stand in the way of an extracta that renames
  // the file into place, it is packed once finished.
  if (!kVeltOpenFilesCanBeReplaced) return;
  std::lock_guard<std::mutex> lock(mutex_);
  std::unique_ptr<Job>& job = jobs_[Key(path)];
  if (job) return;
  job.reset(new Job);
  job->path = path;
  job->ended = false;
  following_.push_back(job.get());
}

void BackgroundPacker::viewStarted(const ActiveView& view) { viewStarted(VEL_ANSI(view.path)); }

void BackgroundPacker::waiting() {
  for (Job* job : following_)
    if (job->watched) follow(*job, false);
}

void BackgroundPacker::viewFinished(const std::string& path) {
  const auto followed = std::find_if(following_.begin(), following_.end(),
                                     [&](const Job* job) { return Key(job->path) == Key(path); });
  if (followed != following_.end()) {
    Job& job = **followed;
    following_.erase(followed);
    follow(job, true);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::unique_ptr<Job>& job = jobs_[Key(path)];
    if (job) return;  // the same file twice: the first compression stands
    job.reset(new Job);
    job->path = path;
    tasks_.push_back(Task{job.get(), kPlan, 0, 0, 0});
  }
  wake_.notify_one();
}

void BackgroundPacker::viewFinished(const ActiveView& view) { viewFinished(VEL_ANSI(view.path)); }

void BackgroundPacker::combinedFrom(const std::string& combined,
                                    const std::vector<std::string>& pieces) {
  std::lock_guard<std::mutex> lock(mutex_);
  combined_ = combined;
  pieces_ = pieces;
}

void BackgroundPacker::work() {
  VeltLowerThisThreadsPriority();
  Worker worker;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (stopping_) return;
    runNext(lock, worker);
  }
}

void BackgroundPacker::runNext(std::unique_lock<std::mutex>& lock, Worker& worker) {
  const Task task = tasks_.front();
  tasks_.pop_front();
  ++active_;
  lock.unlock();
  try {
    if (!worker.deflater) worker.deflater.reset(new SegmentDeflater);
    run(task, worker);
  } catch (const std::exception& failure) {
    // The file is then compressed by the zip writer, as any other.
    VelDebug(1, L"BackgroundPacker: %s\n", AString(failure.what()).c_str());
    std::lock_guard<std::mutex> relock(mutex_);
    done(*task.job, true);
  }
  lock.lock();
  --active_;
  idle_.notify_all();
}

void BackgroundPacker::run(const Task& task, Worker& worker) {
  Job& job = *task.job;
  if (task.segment == kPlan) {
    plan(job);
    return;
  }
  const char* data = ReadFileRange(job.path, task.offset - task.dictionary,
                                   task.dictionary + task.length, worker.input);
  DeflateSegment segment =
      worker.deflater->deflate(data + task.dictionary, task.length, task.dictionary, store_);
  std::lock_guard<std::mutex> lock(mutex_);
  job.segments[task.segment] = std::move(segment);
  done(job, false);
}

// Appends the tasks for [from, to) of a part that begins at `part`: whole
// segments only, unless `last`. `from` moves past what was divided. The
// first segment of each part is compressed without the bytes before it: a
// body follows its own header in the piece's entry but another piece's body
// in the combined file. Later segments of a part may refer back into it.
void BackgroundPacker::divide(Job& job, uint64_t part, uint64_t& from, uint64_t to, bool last,
                              std::vector<Task>& tasks) {
  while (from < to && (last || to - from >= kSegmentBytes)) {
    const std::size_t length =
        static_cast<std::size_t>(std::min<uint64_t>(kSegmentBytes, to - from));
    tasks.push_back(Task{&job, job.segments.size() + tasks.size(), from, length,
                         static_cast<std::size_t>(std::min<uint64_t>(from - part, 32 << 10))});
    from += length;
  }
}

// Divides a finished file into its header's segments and its body's.
void BackgroundPacker::plan(Job& job) {
  job.state = StateOf(job.path);
  const uint64_t headerEnd = std::min(OffsetAfterLines(job.path, kHeaderLines), job.state.size);
  std::vector<Task> tasks;
  uint64_t divided = 0;
  divide(job, 0, divided, headerEnd, true, tasks);
  const std::size_t headerSegments = tasks.size();
  divide(job, headerEnd, divided, job.state.size, true, tasks);

  {
    std::lock_guard<std::mutex> lock(mutex_);
    job.headerSegments = headerSegments;
    job.segments.resize(tasks.size());
    job.pending = tasks.size();
    if (tasks.empty()) job.complete = true;
    // Ahead of files not yet divided: a file's segments are done together.
    tasks_.insert(tasks_.begin(), tasks.begin(), tasks.end());
  }
  wake_.notify_all();
}

// Runs on the polling thread. While the child writes, a look that fails (the
// file not there yet, a read cut short) is tried again at the next one.
void BackgroundPacker::follow(Job& job, bool ended) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (job.failed) return;  // goes to the zip writer whatever follows
  }
  std::vector<Task> tasks;
  std::size_t headerSegments = job.headerSegments;
  try {
    uint64_t size = 0;
    if (ended) {
      job.state = StateOf(job.path);
      size = job.state.size;
    } else {
      std::error_code error;
      size = std::filesystem::file_size(std::filesystem::u8path(job.path), error);
      if (error || size == 0) return;
    }
    if (!job.headerKnown) {
      if (ended) {
        job.headerEnd = std::min(OffsetAfterLines(job.path, kHeaderLines), size);
      } else {
        const std::string start = ReadFileRange(
            job.path, 0, static_cast<std::size_t>(std::min<uint64_t>(size, kHeaderLook)));
        std::size_t after = 0;  // past the last line end found
        int lines = 0;
        for (std::size_t end;
             lines < kHeaderLines && (end = start.find('\n', after)) != std::string::npos; ++lines)
          after = end + 1;
        if (lines < kHeaderLines) {
          // A header this long is divided once the file is finished.
          if (start.size() >= kHeaderLook) job.watched = false;
          return;
        }
        job.headerEnd = after;
      }
      job.headerKnown = true;
      divide(job, 0, job.divided, job.headerEnd, true, tasks);
      headerSegments = tasks.size();
    }
    // A file that shrank was not written front to back.
    if (size < job.divided) throw std::runtime_error("the file shrank while it was written");
    divide(job, job.headerEnd, job.divided, size, ended, tasks);
  } catch (const std::exception& failure) {
    if (!ended && tasks.empty()) return;
    VelDebug(1, L"BackgroundPacker: %s\n", AString(failure.what()).c_str());
    job.watched = false;
    std::lock_guard<std::mutex> lock(mutex_);
    done(job, true);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    job.headerSegments = headerSegments;
    job.segments.resize(job.segments.size() + tasks.size());
    job.pending += tasks.size();
    if (ended) {
      job.ended = true;
      if (job.pending == 0) job.complete = true;
    }
    tasks_.insert(tasks_.end(), tasks.begin(), tasks.end());
  }
  wake_.notify_all();
}

void BackgroundPacker::done(Job& job, bool failed) {
  job.failed = job.failed || failed;
  if (job.pending > 0) --job.pending;
  if ((job.pending == 0 && job.ended) || failed) job.complete = true;
}

bool BackgroundPacker::finish() {
  // The last views are on the critical path now: this thread, at its normal
  // priority, deflates beside the workers.
  Worker worker;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!tasks_.empty() || active_ > 0) {
    if (InterruptRequested()) return false;
    if (!tasks_.empty())
      runNext(lock, worker);
    else
      idle_.wait_for(lock, std::chrono::milliseconds(50));
  }
  lock.unlock();
  try {
    buildCombined();
  } catch (const std::exception& failure) {
    VelDebug(1, L"BackgroundPacker: %s\n", AString(failure.what()).c_str());
  }
  return !InterruptRequested();
}

// The combined file's entry: the header it was written with, then the bodies
// of its pieces. The header is what the file holds before the bodies; it is
// taken only if it looks like a header, two lines, so that a combined file
// written any other way is compressed by the zip writer instead.
void BackgroundPacker::buildCombined() {
  if (combined_.empty()) return;
  std::vector<DeflateSegment> bodies;
  uint64_t bodyBytes = 0;
  for (const std::string& piece : pieces_) {
    const auto found = jobs_.find(Key(piece));
    if (found == jobs_.end() || !found->second->complete || found->second->failed) return;
    const Job& job = *found->second;
    for (std::size_t i = job.headerSegments; i < job.segments.size(); ++i) {
      bodies.push_back(job.segments[i]);
      bodyBytes += job.segments[i].size;
    }
  }
  auto job = std::make_unique<Job>();
  job->path = combined_;
  job->state = StateOf(combined_);
  if (job->state.size < bodyBytes || job->state.size - bodyBytes > kMaxCombinedHeader) return;
  const std::string header =
      ReadFileRange(combined_, 0, static_cast<std::size_t>(job->state.size - bodyBytes));
  if (std::count(header.begin(), header.end(), '\n') != kHeaderLines || header.back() != '\n')
    return;
  SegmentDeflater deflater;
  job->segments.push_back(deflater.deflate(header.data(), header.size(), 0, store_));
  job->headerSegments = 1;
  job->segments.insert(job->segments.end(), bodies.begin(), bodies.end());
  job->complete = true;
  jobs_[Key(combined_)] = std::move(job);
}

const BackgroundPacker::Job* BackgroundPacker::ready(const std::string& path) const {
  const auto found = jobs_.find(Key(path));
  if (found == jobs_.end()) return nullptr;
  const Job& job = *found->second;
  if (!job.complete || job.failed) return nullptr;
  try {
    if (!(StateOf(path) == job.state)) return nullptr;
  } catch (const std::filesystem::filesystem_error&) {
    return nullptr;
  }
  return &job;
}

bool BackgroundPacker::addTo(CZipArchive& archive, const std::string& path, bool fullPath) {
  const Job* job = ready(path);
  if (!job) return false;
  archive.AddDeflatedFile(path, fullPath, JoinSegments(job->segments), store_);
  return true;
}
