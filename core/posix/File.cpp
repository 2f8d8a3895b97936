#include "core/File.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "core/SystemCalls.h"

const bool kVeltOpenFilesCanBeReplaced = true;

namespace {

// Large enough that one call copies a whole piece; the kernel splits it.
constexpr std::size_t kCopyChunk = std::size_t(1) << 30;

int Descriptor(std::intptr_t handle) { return static_cast<int>(handle); }

// Closes a file on the way out: one that was read, or one written on a path
// that has failed already. A file whose bytes must land is closed with
// VeltOutputFile::Close, which reports a failed close.
void CloseHandle(std::intptr_t& handle) {
  if (handle >= 0) close(Descriptor(handle));
  handle = -1;
}

// The mode a newly created file gets from the user's umask.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

VeltInputFile::~VeltInputFile() { CloseHandle(handle_); }

bool VeltInputFile::Open(const AString& path) {
  CloseHandle(handle_);
  const int fd = open(VEL_ANSI(path).c_str(), O_RDONLY | O_CLOEXEC);
  error_ = fd < 0 ? errno : 0;
  handle_ = fd;
  return fd >= 0;
}

std::int64_t VeltInputFile::Read(char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t got = read(Descriptor(handle_), buffer, size);
    if (got >= 0) return got;
    if (errno != EINTR) {
      error_ = errno;
      return -1;
    }
  }
}

VeltOutputFile::~VeltOutputFile() { CloseHandle(handle_); }

bool VeltOutputFile::Create(const AString& path) {
  CloseHandle(handle_);
  const int fd = open(VEL_ANSI(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  error_ = fd < 0 ? errno : 0;
  handle_ = fd;
  return fd >= 0;
}

bool VeltOutputFile::CreateNew(const AString& path) {
  CloseHandle(handle_);
  const int fd = open(VEL_ANSI(path).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  error_ = fd < 0 ? errno : 0;
  handle_ = fd;
  return fd >= 0;
}

bool VeltOutputFile::Seek(std::uint64_t offset) {
  if (lseek(Descriptor(handle_), static_cast<off_t>(offset), SEEK_SET) >= 0) return true;
  error_ = errno;
  return false;
}

bool VeltOutputFile::Sync() {
  if (fsync(Descriptor(handle_)) == 0) return true;
  error_ = errno;
  return false;
}

bool VeltOutputFile::TakePermissions(const AString& like) {
  struct stat st;
  const mode_t mode = stat(VEL_ANSI(like).c_str(), &st) == 0 ? st.st_mode & 07777 : NewFileMode();
  if (fchmod(Descriptor(handle_), mode) == 0) return true;
  error_ = errno;
  return false;
}

bool VeltOutputFile::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = write(Descriptor(handle_), data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      error_ = written < 0 ? errno : ENOSPC;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

bool VeltOutputFile::CopyFrom(VeltInputFile& input, std::uint64_t& copied) {
#ifdef __linux__
  for (;;) {
    const ssize_t done = copy_file_range(Descriptor(input.handle_), nullptr, Descriptor(handle_),
                                         nullptr, kCopyChunk, 0);
    if (done > 0) {
      copied += static_cast<std::uint64_t>(done);
      continue;
    }
    if (done == 0) return true;
    if (errno == EINTR) continue;
    // Not supported between these two files (another file system, a file
    // system without the call, a kernel before 4.5, a container's filter
    // answering EPERM): copy through this program instead. The input's
    // position has not moved past what was written.
    if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
        errno == EPERM)
      break;
    error_ = errno;
    return false;
  }
#endif
  return CopyInPieces(input, copied);
}

bool VeltOutputFile::Extend(std::uint64_t bytes) {
  const int fd = Descriptor(handle_);
  const off_t end = lseek(fd, 0, SEEK_CUR);
  if (end < 0 || ftruncate(fd, end + static_cast<off_t>(bytes)) != 0 ||
      lseek(fd, static_cast<off_t>(bytes), SEEK_CUR) < 0) {
    error_ = errno;
    return false;
  }
  return true;
}

bool VeltOutputFile::Close() {
  if (handle_ < 0) return true;
  const bool closed = close(Descriptor(handle_)) == 0;
  if (!closed) error_ = errno;
  handle_ = -1;
  return closed;
}

bool VeltIsDirectory(const AString& path) {
  struct stat st;
  return stat(VEL_ANSI(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool VeltFileStatus(const AString& path, VeltFileInfo& info) {
  struct stat st;
  if (stat(VEL_ANSI(path).c_str(), &st) != 0) return false;
  info = VeltFileInfo();
  info.regular = S_ISREG(st.st_mode);
  info.directory = S_ISDIR(st.st_mode);
  info.size = static_cast<std::uint64_t>(st.st_size);
  info.modified = static_cast<std::int64_t>(st.st_mtime);
  info.hasUnixMode = true;
  info.unixMode = static_cast<std::uint32_t>(st.st_mode);
  return true;
}

bool VeltInputFile::Identify(VeltFileId& id) const {
  struct stat st;
  if (fstat(Descriptor(handle_), &st) != 0) return false;
  id = {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
        static_cast<std::uint64_t>(st.st_size)};
  return true;
}

bool VeltFileIdentity(const AString& path, VeltFileId& id) {
  struct stat st;
  if (stat(VEL_ANSI(path).c_str(), &st) != 0) return false;
  id = {static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino),
        static_cast<std::uint64_t>(st.st_size)};
  return true;
}

bool VeltPathExists(const AString& path) {
  struct stat st;
  return stat(VEL_ANSI(path).c_str(), &st) == 0;
}

bool VeltCreateDirectory(const AString& path) { return mkdir(VEL_ANSI(path).c_str(), 0777) == 0; }

bool VeltRemoveTree(const AString& path) {
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::u8path(VEL_ANSI(path)), ec);
  return !ec;
}

std::string VeltCurrentDirectory() {
  std::vector<char> buffer(4096);
  while (!getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) return std::string();
    buffer.resize(buffer.size() * 2);
  }
  return buffer.data();
}

bool VeltIsPathSeparator(wchar_t c) { return c == L'/'; }

std::FILE* VeltOpenTemporaryFile() { return std::tmpfile(); }

bool VeltSeekFile(std::FILE* file, std::uint64_t offset) {
  return fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0;
}

namespace velt_system {

int LastError() { return errno; }
std::string LastErrorText() { return std::strerror(errno); }

bool MoveIntoPlace(const std::string& from, const std::string& to) {
  return rename(from.c_str(), to.c_str()) == 0;
}

bool RemoveFile(const std::string& path) { return unlink(path.c_str()) == 0; }

}  // namespace velt_system

void VeltFailWritesPastSizeLimit() { signal(SIGXFSZ, SIG_IGN); }
