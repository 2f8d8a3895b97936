#include "core/ProcessStamp.h"

#include <windows.h>

#include "core/AString.h"

namespace {

// When the process was created, in the system's 100-nanosecond units.
std::string CreationOf(HANDLE process) {
  FILETIME created, exited, kernel, user;
  if (!GetProcessTimes(process, &created, &exited, &kernel, &user)) return std::string();
  const unsigned long long ticks =
      (static_cast<unsigned long long>(created.dwHighDateTime) << 32) | created.dwLowDateTime;
  return std::to_string(ticks);
}

}  // namespace

VeltProcessStamp VeltThisProcess() {
  VeltProcessStamp stamp;
  wchar_t name[256];
  DWORD size = 256;
  if (GetComputerNameExW(ComputerNamePhysicalDnsHostname, name, &size))
    stamp.host = VEL_ANSI(AString(std::wstring(name, size)));
  stamp.pid = static_cast<long long>(GetCurrentProcessId());
  stamp.started = CreationOf(GetCurrentProcess());
  return stamp;
}

bool VeltProcessRuns(long long pid, const std::string& started) {
  if (pid <= 0) return false;
  HANDLE process =
      OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
  // A process we may not look at still runs.
  if (!process) return GetLastError() == ERROR_ACCESS_DENIED;
  // Asked of the process itself: an exit code may be anything.
  const bool runs = WaitForSingleObject(process, 0) == WAIT_TIMEOUT &&
                    (started.empty() || CreationOf(process) == started);
  CloseHandle(process);
  return runs;
}
