#include "core/ZipArchive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace {

// deflate's default compression level (the one zlib and Info-ZIP use).
constexpr zip_uint32_t kDeflateDefaultLevel = 6;

std::string SystemError(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

std::string CurrentDirectory() {
  std::vector<char> buffer(4096);
  while (!getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) throw CZipException(SystemError("cannot read the current directory", ""));
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

std::string ParentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// The mode a newly created file gets from the user's umask.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

// The end-of-central-directory record of an archive without entries. libzip
// removes an archive that ends up empty instead of writing it, but an empty
// VLX file is still a valid, openable archive.
constexpr unsigned char kEmptyArchive[22] = {'P', 'K', 5, 6};

}  // namespace

std::string ZipEntryName(const std::string& path) {
  const std::string absolute =
      !path.empty() && path[0] == '/' ? path : CurrentDirectory() + "/" + path;
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= absolute.size()) {
    std::size_t end = absolute.find('/', start);
    if (end == std::string::npos) end = absolute.size();
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
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
    throw CZipException("the archive path is a directory: " + path);
  const std::string parent = ParentDirectory(path);
  if (stat(parent.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    throw CZipException("no directory to write the archive into: " + path);

  int error = 0;
  zip* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (!archive) {
    zip_error_t detail;
    zip_error_init_with_code(&detail, error);
    const std::string message =
        "cannot create archive " + path + ": " + zip_error_strerror(&detail);
    zip_error_fini(&detail);
    throw CZipException(message);
  }
  archive_ = archive;
  path_ = path;
  entries_ = 0;
}

void CZipArchive::AddNewFile(const std::string& path, int level, bool fullPath, int /*smartness*/,
                             unsigned long /*bufferSize*/) {
  if (!archive_) throw CZipException("no archive is open");
  if (level < -1 || level > 9) throw CZipException("compression level out of range");

  struct stat st;
  if (stat(path.c_str(), &st) != 0) throw CZipException(SystemError("cannot add", path));
  std::string name = ZipEntryName(path);
  if (!fullPath) name = name.substr(name.find_last_of('/') + 1);
  if (name.empty()) throw CZipException("no entry name for " + path);

  if (S_ISDIR(st.st_mode)) {
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
  std::string temporary = path_ + ".XXXXXX";
  const int fd = mkstemp(temporary.data());
  if (fd < 0) throw CZipException(SystemError("cannot create a temporary file for", path_));
  std::string failure;
  if (fchmod(fd, NewFileMode()) != 0 ||
      write(fd, kEmptyArchive, sizeof kEmptyArchive) !=
          static_cast<ssize_t>(sizeof kEmptyArchive) ||
      fsync(fd) != 0)
    failure = SystemError("cannot write archive", path_);
  if (close(fd) != 0 && failure.empty()) failure = SystemError("cannot write archive", path_);
  if (failure.empty() && rename(temporary.c_str(), path_.c_str()) != 0)
    failure = SystemError("cannot replace", path_);
  if (!failure.empty()) {
    unlink(temporary.c_str());
    throw CZipException(failure);
  }
}
