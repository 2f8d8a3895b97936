#include "core/ZipArchive.h"

#include <zip.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include "core/File.h"
#include "core/SystemCalls.h"
#include "core/ZipOutput.h"

namespace {

// deflate's default compression level (the one zlib and Info-ZIP use).
constexpr zip_uint32_t kDeflateDefaultLevel = 6;

bool IsSeparator(char c) { return VeltIsPathSeparator(static_cast<unsigned char>(c)); }

// The length of the root at the start of an absolute path: "/", a drive
// ("C:" with or without a separator after it), or a network share
// ("\\server\share"); 0 for a relative path. A drive or share is a root only
// where separators other than "/" are known, i.e. where the system has them.
std::size_t RootLength(const std::string& path) {
  const bool driveLetters = VeltIsPathSeparator(L'\\');
  if (driveLetters && path.size() >= 2 && path[1] == ':' &&
      ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z')))
    return path.size() > 2 && IsSeparator(path[2]) ? 3 : 2;
  if (driveLetters && path.size() > 2 && IsSeparator(path[0]) && IsSeparator(path[1])) {
    std::size_t end = 2;
    for (int part = 0; part < 2 && end < path.size(); ++part) {
      while (end < path.size() && !IsSeparator(path[end])) ++end;
      if (part == 0 && end < path.size()) ++end;
    }
    return end;
  }
  return !path.empty() && IsSeparator(path[0]) ? 1 : 0;
}

std::string ParentDirectory(const std::string& path) {
  std::size_t slash = path.size();
  while (slash > 0 && !IsSeparator(path[slash - 1])) --slash;
  if (slash == 0) return ".";
  const std::size_t root = RootLength(path);
  if (slash <= root) return path.substr(0, root);
  return path.substr(0, slash - 1);
}

// The end-of-central-directory record of an archive without entries. libzip
// removes an archive that ends up empty instead of writing it, but an empty
// VLX file is still a valid, openable archive.
constexpr unsigned char kEmptyArchive[22] = {'P', 'K', 5, 6};

// A zip source that hands libzip data deflated beforehand. Its stat names the
// deflate method with the compressed size, the size and the CRC, so libzip
// copies the data as it is instead of compressing it (zip_close's add_data
// recompresses only when the source's method differs from the entry's, and
// an entry added without a method of its own takes the source's). It reports
// the file's time and, as libzip's own file source does, its mode as Unix
// attributes where the system has them, so the entry reads back as if the
// file had been added.
class DeflatedSource {
 public:
  DeflatedSource(DeflatedEntry entry, const DeflateStore& store, const VeltFileInfo& file)
      : entry_(std::move(entry)), store_(store), file_(file) {
    zip_error_init(&error_);
  }
  ~DeflatedSource() { zip_error_fini(&error_); }

  static zip_int64_t Call(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    return static_cast<DeflatedSource*>(state)->call(data, length, command);
  }

 private:
  zip_int64_t call(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_OPEN:
        segment_ = 0;
        offset_ = 0;
        return 0;
      case ZIP_SOURCE_READ:
        return read(static_cast<char*>(data), length);
      case ZIP_SOURCE_CLOSE:
        return 0;
      case ZIP_SOURCE_STAT: {
        zip_stat_t* st = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &error_);
        if (!st) return -1;
        zip_stat_init(st);
        st->valid = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC |
                    ZIP_STAT_MTIME | ZIP_STAT_ENCRYPTION_METHOD;
        st->size = entry_.size;
        st->comp_size = entry_.compressedSize;
        st->comp_method = ZIP_CM_DEFLATE;
        st->encryption_method = ZIP_EM_NONE;
        st->crc = entry_.crc;
        st->mtime = static_cast<time_t>(file_.modified);
        return sizeof(*st);
      }
      case ZIP_SOURCE_GET_FILE_ATTRIBUTES: {
        auto* attributes = ZIP_SOURCE_GET_ARGS(zip_file_attributes_t, data, length, &error_);
        if (!attributes) return -1;
        attributes->valid |= ZIP_FILE_ATTRIBUTES_GENERAL_PURPOSE_BIT_FLAGS;
        if (file_.hasUnixMode) {
          attributes->valid |=
              ZIP_FILE_ATTRIBUTES_HOST_SYSTEM | ZIP_FILE_ATTRIBUTES_EXTERNAL_FILE_ATTRIBUTES;
          attributes->host_system = ZIP_OPSYS_UNIX;
          attributes->external_file_attributes =
              (file_.unixMode << 16) | ((file_.unixMode & 0200) ? 0 : 1);
        }
        // The flag bits libzip's compressing source reports, all clear at
        // deflate's default level.
        attributes->general_purpose_bit_mask = 0x0836;
        attributes->general_purpose_bit_flags = 0;
        return 0;
      }
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&error_, data, length);
      case ZIP_SOURCE_FREE:
        delete this;
        return 0;
      case ZIP_SOURCE_SUPPORTS:
        return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                              ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE,
                                              ZIP_SOURCE_GET_FILE_ATTRIBUTES, -1);
      default:
        zip_error_set(&error_, ZIP_ER_OPNOTSUPP, 0);
        return -1;
    }
  }

  // The segments one after another, then the final block.
  zip_int64_t read(char* out, zip_uint64_t length) {
    zip_uint64_t done = 0;
    const std::string& finalBlock = DeflateFinalBlock();
    try {
      while (done < length && segment_ <= entry_.segments.size()) {
        const bool last = segment_ == entry_.segments.size();
        const uint64_t size = last ? finalBlock.size() : entry_.segments[segment_].compressedSize;
        const std::size_t n = static_cast<std::size_t>(std::min(size - offset_, length - done));
        if (last)
          std::memcpy(out + done, finalBlock.data() + offset_, n);
        else
          store_.read(entry_.segments[segment_], offset_, out + done, n);
        done += n;
        offset_ += n;
        if (offset_ == size) {
          ++segment_;
          offset_ = 0;
        }
      }
    } catch (const std::exception&) {
      zip_error_set(&error_, ZIP_ER_READ, errno);
      return -1;
    }
    return static_cast<zip_int64_t>(done);
  }

  const DeflatedEntry entry_;
  const DeflateStore& store_;
  const VeltFileInfo file_;
  zip_error_t error_;
  std::size_t segment_ = 0;
  uint64_t offset_ = 0;
};

}  // namespace

std::string ZipEntryName(const std::string& path) {
  std::string absolute = path;
  std::size_t root = RootLength(path);
  if (root == 0) {
    const std::string current = VeltCurrentDirectory();
    if (current.empty())
      throw CZipException("cannot read the current directory: " + velt_system::LastErrorText());
    absolute = current + "/" + path;
    root = RootLength(absolute);
  }
  std::vector<std::string> parts;
  std::size_t start = root;
  while (start <= absolute.size()) {
    std::size_t end = start;
    while (end < absolute.size() && !IsSeparator(absolute[end])) ++end;
    const std::string part = absolute.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();  // ".." at the root stays at the root
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }
  std::string name;
  for (const auto& part : parts) name += (name.empty() ? "" : "/") + part;
  return name;
}

CZipArchive::~CZipArchive() { Discard(); }

void CZipArchive::Open(const std::string& path, int mode, long long volumeSize) {
  if (archive_) throw CZipException("an archive is open already");
  if (mode != kCreate) throw CZipException("only new archives can be created");
  if (volumeSize != 0) throw CZipException("split archives are not supported");

  // libzip defers these failures to the close; the caller needs them now,
  // before any work is spent on the entries.
  if (VeltIsDirectory(AString(path)))
    throw CZipException("the archive path is a directory: " + path);
  if (!VeltIsDirectory(AString(ParentDirectory(path))))
    throw CZipException("no directory to write the archive into: " + path);

  zip_error_t error;
  zip_error_init(&error);
  zip* archive = nullptr;
  if (zip_source_t* file = CreateBufferedArchiveSource(path, &error)) {
    archive = zip_open_from_source(file, ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!archive) zip_source_free(file);
  }
  if (!archive) {
    const std::string message = "cannot create archive " + path + ": " + zip_error_strerror(&error);
    zip_error_fini(&error);
    throw CZipException(message);
  }
  zip_error_fini(&error);
  archive_ = archive;
  path_ = path;
  entries_ = 0;
}

void CZipArchive::AddNewFile(const std::string& path, int level, bool fullPath, int,
                             unsigned long) {
  if (!archive_) throw CZipException("no archive is open");
  if (level < -1 || level > 9) throw CZipException("compression level out of range");

  const AString wide(path);
  VeltFileInfo info;
  if (!VeltFileStatus(wide, info))
    throw CZipException("cannot add " + path + ": " + velt_system::LastErrorText());
  const std::string name = EntryName(path, fullPath);

  if (info.directory) {
    if (zip_dir_add(archive_, name.c_str(), ZIP_FL_ENC_GUESS) < 0)
      throw CZipException("cannot add directory " + path + ": " + zip_strerror(archive_));
    ++entries_;
    return;
  }

  zip_source_t* source = zip_source_file(archive_, path.c_str(), 0, -1);
  if (!source) throw CZipException("cannot add " + path + ": " + zip_strerror(archive_));
  const zip_int64_t index = zip_file_add(archive_, name.c_str(), source, ZIP_FL_ENC_GUESS);
  if (index < 0) {
    zip_source_free(source);
    throw CZipException("cannot add " + path + ": " + zip_strerror(archive_));
  }
  ++entries_;
  const zip_int32_t method = level == 0 ? ZIP_CM_STORE : ZIP_CM_DEFLATE;
  // The default level (-1) is deflate's own default, 6. libzip reads its "0"
  // as its own default, which is the slowest level, 9: on a connectivity view
  // of hundreds of megabytes that costs more than twice the time for a few
  // per cent of size.
  const zip_uint32_t compressionLevel =
      level > 0 ? static_cast<zip_uint32_t>(level) : kDeflateDefaultLevel;
  if (zip_set_file_compression(archive_, static_cast<zip_uint64_t>(index), method,
                               compressionLevel) < 0)
    throw CZipException("cannot set compression for " + path + ": " + zip_strerror(archive_));
}

void CZipArchive::AddDeflatedFile(const std::string& path, bool fullPath, DeflatedEntry entry,
                                  const DeflateStore& store) {
  if (!archive_) throw CZipException("no archive is open");
  VeltFileInfo st;
  if (!VeltFileStatus(AString(path), st))
    throw CZipException("cannot add " + path + ": " + velt_system::LastErrorText());
  if (!st.regular || st.size != entry.size)
    throw CZipException("the file changed after it was compressed: " + path);
  const std::string name = EntryName(path, fullPath);

  auto* state = new DeflatedSource(std::move(entry), store, st);
  zip_source_t* source = zip_source_function(archive_, &DeflatedSource::Call, state);
  if (!source) {
    delete state;
    throw CZipException("cannot add " + path + ": " + zip_strerror(archive_));
  }
  // The entry keeps the default method, so it takes the source's: deflate,
  // copied without compressing again.
  if (zip_file_add(archive_, name.c_str(), source, ZIP_FL_ENC_GUESS) < 0) {
    zip_source_free(source);
    throw CZipException("cannot add " + path + ": " + zip_strerror(archive_));
  }
  ++entries_;
}

std::string CZipArchive::EntryName(const std::string& path, bool fullPath) const {
  std::string name = ZipEntryName(path);
  if (!fullPath) name = name.substr(name.find_last_of('/') + 1);
  if (name.empty()) throw CZipException("no entry name for " + path);
  return name;
}

void CZipArchive::Close(int afterException, bool updateTimeStamp) {
  if (!archive_) throw CZipException("no archive is open");
  if (updateTimeStamp) throw CZipException("the archive's time stamp cannot be set");
  if (afterException != 0) {
    Discard();
    return;
  }
  if (entries_ == 0) {
    Discard();
    WriteEmptyArchive();
  } else if (zip_close(archive_) != 0) {
    const std::string message = "cannot write archive " + path_ + ": " + zip_strerror(archive_);
    Discard();
    throw CZipException(message);
  } else {
    archive_ = nullptr;
  }
}

void CZipArchive::Discard() {
  if (archive_) zip_discard(archive_);
  archive_ = nullptr;
}

void CZipArchive::WriteEmptyArchive() {
  VeltFileInPlace file;
  if (!file.Create(path_) || !file.Write(kEmptyArchive, sizeof kEmptyArchive) || !file.Commit())
    throw CZipException("cannot write archive " + path_ + ": " + file.ErrorText());
}
