#include "core/File.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "core/Process.h"
#include "core/SystemCalls.h"

const bool kVeltOpenFilesCanBeReplaced = false;

namespace {

// ReadFile and WriteFile count in 32 bits.
constexpr std::size_t kMostPerCall = 1u << 30;

HANDLE Handle(std::intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

// Closes a file on the way out: one that was read, or one written on a path
// that has failed already. A file whose bytes must land is closed with
// VeltOutputFile::Close, which reports a failed close.
void CloseFileHandle(std::intptr_t& handle) {
  if (handle != -1) CloseHandle(Handle(handle));
  handle = -1;
}

std::intptr_t Open(const AString& path, DWORD access, DWORD share, DWORD disposition, DWORD flags,
                   int& error) {
  const HANDLE file =
      CreateFileW(path.wstr().c_str(), access, share, nullptr, disposition, flags, nullptr);
  error = file == INVALID_HANDLE_VALUE ? static_cast<int>(GetLastError()) : 0;
  return reinterpret_cast<std::intptr_t>(file);
}

DWORD Attributes(const AString& path) { return GetFileAttributesW(path.wstr().c_str()); }

}  // namespace

VeltInputFile::~VeltInputFile() { CloseFileHandle(handle_); }

bool VeltInputFile::Open(const AString& path) {
  CloseFileHandle(handle_);
  handle_ = ::Open(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                   OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, error_);
  return handle_ != -1;
}

std::int64_t VeltInputFile::Read(char* buffer, std::size_t size) {
  DWORD got = 0;
  if (!ReadFile(Handle(handle_), buffer, static_cast<DWORD>(std::min(size, kMostPerCall)), &got,
                nullptr)) {
    error_ = static_cast<int>(GetLastError());
    return -1;
  }
  return got;
}

VeltOutputFile::~VeltOutputFile() { CloseFileHandle(handle_); }

bool VeltOutputFile::Create(const AString& path) {
  CloseFileHandle(handle_);
  handle_ =
      ::Open(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, error_);
  return handle_ != -1;
}

bool VeltOutputFile::CreateNew(const AString& path) {
  CloseFileHandle(handle_);
  handle_ = ::Open(path, GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, error_);
  return handle_ != -1;
}

bool VeltOutputFile::Seek(std::uint64_t offset) {
  LARGE_INTEGER to;
  to.QuadPart = static_cast<LONGLONG>(offset);
  if (SetFilePointerEx(Handle(handle_), to, nullptr, FILE_BEGIN)) return true;
  error_ = static_cast<int>(GetLastError());
  return false;
}

bool VeltOutputFile::Sync() {
  if (FlushFileBuffers(Handle(handle_))) return true;
  error_ = static_cast<int>(GetLastError());
  return false;
}

// A new file gets what the folder it is in gives it.
bool VeltOutputFile::TakePermissions(const AString&) { return true; }

bool VeltOutputFile::Write(const char* data, std::size_t size) {
  while (size > 0) {
    DWORD written = 0;
    if (!WriteFile(Handle(handle_), data, static_cast<DWORD>(std::min(size, kMostPerCall)),
                   &written, nullptr) ||
        written == 0) {
      error_ = static_cast<int>(GetLastError());
      return false;
    }
    data += written;
    size -= written;
  }
  return true;
}

bool VeltOutputFile::CopyFrom(VeltInputFile& input, std::uint64_t& copied) {
  // The system has no copy between two open files.
  return CopyInPieces(input, copied);
}

bool VeltOutputFile::Extend(std::uint64_t bytes) {
  LARGE_INTEGER move;
  move.QuadPart = static_cast<LONGLONG>(bytes);
  if (!SetFilePointerEx(Handle(handle_), move, nullptr, FILE_CURRENT) ||
      !SetEndOfFile(Handle(handle_))) {
    error_ = static_cast<int>(GetLastError());
    return false;
  }
  return true;
}

bool VeltOutputFile::Close() {
  if (handle_ == -1) return true;
  const bool closed = CloseHandle(Handle(handle_)) != 0;
  if (!closed) error_ = static_cast<int>(GetLastError());
  handle_ = -1;
  return closed;
}

bool VeltIsDirectory(const AString& path) {
  const DWORD attributes = Attributes(path);
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

bool VeltFileStatus(const AString& path, VeltFileInfo& info) {
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!GetFileAttributesExW(path.wstr().c_str(), GetFileExInfoStandard, &data)) return false;
  info = VeltFileInfo();
  info.directory = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  info.regular = !info.directory && (data.dwFileAttributes & FILE_ATTRIBUTE_DEVICE) == 0;
  info.size = (std::uint64_t(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  // FILETIME counts 100-nanosecond steps since 1601.
  const std::uint64_t ticks = (std::uint64_t(data.ftLastWriteTime.dwHighDateTime) << 32) |
                              data.ftLastWriteTime.dwLowDateTime;
  info.modified = static_cast<std::int64_t>(ticks / 10000000) - 11644473600LL;
  return true;
}

namespace {

bool IdentityOf(HANDLE file, VeltFileId& id) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(file, &info)) return false;
  id = {info.dwVolumeSerialNumber, (std::uint64_t(info.nFileIndexHigh) << 32) | info.nFileIndexLow,
        (std::uint64_t(info.nFileSizeHigh) << 32) | info.nFileSizeLow};
  return true;
}

}  // namespace

bool VeltInputFile::Identify(VeltFileId& id) const { return IdentityOf(Handle(handle_), id); }

bool VeltFileIdentity(const AString& path, VeltFileId& id) {
  int error = 0;
  std::intptr_t handle = ::Open(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, error);
  if (handle == -1) return false;
  const bool known = IdentityOf(Handle(handle), id);
  CloseFileHandle(handle);
  return known;
}

bool VeltPathExists(const AString& path) { return Attributes(path) != INVALID_FILE_ATTRIBUTES; }

bool VeltCreateDirectory(const AString& path) {
  return CreateDirectoryW(path.wstr().c_str(), nullptr) != 0;
}

bool VeltRemoveTree(const AString& path) {
  // From the wide text: the narrow form would pass through the code page.
  std::error_code ec;
  std::filesystem::remove_all(std::filesystem::path(path.wstr()), ec);
  return !ec;
}

std::string VeltCurrentDirectory() {
  std::wstring directory(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetCurrentDirectoryW(static_cast<DWORD>(directory.size()), &directory[0]);
    if (length == 0) return std::string();
    if (length < directory.size()) {
      directory.resize(length);
      break;
    }
    directory.resize(length);
  }
  // A drive's root keeps its separator ("C:\"): without it, "C:" would mean
  // the drive's current directory.
  if (directory.size() > 3 && VeltIsPathSeparator(directory.back())) directory.pop_back();
  return VEL_ANSI(AString(std::move(directory)));
}

bool VeltIsPathSeparator(wchar_t c) { return c == L'/' || c == L'\\'; }

std::FILE* VeltOpenTemporaryFile() {
  // The C runtime's tmpfile() creates its file in the drive's root, where a
  // user often may not write; "D" removes the file when it is closed.
  namespace fs = std::filesystem;
  std::random_device random;
  std::error_code error;
  const fs::path directory = fs::temp_directory_path(error);
  if (error) return nullptr;
  for (int attempt = 0; attempt < 16; ++attempt) {
    const fs::path path = directory / ("velextracta-" + std::to_string(random()) + ".tmp");
    // "x": never an existing file; "T": kept in memory where it fits.
    if (std::FILE* file = _wfopen(path.wstring().c_str(), L"w+bxTD")) return file;
  }
  return nullptr;
}

bool VeltSeekFile(std::FILE* file, std::uint64_t offset) {
  return _fseeki64(file, static_cast<long long>(offset), SEEK_SET) == 0;
}

namespace velt_system {

int LastError() { return static_cast<int>(GetLastError()); }
std::string LastErrorText() { return VeltFormatSystemMessage(static_cast<int>(GetLastError())); }

bool MoveIntoPlace(const std::string& from, const std::string& to) {
  return MoveFileExW(AString(from).wstr().c_str(), AString(to).wstr().c_str(),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

bool RemoveFile(const std::string& path) { return DeleteFileW(AString(path).wstr().c_str()) != 0; }

}  // namespace velt_system

// Windows has no file size limit signal: such a write fails by itself.
void VeltFailWritesPastSizeLimit() {}
