#include "executor/BackgroundPacker.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <filesystem>

#include "core/AString.h"
#include "core/Interrupt.h"
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
  FileState state{};
  std::size_t headerSegments = 0;
  std::vector<DeflateSegment> segments;
  std::size_t pending = 0;
  bool complete = false;
  bool failed = false;
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

void BackgroundPacker::viewFinished(const std::string& path) {
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
  std::unique_ptr<SegmentDeflater> deflater;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
    if (stopping_) return;
    runNext(lock, deflater);
  }
}

void BackgroundPacker::runNext(std::unique_lock<std::mutex>& lock,
                               std::unique_ptr<SegmentDeflater>& deflater) {
  const Task task = tasks_.front();
  tasks_.pop_front();
  ++active_;
  lock.unlock();
  try {
    if (!deflater) deflater.reset(new SegmentDeflater);
    run(task, *deflater);
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

void BackgroundPacker::run(const Task& task, SegmentDeflater& deflater) {
  Job& job = *task.job;
  if (task.segment == kPlan) {
    plan(job);
    return;
  }
  const std::string data =
      ReadFileRange(job.path, task.offset - task.dictionary, task.dictionary + task.length);
  DeflateSegment segment =
      deflater.deflate(data.data() + task.dictionary, task.length, task.dictionary, store_);
  std::lock_guard<std::mutex> lock(mutex_);
  job.segments[task.segment] = std::move(segment);
  done(job, false);
}

// Divides a file into its header's segments and its body's. The first segment
// of each part is compressed without the bytes before it: a body follows its
// own header in the piece's entry but another piece's body in the combined
// file. Later segments of a part may refer back into the part.
void BackgroundPacker::plan(Job& job) {
  job.state = StateOf(job.path);
  const uint64_t headerEnd = OffsetAfterLines(job.path, kHeaderLines);
  std::vector<Task> tasks;
  const auto divide = [&](uint64_t begin, uint64_t end) {
    for (uint64_t offset = begin; offset < end; offset += kSegmentBytes) {
      const std::size_t length =
          static_cast<std::size_t>(std::min<uint64_t>(kSegmentBytes, end - offset));
      tasks.push_back(Task{&job, tasks.size(), offset, length,
                           static_cast<std::size_t>(std::min<uint64_t>(offset - begin, 32 << 10))});
    }
  };
  divide(0, std::min(headerEnd, job.state.size));
  const std::size_t headerSegments = tasks.size();
  divide(std::min(headerEnd, job.state.size), job.state.size);

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

void BackgroundPacker::done(Job& job, bool failed) {
  job.failed = job.failed || failed;
  if (job.pending > 0) --job.pending;
  if (job.pending == 0 || failed) job.complete = true;
}

bool BackgroundPacker::finish() {
  // The last views are on the critical path now: this thread, at its normal
  // priority, deflates beside the workers.
  std::unique_ptr<SegmentDeflater> deflater;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!tasks_.empty() || active_ > 0) {
    if (InterruptRequested()) return false;
    if (!tasks_.empty())
      runNext(lock, deflater);
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

bool BackgroundPacker::addTo(CZipArchive& archive, const std::string& path, bool fullPath) {
  const auto found = jobs_.find(Key(path));
  if (found == jobs_.end()) return false;
  const Job& job = *found->second;
  if (!job.complete || job.failed) return false;
  try {
    if (!(StateOf(path) == job.state)) return false;
  } catch (const std::filesystem::filesystem_error&) {
    return false;
  }
  archive.AddDeflatedFile(path, fullPath, JoinSegments(job.segments), store_);
  return true;
}
