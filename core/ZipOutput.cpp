#include "core/ZipOutput.h"

#include <cstddef>
#include <string>

namespace {

// Stands in front of libzip's own file source and passes every command on to
// it, except that writes are gathered until a megabyte is there, a seek or
// the commit needs them written, or the write is abandoned.
class BufferedArchiveFile {
 public:
  static constexpr std::size_t kBufferBytes = 1 << 20;

  explicit BufferedArchiveFile(zip_source_t* file) : file_(file) {
    zip_error_init(&error_);
    buffer_.reserve(kBufferBytes);
  }
  ~BufferedArchiveFile() {
    zip_source_free(file_);
    zip_error_fini(&error_);
  }
  BufferedArchiveFile(const BufferedArchiveFile&) = delete;
  BufferedArchiveFile& operator=(const BufferedArchiveFile&) = delete;

  static zip_int64_t Call(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    return static_cast<BufferedArchiveFile*>(state)->call(data, length, command);
  }

 private:
  // The file source's result: 0 or more passes on, a failure leaves its
  // error for ZIP_SOURCE_ERROR to report.
  zip_int64_t passed(zip_int64_t result) {
    if (result < 0)
      zip_error_set(&error_, zip_error_code_zip(zip_source_error(file_)),
                    zip_error_code_system(zip_source_error(file_)));
    return result < 0 ? -1 : result;
  }

  bool flush() {
    if (buffer_.empty()) return true;
    const zip_int64_t written = zip_source_write(file_, buffer_.data(), buffer_.size());
    const bool complete = written == static_cast<zip_int64_t>(buffer_.size());
    buffer_.clear();
    if (!complete) {
      if (written >= 0)
        zip_error_set(&error_, ZIP_ER_WRITE, 0);
      else
        passed(-1);
    }
    return complete;
  }

  zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_OPEN:
        return passed(zip_source_open(file_));
      case ZIP_SOURCE_READ:
        return passed(zip_source_read(file_, data, length));
      case ZIP_SOURCE_CLOSE:
        return passed(zip_source_close(file_));
      case ZIP_SOURCE_STAT: {
        auto* st = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &error_);
        if (!st) return -1;
        return zip_source_stat(file_, st) < 0 ? passed(-1) : sizeof(*st);
      }
      case ZIP_SOURCE_SEEK: {
        auto* args = ZIP_SOURCE_GET_ARGS(zip_source_args_seek_t, data, length, &error_);
        if (!args) return -1;
        return passed(zip_source_seek(file_, args->offset, args->whence));
      }
      case ZIP_SOURCE_TELL:
        return passed(zip_source_tell(file_));
      case ZIP_SOURCE_BEGIN_WRITE:
        buffer_.clear();
        return passed(zip_source_begin_write(file_));
      case ZIP_SOURCE_WRITE:
        if (buffer_.size() + length > kBufferBytes && !flush()) return -1;
        if (length >= kBufferBytes) return passed(zip_source_write(file_, data, length));
        buffer_.append(static_cast<const char*>(data), length);
        return static_cast<zip_int64_t>(length);
      case ZIP_SOURCE_SEEK_WRITE: {
        auto* args = ZIP_SOURCE_GET_ARGS(zip_source_args_seek_t, data, length, &error_);
        if (!args || !flush()) return -1;
        return passed(zip_source_seek_write(file_, args->offset, args->whence));
      }
      case ZIP_SOURCE_TELL_WRITE: {
        const zip_int64_t at = zip_source_tell_write(file_);
        return at < 0 ? passed(at) : at + static_cast<zip_int64_t>(buffer_.size());
      }
      case ZIP_SOURCE_COMMIT_WRITE:
        if (!flush()) return -1;
        return passed(zip_source_commit_write(file_));
      case ZIP_SOURCE_ROLLBACK_WRITE:
        buffer_.clear();
        zip_source_rollback_write(file_);
        return 0;
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&error_, data, length);
      case ZIP_SOURCE_FREE:
        delete this;
        return 0;
      case ZIP_SOURCE_SUPPORTS:
        // REMOVE is listed because libzip writes only to sources that have
        // it; it is asked for only when an archive ends up empty, which the
        // archive adapter writes itself instead of closing.
        return zip_source_make_command_bitmap(
            ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT, ZIP_SOURCE_SEEK,
            ZIP_SOURCE_TELL, ZIP_SOURCE_BEGIN_WRITE, ZIP_SOURCE_WRITE, ZIP_SOURCE_SEEK_WRITE,
            ZIP_SOURCE_TELL_WRITE, ZIP_SOURCE_COMMIT_WRITE, ZIP_SOURCE_ROLLBACK_WRITE,
            ZIP_SOURCE_REMOVE, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, -1);
      default:
        zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
        return -1;
    }
  }

  zip_source_t* file_;
  std::string buffer_;
  zip_error_t error_;
};

}  // namespace

zip_source_t* CreateBufferedArchiveSource(const std::string& path, zip_error_t* error) {
  zip_source_t* file = zip_source_file_create(path.c_str(), 0, -1, error);
  if (!file) return nullptr;
  auto* state = new BufferedArchiveFile(file);
  zip_source_t* source = zip_source_function_create(&BufferedArchiveFile::Call, state, error);
  if (!source) delete state;  // frees the file source with it
  return source;
}
