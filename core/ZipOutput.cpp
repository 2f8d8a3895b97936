#include "core/ZipOutput.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <string>

#include "core/File.h"
#include "core/Interrupt.h"

namespace {

// The archive's file: nothing is read from an earlier archive at the path
// (it reports none there, so libzip makes a new one), and what libzip writes
// is gathered until a megabyte is there, a seek or the commit needs it
// written, or the write is abandoned.
class BufferedArchiveFile {
 public:
  static constexpr std::size_t kBufferBytes = 1 << 20;

  explicit BufferedArchiveFile(std::string path) : path_(std::move(path)) {
    zip_error_init(&error_);
    buffer_.reserve(kBufferBytes);
  }
  ~BufferedArchiveFile() { zip_error_fini(&error_); }
  BufferedArchiveFile(const BufferedArchiveFile&) = delete;
  BufferedArchiveFile& operator=(const BufferedArchiveFile&) = delete;

  static zip_int64_t Call(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    return static_cast<BufferedArchiveFile*>(state)->call(data, length, command);
  }

 private:
  zip_int64_t failed(int zipError, int systemError) {
    zip_error_set(&error_, zipError, systemError);
    return -1;
  }

  // An interrupt ends the writing at the next piece: the archive is
  // abandoned (and its file removed) instead of being finished for seconds.
  bool interrupted() {
    if (!InterruptRequested()) return false;
    failed(ZIP_ER_CANCELLED, 0);
    return true;
  }

  bool flush() {
    if (buffer_.empty()) return true;
    const bool written = file_.Write(buffer_.data(), buffer_.size());
    position_ += buffer_.size();
    buffer_.clear();
    if (!written) failed(ZIP_ER_WRITE, file_.Error());
    return written;
  }

  zip_int64_t write(const void* data, zip_uint64_t length) {
    if (interrupted()) return -1;
    if (buffer_.size() + length > kBufferBytes && !flush()) return -1;
    if (length >= kBufferBytes) {
      if (!file_.Write(data, length)) return failed(ZIP_ER_WRITE, file_.Error());
      position_ += length;
    } else {
      buffer_.append(static_cast<const char*>(data), length);
    }
    size_ = std::max(size_, position_ + buffer_.size());
    return static_cast<zip_int64_t>(length);
  }

  zip_int64_t seek(void* data, zip_uint64_t length) {
    auto* args = ZIP_SOURCE_GET_ARGS(zip_source_args_seek_t, data, length, &error_);
    if (!args || !flush()) return -1;
    const zip_int64_t base = args->whence == SEEK_SET   ? 0
                             : args->whence == SEEK_CUR ? static_cast<zip_int64_t>(position_)
                                                        : static_cast<zip_int64_t>(size_);
    const zip_int64_t to = base + args->offset;
    if (to < 0) return failed(ZIP_ER_INVAL, 0);
    if (!file_.Seek(static_cast<std::uint64_t>(to))) return failed(ZIP_ER_SEEK, file_.Error());
    position_ = static_cast<std::uint64_t>(to);
    return 0;
  }

  zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_STAT:
        // No earlier archive is read: the one at the path is replaced.
        return failed(ZIP_ER_READ, ENOENT);
      case ZIP_SOURCE_OPEN:
      case ZIP_SOURCE_READ:
      case ZIP_SOURCE_SEEK:
      case ZIP_SOURCE_TELL:
        return failed(ZIP_ER_OPNOTSUPP, 0);
      case ZIP_SOURCE_CLOSE:
        return 0;
      case ZIP_SOURCE_BEGIN_WRITE:
        buffer_.clear();
        position_ = size_ = 0;
        if (interrupted()) return -1;
        return file_.Create(path_) ? 0 : failed(ZIP_ER_TMPOPEN, file_.Error());
      case ZIP_SOURCE_WRITE:
        return write(data, length);
      case ZIP_SOURCE_SEEK_WRITE:
        return seek(data, length);
      case ZIP_SOURCE_TELL_WRITE:
        return static_cast<zip_int64_t>(position_ + buffer_.size());
      case ZIP_SOURCE_COMMIT_WRITE:
        // The last moment an interrupt keeps the archive from being delivered.
        if (!flush() || interrupted()) return -1;
        return file_.Commit() ? 0 : failed(ZIP_ER_RENAME, file_.Error());
      case ZIP_SOURCE_ROLLBACK_WRITE:
        buffer_.clear();
        file_.Abandon();
        return 0;
      case ZIP_SOURCE_REMOVE:
        // Asked for only when an archive ends up empty, which the archive
        // adapter writes itself instead of closing.
        return 0;
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&error_, data, length);
      case ZIP_SOURCE_FREE:
        delete this;
        return 0;
      case ZIP_SOURCE_SUPPORTS:
        return zip_source_make_command_bitmap(
            ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT, ZIP_SOURCE_SEEK,
            ZIP_SOURCE_TELL, ZIP_SOURCE_BEGIN_WRITE, ZIP_SOURCE_WRITE, ZIP_SOURCE_SEEK_WRITE,
            ZIP_SOURCE_TELL_WRITE, ZIP_SOURCE_COMMIT_WRITE, ZIP_SOURCE_ROLLBACK_WRITE,
            ZIP_SOURCE_REMOVE, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
      default:
        return failed(ZIP_ER_OPNOTSUPP, 0);
    }
  }

  const std::string path_;
  VeltFileInPlace file_;
  std::string buffer_;
  std::uint64_t position_ = 0;  // where the buffer starts in the file
  std::uint64_t size_ = 0;
  zip_error_t error_;
};

}  // namespace

zip_source_t* CreateBufferedArchiveSource(const std::string& path, zip_error_t* error) {
  auto* state = new BufferedArchiveFile(path);
  zip_source_t* source = zip_source_function_create(&BufferedArchiveFile::Call, state, error);
  if (!source) delete state;
  return source;
}
