#include "tools/common/Platform.h"

#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>

#include <cstdlib>
#include <string>

namespace veltools {

namespace {

constexpr char kSleeperOption[] = "--sleeper-seconds";

std::wstring Wide(const std::string& text) {
  const int length =
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], length);
  return wide;
}

}  // namespace

int ProcessId() { return static_cast<int>(GetCurrentProcessId()); }

void UseBinaryStandardStreams() {
  _setmode(1, _O_BINARY);
  _setmode(2, _O_BINARY);
}

void SleepMilliseconds(std::uint64_t milliseconds) {
  while (milliseconds > 0) {
    const DWORD step = static_cast<DWORD>(milliseconds > 0x7fffffff ? 0x7fffffff : milliseconds);
    Sleep(step);
    milliseconds -= step;
  }
}

std::tm LocalTime(std::time_t time) {
  std::tm local{};
  localtime_s(&local, &time);
  return local;
}

std::tm UniversalTime(std::time_t time) {
  std::tm universal{};
  gmtime_s(&universal, &time);
  return universal;
}

bool SeekTo(std::FILE* file, std::uint64_t offset) {
  return _fseeki64(file, static_cast<long long>(offset), SEEK_SET) == 0;
}

void DieBySignal(int signal) {
  std::fflush(nullptr);
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(128 + signal));
  std::_Exit(128 + signal);
}

// The sleeper is this program again, told so by its first argument; it runs
// in this process's job, so ending the tree ends it.
int StartSleeper(double seconds, bool keepOutput) {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  std::wstring commandLine =
      L"\"" + std::wstring(self) + L"\" " + Wide(kSleeperOption) + L" " + std::to_wstring(seconds);
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  SECURITY_ATTRIBUTES inheritable = {sizeof inheritable, nullptr, TRUE};
  HANDLE null = INVALID_HANDLE_VALUE;
  if (!keepOutput) {
    null = CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                       &inheritable, OPEN_EXISTING, 0, nullptr);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = startup.hStdOutput = startup.hStdError = null;
  }
  PROCESS_INFORMATION started = {};
  int pid = -1;
  if (CreateProcessW(self, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                     &started)) {
    pid = static_cast<int>(started.dwProcessId);
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
  }
  if (null != INVALID_HANDLE_VALUE) CloseHandle(null);
  return pid;
}

bool RunAsSleeper(int argc, char** argv) {
  if (argc != 3 || std::string(argv[1]) != kSleeperOption) return false;
  SleepMilliseconds(static_cast<std::uint64_t>(std::strtod(argv[2], nullptr) * 1000));
  return true;
}

bool MapFile(const std::string& path, const char*& data, std::size_t& size) {
  HANDLE file = CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                            nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  LARGE_INTEGER length;
  const void* view = nullptr;
  if (GetFileSizeEx(file, &length) && length.QuadPart > 0) {
    if (HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr)) {
      view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
      CloseHandle(mapping);  // the view keeps the mapping
    }
  }
  CloseHandle(file);
  if (!view) return false;
  data = static_cast<const char*>(view);
  size = static_cast<std::size_t>(length.QuadPart);
  return true;
}

void UnmapFile(const char* data, std::size_t) { UnmapViewOfFile(data); }

}  // namespace veltools
