#pragma once
// An output file written through a large buffer of its own, in big unbuffered
// writes: the tools write hundreds of megabytes a run, and stream formatting
// would cost more than the work itself. Binary: the bytes land as written.

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tools/common/Platform.h"

namespace veltools {

class FileWriter {
 public:
  static constexpr std::size_t kBufferSize = 1 << 20;

  // Creates or truncates `path`; throws std::runtime_error naming the path
  // and the system's reason when it cannot.
  explicit FileWriter(const std::string& path) : path_(path) {
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) fail("cannot create");
    std::setvbuf(file_, nullptr, _IONBF, 0);
    buffer_.reserve(kBufferSize);
  }
  ~FileWriter() {
    if (file_) std::fclose(file_);
  }
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  // The buffer is public to writers that format straight into it; they call
  // flushIfFull() after each record.
  std::string& buffer() { return buffer_; }
  void flushIfFull() {
    if (buffer_.size() >= kBufferSize) flush();
  }
  void write(std::string_view bytes) {
    buffer_.append(bytes.data(), bytes.size());
    flushIfFull();
  }

  void flush() {
    const std::size_t done = std::fwrite(buffer_.data(), 1, buffer_.size(), file_);
    written_ += done;
    if (done != buffer_.size()) fail("cannot write");
    buffer_.clear();
  }

  // Overwrites bytes already written at `offset` (a length field that is
  // known only once what it measures has been written).
  void patch(std::uint64_t offset, std::string_view bytes) {
    flush();
    if (!SeekTo(file_, offset) ||
        std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size() ||
        !SeekTo(file_, written_))
      fail("cannot write");
  }

  // Flushes and closes; throws when either fails (a full disk shows here).
  void close() {
    flush();
    std::FILE* file = file_;
    file_ = nullptr;
    if (std::fclose(file) != 0) fail("cannot write");
  }

  // Closes without writing what is buffered and removes the file, so that no
  // half-written file is left behind.
  void discard() {
    if (file_) std::fclose(file_);
    file_ = nullptr;
    std::remove(path_.c_str());
  }

  std::uint64_t bytesWritten() const { return written_ + buffer_.size(); }
  const std::string& path() const { return path_; }

 private:
  [[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + " " + path_ + ": " + std::strerror(errno));
  }

  std::string path_;
  std::FILE* file_ = nullptr;
  std::string buffer_;
  std::uint64_t written_ = 0;
};

}  // namespace veltools
