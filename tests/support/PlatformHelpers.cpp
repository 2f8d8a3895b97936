#include "tests/support/PlatformHelpers.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#endif

namespace {

// The error the stand-in for copy_file_range below fails with; 0: none.
std::atomic<int> gKernelCopyError{0};

}  // namespace

namespace veltest {

void SetKernelCopyError(int error) { gKernelCopyError = error; }

#ifdef _WIN32

bool WriteToPipe(std::intptr_t pipe, const std::string& bytes) {
  DWORD written = 0;
  return ::WriteFile(reinterpret_cast<HANDLE>(pipe), bytes.data(), static_cast<DWORD>(bytes.size()),
                     &written, nullptr) &&
         written == bytes.size();
}

int OpenStrayDescriptor() { return -1; }
void CloseStrayDescriptor(int) {}
bool MakeExecutable(const std::string&) { return false; }

std::string ChildStreams() {
  return GetFileType(GetStdHandle(STD_INPUT_HANDLE)) == FILE_TYPE_CHAR ? "NUL\t-\t" : "file\t-\t";
}

void UseBinaryStandardOutput() { _setmode(1, _O_BINARY); }

std::wstring QuotedForCommandLine(const std::wstring& argument) {
  std::wstring quoted = L"\"";
  std::size_t slashes = 0;
  for (const wchar_t c : argument) {
    if (c == L'\\') {
      ++slashes;
      continue;
    }
    quoted.append(c == L'"' ? 2 * slashes + 1 : slashes, L'\\');
    quoted += c;
    slashes = 0;
  }
  return quoted.append(2 * slashes, L'\\') + L"\"";
}

int RunCommand(char** argv) {
  // Narrow texts are UTF-8 (the manifest's code page).
  std::wstring line;
  for (char** argument = argv; *argument; ++argument) {
    const std::string narrow = *argument;
    std::wstring wide(
        MultiByteToWideChar(CP_UTF8, 0, narrow.data(), static_cast<int>(narrow.size()), nullptr, 0),
        L'\0');
    MultiByteToWideChar(CP_UTF8, 0, narrow.data(), static_cast<int>(narrow.size()), &wide[0],
                        static_cast<int>(wide.size()));
    line += (line.empty() ? L"" : L" ") + QuotedForCommandLine(wide);
  }
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started = {};
  if (!CreateProcessW(nullptr, &line[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                      &started))
    return -1;
  WaitForSingleObject(started.hProcess, INFINITE);
  DWORD code = 1;
  GetExitCodeProcess(started.hProcess, &code);
  CloseHandle(started.hProcess);
  CloseHandle(started.hThread);
  return static_cast<int>(code);
}

#else

bool WriteToPipe(std::intptr_t pipe, const std::string& bytes) {
  return write(static_cast<int>(pipe), bytes.data(), bytes.size()) ==
         static_cast<ssize_t>(bytes.size());
}

int OpenStrayDescriptor() { return open("/dev/null", O_RDONLY); }
void CloseStrayDescriptor(int descriptor) {
  if (descriptor >= 0) close(descriptor);
}
bool MakeExecutable(const std::string& path) { return chmod(path.c_str(), 0755) == 0; }

std::string ChildStreams() {
  char input[4096];
  const ssize_t n = readlink("/proc/self/fd/0", input, sizeof input);
  std::string text = std::string(input, n > 0 ? static_cast<std::size_t>(n) : 0) + "\t", open;
  DIR* fds = opendir("/proc/self/fd");
  while (dirent* entry = readdir(fds))
    if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(fds))
      open += (open.empty() ? "" : ",") + std::string(entry->d_name);
  closedir(fds);
  return text + open + "\t";
}

void UseBinaryStandardOutput() {}

int RunCommand(char** argv) {
  execv(argv[0], argv);
  return -1;
}

#endif

}  // namespace veltest

#ifndef _WIN32
// Stands in for the C library's call, so that a test can make the kernel
// refuse to copy; otherwise it makes the system call itself.
extern "C" ssize_t copy_file_range(int in, off64_t* inOffset, int out, off64_t* outOffset,
                                   size_t length, unsigned int flags) noexcept {
  if (const int error = gKernelCopyError.load()) {
    errno = error;
    return -1;
  }
  return ::syscall(SYS_copy_file_range, in, inOffset, out, outOffset, length, flags);
}
#endif
