#pragma once
// An output file written through a large buffer with plain system calls:
// the tools write hundreds of megabytes a run, and stream formatting would
// cost more than the work itself.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace veltools {

class FileWriter {
 public:
  static constexpr std::size_t kBufferSize = 1 << 20;

  // Creates or truncates `path`; throws std::runtime_error naming the path
  // and the system's reason when it cannot.
  explicit FileWriter(const std::string& path) : path_(path) {
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) fail("cannot create");
    buffer_.reserve(kBufferSize);
  }
  ~FileWriter() {
    if (fd_ >= 0) ::close(fd_);
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
    const char* data = buffer_.data();
    std::size_t left = buffer_.size();
    while (left > 0) {
      const ssize_t done = ::write(fd_, data, left);
      if (done < 0) {
        if (errno == EINTR) continue;
        fail("cannot write");
      }
      data += done;
      left -= static_cast<std::size_t>(done);
      written_ += static_cast<std::uint64_t>(done);
    }
    buffer_.clear();
  }

  // Overwrites bytes already written at `offset` (a length field that is
  // known only once what it measures has been written).
  void patch(std::uint64_t offset, std::string_view bytes) {
    flush();
    if (::pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(bytes.size())) {
      fail("cannot write");
    }
  }

  // Flushes and closes; throws when either fails (a full disk shows here).
  void close() {
    flush();
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) fail("cannot write");
  }

  std::uint64_t bytesWritten() const { return written_ + buffer_.size(); }
  const std::string& path() const { return path_; }

 private:
  [[noreturn]] void fail(const char* what) {
    throw std::runtime_error(std::string(what) + " " + path_ + ": " + std::strerror(errno));
  }

  std::string path_;
  int fd_ = -1;
  std::string buffer_;
  std::uint64_t written_ = 0;
};

}  // namespace veltools
