#include "core/ZipArchive.h"

#include <zip.h>

#include <vector>

#include "core/File.h"

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

}  // namespace

std::string ZipEntryName(const std::string& path) {
  std::string absolute = path;
  std::size_t root = RootLength(path);
  if (root == 0) {
    const std::string current = VeltCurrentDirectory();
    if (current.empty()) throw CZipException("cannot read the current directory");
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

  const AString wide(path);
  if (!VeltPathExists(wide)) throw CZipException("cannot add " + path + ": no such file");
  std::string name = ZipEntryName(path);
  if (!fullPath) name = name.substr(name.find_last_of('/') + 1);
  if (name.empty()) throw CZipException("no entry name for " + path);

  if (VeltIsDirectory(wide)) {
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
  std::string error;
  if (!VeltWriteFileInPlace(path_, kEmptyArchive, sizeof kEmptyArchive, error))
    throw CZipException(error);
}
