#include "core/DeflateSegments.h"

#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "core/File.h"

namespace {

// Raw deflate (no zlib or gzip wrapper), deflate's full window and its
// default memory level: what zip archives carry.
constexpr int kRawWindowBits = -15;
constexpr int kMemoryLevel = 8;
constexpr std::size_t kWindow = 32 << 10;
constexpr std::size_t kStoreFileBuffer = 1 << 20;

std::runtime_error Failure(const std::string& what, const std::string& path) {
  return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}

// zlib's own text for a failed call.
std::runtime_error ZlibFailure(const std::string& what, int code) {
  return std::runtime_error(what + ": " + zError(code));
}

// Only files that are read, or the temporary file that goes with its store,
// are closed here: a failed close loses nothing.
struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

File OpenForReading(const std::string& path) {
  File file(std::fopen(path.c_str(), "rb"));
  if (!file) throw Failure("cannot open", path);
  return file;
}

}  // namespace

// ---------------------------------------------------------------- store

DeflateStore::DeflateStore(std::size_t memoryBudget) : budget_(memoryBudget) {}

DeflateStore::~DeflateStore() {
  if (file_) std::fclose(file_);  // the temporary file goes away with it; nothing is lost
}

DeflateSegment DeflateStore::keep(const char* compressed, std::size_t n, uint64_t size,
                                  uint32_t crc) {
  DeflateSegment segment;
  segment.size = size;
  segment.crc = crc;
  segment.compressedSize = n;
  std::lock_guard<std::mutex> lock(mutex_);
  if (inMemory_ + n <= budget_) {
    inMemory_ += n;
    segment.memory = std::make_shared<const std::string>(compressed, n);
    return segment;
  }
  if (!file_) {
    if (!(file_ = VeltOpenTemporaryFile()))
      throw Failure("cannot create a temporary file for compressed views", "");
    // The archive reads it back in the zip library's small pieces: a large
    // buffer turns those into few system calls. It must be given, as the C
    // library otherwise keeps to the file system's block whatever size is
    // asked; refused, the stream keeps its own and is only slower.
    fileBuffer_.reset(new char[kStoreFileBuffer]);
    if (std::setvbuf(file_, fileBuffer_.get(), _IOFBF, kStoreFileBuffer) != 0) fileBuffer_.reset();
  }
  readEnd_ = kNowhere;  // the next read seeks back from the end
  if (!VeltSeekFile(file_, fileSize_) || std::fwrite(compressed, 1, n, file_) != n)
    throw Failure("cannot write compressed views to a temporary file", "");
  segment.fileOffset = fileSize_;
  fileSize_ += n;
  return segment;
}

void DeflateStore::read(const DeflateSegment& segment, uint64_t offset, char* out,
                        std::size_t n) const {
  if (offset + n > segment.compressedSize) throw std::runtime_error("read past a segment");
  if (segment.memory) {
    std::memcpy(out, segment.memory->data() + offset, n);
    return;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  // Written data may still sit in the stream's buffer; the seek flushes it.
  // A read that goes on where the last one ended needs none, and keeps the
  // buffer it filled.
  const uint64_t from = segment.fileOffset + offset;
  const bool positioned = from == readEnd_ || VeltSeekFile(file_, from);
  if (!positioned || std::fread(out, 1, n, file_) != n) {
    readEnd_ = kNowhere;
    throw Failure("cannot read compressed views from a temporary file", "");
  }
  readEnd_ = from + n;
}

std::size_t DeflateStore::memoryInUse() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return inMemory_;
}

uint64_t DeflateStore::bytesInFile() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return fileSize_;
}

// ---------------------------------------------------------------- deflater

struct SegmentDeflater::State {
  z_stream stream{};
  std::string output;
};

SegmentDeflater::SegmentDeflater() : state_(new State) {
  const int started = deflateInit2(&state_->stream, kViewDeflateLevel, Z_DEFLATED, kRawWindowBits,
                                   kMemoryLevel, Z_DEFAULT_STRATEGY);
  if (started != Z_OK) throw ZlibFailure("cannot start a deflate stream", started);
}

// Ending a stream only frees its memory; that it held unfinished output
// (the code it then returns) does not matter here.
SegmentDeflater::~SegmentDeflater() { deflateEnd(&state_->stream); }

DeflateSegment SegmentDeflater::deflate(const char* data, std::size_t n,
                                        std::size_t dictionaryLength, DeflateStore& store) {
  z_stream& stream = state_->stream;
  if (const int reset = deflateReset(&stream); reset != Z_OK)
    throw ZlibFailure("cannot reset a deflate stream", reset);
  const std::size_t dictionary = std::min(dictionaryLength, kWindow);
  if (dictionary > 0) {
    const int set = deflateSetDictionary(&stream, reinterpret_cast<const Bytef*>(data - dictionary),
                                         static_cast<uInt>(dictionary));
    if (set != Z_OK) throw ZlibFailure("cannot set a deflate dictionary", set);
  }

  // The bound covers the data; the sync flush adds its empty stored block.
  std::string& output = state_->output;
  output.resize(deflateBound(&stream, static_cast<uLong>(n)) + 16);
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data));
  stream.avail_in = static_cast<uInt>(n);
  std::size_t produced = 0;
  for (;;) {
    stream.next_out = reinterpret_cast<Bytef*>(&output[produced]);
    stream.avail_out = static_cast<uInt>(output.size() - produced);
    const int result = ::deflate(&stream, Z_SYNC_FLUSH);
    if (result != Z_OK && result != Z_BUF_ERROR) throw ZlibFailure("deflate failed", result);
    produced = output.size() - stream.avail_out;
    // Done once the flush fitted: input used up and room left over.
    if (stream.avail_in == 0 && stream.avail_out > 0) break;
    output.resize(output.size() * 2);
  }
  const uint32_t crc = static_cast<uint32_t>(
      crc32(crc32(0, nullptr, 0), reinterpret_cast<const Bytef*>(data), static_cast<uInt>(n)));
  return store.keep(output.data(), produced, n, crc);
}

// ---------------------------------------------------------------- entries

DeflatedEntry JoinSegments(std::vector<DeflateSegment> segments) {
  DeflatedEntry entry;
  entry.crc = static_cast<uint32_t>(crc32(0, nullptr, 0));
  for (const DeflateSegment& segment : segments) {
    // Segments are bounded far below the range of zlib's length type.
    entry.crc = static_cast<uint32_t>(
        crc32_combine(entry.crc, segment.crc, static_cast<z_off_t>(segment.size)));
    entry.size += segment.size;
    entry.compressedSize += segment.compressedSize;
  }
  entry.compressedSize += DeflateFinalBlock().size();
  entry.segments = std::move(segments);
  return entry;
}

const std::string& DeflateFinalBlock() {
  static const std::string block = [] {
    z_stream stream{};
    const int started = deflateInit2(&stream, kViewDeflateLevel, Z_DEFLATED, kRawWindowBits,
                                     kMemoryLevel, Z_DEFAULT_STRATEGY);
    if (started != Z_OK) throw ZlibFailure("cannot start a deflate stream", started);
    unsigned char out[64];
    stream.next_out = out;
    stream.avail_out = sizeof out;
    const int finished = ::deflate(&stream, Z_FINISH);
    std::string bytes(reinterpret_cast<char*>(out), sizeof out - stream.avail_out);
    deflateEnd(&stream);
    if (finished != Z_STREAM_END) throw ZlibFailure("cannot end a deflate stream", finished);
    return bytes;
  }();
  return block;
}

// ---------------------------------------------------------------- reading

const char* ReadFileRange(const std::string& path, uint64_t offset, std::size_t length,
                          std::string& into) {
  const File file = OpenForReading(path);
  // Grown only: shrinking and growing again would clear the same bytes anew.
  if (into.size() < length) into.resize(length);
  if (!VeltSeekFile(file.get(), offset) || std::fread(&into[0], 1, length, file.get()) != length)
    throw Failure("cannot read", path);
  return into.data();
}

std::string ReadFileRange(const std::string& path, uint64_t offset, std::size_t length) {
  std::string data;
  ReadFileRange(path, offset, length, data);
  return data;
}

uint64_t OffsetAfterLines(const std::string& path, int lines) {
  const File file = OpenForReading(path);
  char buffer[16 << 10];
  uint64_t offset = 0;
  while (lines > 0) {
    const std::size_t got = std::fread(buffer, 1, sizeof buffer, file.get());
    if (got == 0) {
      if (std::ferror(file.get())) throw Failure("cannot read", path);
      break;
    }
    std::size_t pos = 0;
    while (lines > 0 && pos < got) {
      const void* end = std::memchr(buffer + pos, '\n', got - pos);
      if (!end) {
        pos = got;
        break;
      }
      pos = static_cast<const char*>(end) - buffer + 1;
      --lines;
    }
    offset += pos;
  }
  return offset;
}
