// The launcher and the environment on Windows.

#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>

#include "tests/support/Internal.h"
#include "tests/support/PlatformHelpers.h"

namespace veltest {

void SetEnv(const std::string& name, const std::optional<std::string>& value) {
  // An empty value removes the variable on Windows.
  _putenv_s(name.c_str(), value ? value->c_str() : "");
}

namespace {

std::wstring Wide(const std::string& text) { return fs::u8path(text).wstring(); }
std::string Narrow(const std::wstring& text) { return fs::path(text).u8string(); }

HANDLE OpenInheritable(const std::string& path, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, TRUE};
  const HANDLE file = CreateFileW(Wide(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &attributes, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + path);
  return file;
}

}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::wstring environment, command;
  for (const auto& [name, text] : Environment(options)) environment += Wide(text) + L'\0';
  environment += L'\0';
  for (const std::string& arg : argv)
    command += (command.empty() ? L"" : L" ") + QuotedForCommandLine(Wide(arg));
  HANDLE streams[] = {OpenInheritable("NUL", GENERIC_READ, OPEN_EXISTING),
                      OpenInheritable(outFile, GENERIC_WRITE, CREATE_ALWAYS),
                      OpenInheritable(errFile, GENERIC_WRITE, CREATE_ALWAYS)};
  // The program inherits its three streams and nothing else of this process.
  SIZE_T size = 0;
  InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
  std::vector<char> list(size);
  STARTUPINFOEXW startup = {};
  startup.StartupInfo.cb = sizeof startup;
  startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
  startup.StartupInfo.hStdInput = streams[0];
  startup.StartupInfo.hStdOutput = streams[1];
  startup.StartupInfo.hStdError = streams[2];
  startup.lpAttributeList = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(list.data());
  InitializeProcThreadAttributeList(startup.lpAttributeList, 1, 0, &size);
  UpdateProcThreadAttribute(startup.lpAttributeList, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, streams,
                            sizeof streams, nullptr, nullptr);
  const std::wstring cwd = Wide(options.cwd);
  PROCESS_INFORMATION process = {};
  const bool created = CreateProcessW(
      fs::u8path(argv.at(0)).make_preferred().c_str(), &command[0], nullptr, nullptr, TRUE,
      CREATE_UNICODE_ENVIRONMENT | CREATE_NEW_PROCESS_GROUP | EXTENDED_STARTUPINFO_PRESENT,
      &environment[0], cwd.empty() ? nullptr : cwd.c_str(), &startup.StartupInfo, &process);
  DeleteProcThreadAttributeList(startup.lpAttributeList);
  for (HANDLE handle : streams) CloseHandle(handle);
  if (!created) throw std::runtime_error("cannot start " + argv[0]);
  CloseHandle(process.hThread);
  return {static_cast<int>(process.dwProcessId), process.hProcess};
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const HANDLE process = started.process;
  if (WaitForSingleObject(process, static_cast<DWORD>(timeoutSeconds * 1000)) == WAIT_TIMEOUT) {
    result.timedOut = true;
    for (const auto& [pid, name] : RunProcesses(started.pid, "")) KillProcess(pid);
    WaitForSingleObject(process, INFINITE);
  }
  DWORD code = 0;
  GetExitCodeProcess(process, &code);
  result.exitCode = static_cast<int>(code);
  result.out = WithoutCarriageReturns(ReadIfAny(outFile));
  result.err = WithoutCarriageReturns(ReadIfAny(errFile));
  return result;
}

void ReleaseProgram(Started& started) {
  if (started.process) CloseHandle(started.process);
  started.process = nullptr;
}

std::vector<std::pair<int, std::string>> RunProcesses(int root, const std::string&) {
  std::vector<std::pair<int, std::string>> found;
  std::vector<std::pair<DWORD, DWORD>> parents;  // (pid, parent pid)
  std::map<DWORD, std::string> names;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more;
       more = Process32NextW(snapshot, &entry)) {
    parents.emplace_back(entry.th32ProcessID, entry.th32ParentProcessID);
    names[entry.th32ProcessID] = Narrow(entry.szExeFile);
  }
  CloseHandle(snapshot);
  // The root's descendants are found after it has ended too. Under wine the
  // first program started after the wine server itself (now and then a
  // test's run, when the server was restarted) becomes the parent of wine's
  // service manager, whose services are wine's and never the run's.
  std::vector<DWORD> tree = {static_cast<DWORD>(root)};
  for (std::size_t i = 0; i < tree.size(); ++i)
    for (const auto& [pid, parent] : parents)
      if (parent == tree[i] && pid != tree[i] && _stricmp(names[pid].c_str(), "services.exe") != 0)
        tree.push_back(pid);
  for (DWORD pid : tree)
    if (names.count(pid)) found.emplace_back(static_cast<int>(pid), names[pid]);
  return found;
}

bool SendSignal(int pid, int signal) {
  const HANDLE process =
      signal == SIGKILL ? OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid)) : nullptr;
  const bool sent = process && TerminateProcess(process, 128 + SIGKILL);
  if (process) CloseHandle(process);
  return sent;
}

}  // namespace veltest
