#pragma once
// Deflate data in joinable segments. Each segment is raw deflate data that
// ends with a sync flush, so it ends on a byte boundary without a final block:
// segments written one after another, closed by one final empty block, form a
// valid deflate stream of their inputs joined. That lets one compression of a
// connectivity piece's body serve both the piece's own archive entry and the
// combined connectivity file's, and lets a large file be compressed by several
// threads at once.
//
// A segment may be compressed with the bytes before it as its dictionary: it
// then holds back-references into them and may follow only those bytes.
//
// Compressed data waits in a DeflateStore: in memory up to a budget, beyond it
// in an anonymous temporary file outside any working directory, removed when
// the store goes (or the process ends).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// The deflate level of every view: deflate's default.
constexpr int kViewDeflateLevel = 6;

// One compressed segment: its uncompressed length and CRC-32, and where its
// compressed bytes are (in memory, or at an offset of the store's file).
struct DeflateSegment {
  uint64_t size = 0;
  uint32_t crc = 0;
  uint64_t compressedSize = 0;
  std::shared_ptr<const std::string> memory;  // null: in the store's file
  uint64_t fileOffset = 0;
};

// Where compressed segments wait for the archive. Thread-safe.
class DeflateStore {
 public:
  explicit DeflateStore(std::size_t memoryBudget);
  ~DeflateStore();
  DeflateStore(const DeflateStore&) = delete;
  DeflateStore& operator=(const DeflateStore&) = delete;

  // Keeps `n` compressed bytes (copied only when they stay in memory); throws
  // std::runtime_error when the temporary file cannot be created or written.
  DeflateSegment keep(const char* compressed, std::size_t n, uint64_t size, uint32_t crc);
  // Copies `n` compressed bytes of a segment from `offset` on. Throws on a
  // read error.
  void read(const DeflateSegment& segment, uint64_t offset, char* out, std::size_t n) const;

  std::size_t memoryInUse() const;
  uint64_t bytesInFile() const;

 private:
  const std::size_t budget_;
  mutable std::mutex mutex_;
  std::size_t inMemory_ = 0;
  std::FILE* file_ = nullptr;
  std::unique_ptr<char[]> fileBuffer_;  // the file's stream buffer, closed before it goes
  uint64_t fileSize_ = 0;
  // Where the stream stands after the last read; kNowhere after a write.
  static constexpr uint64_t kNowhere = ~uint64_t{0};
  mutable uint64_t readEnd_ = kNowhere;
};

// Compresses segments; one per thread (it keeps its deflate state between
// segments).
class SegmentDeflater {
 public:
  SegmentDeflater();
  ~SegmentDeflater();
  SegmentDeflater(const SegmentDeflater&) = delete;
  SegmentDeflater& operator=(const SegmentDeflater&) = delete;

  // Compresses data[0, n) at the view level, with the `dictionaryLength`
  // bytes before `data` (at most 32 KiB are used) as the dictionary.
  DeflateSegment deflate(const char* data, std::size_t n, std::size_t dictionaryLength,
                         DeflateStore& store);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The segments of one archive entry, joined: the entry's length and CRC-32,
// and its compressed length with the closing final block.
struct DeflatedEntry {
  std::vector<DeflateSegment> segments;
  uint64_t size = 0;
  uint32_t crc = 0;
  uint64_t compressedSize = 0;
};
DeflatedEntry JoinSegments(std::vector<DeflateSegment> segments);

// The final empty deflate block that closes a stream of joined segments.
const std::string& DeflateFinalBlock();

// Reading view files for compression: a whole byte range, or the offset just
// past the first `lines` line ends (the file's size when it has fewer). Both
// throw std::runtime_error on failure.
std::string ReadFileRange(const std::string& path, uint64_t offset, std::size_t length);
// The same into `into`, which keeps its memory from one call to the next (a
// segment's worth of fresh pages for every segment costs a page fault per
// page); returns where the bytes start. `into` may be longer than `length`.
const char* ReadFileRange(const std::string& path, uint64_t offset, std::size_t length,
                          std::string& into);
uint64_t OffsetAfterLines(const std::string& path, int lines);
