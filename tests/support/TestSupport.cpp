#include "tests/support/TestSupport.h"

#ifdef _WIN32
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#ifndef _WIN32
extern char** environ;
#endif

namespace veltest {

namespace fs = std::filesystem;

namespace {

void SetEnv(const std::string& name, const std::optional<std::string>& value) {
#ifdef _WIN32
  // An empty value removes the variable on Windows.
  _putenv_s(name.c_str(), value ? value->c_str() : "");
#else
  if (value)
    setenv(name.c_str(), value->c_str(), 1);
  else
    unsetenv(name.c_str());
#endif
}

}  // namespace

TempDir::TempDir() {
  const fs::path base = fs::temp_directory_path();
  std::random_device random;
  for (int attempt = 0; attempt < 100; ++attempt) {
    const fs::path candidate = base / ("veltest-" + std::to_string(random()));
    if (fs::create_directory(candidate)) {
      path_ = candidate.generic_u8string();
      return;
    }
  }
  throw std::runtime_error("no fresh temporary directory");
}

TempDir::~TempDir() {
  std::error_code ec;
  // Tests may leave read-only directories behind; make them removable first.
  const fs::path path = fs::u8path(path_);
  for (fs::recursive_directory_iterator it(path, ec), end; !ec && it != end; it.increment(ec)) {
    if (fs::is_directory(it->symlink_status()))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(path, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(path, ec);
}

ScopedEnv::ScopedEnv(std::string name, std::optional<std::string> value) : name_(std::move(name)) {
  if (const char* old = std::getenv(name_.c_str())) old_ = old;
  SetEnv(name_, value);
}

ScopedEnv::~ScopedEnv() { SetEnv(name_, old_); }

// Paths are UTF-8 text on both systems; the standard library reads narrow
// paths in the system's code page unless told.
std::string ReadFile(const std::string& path) {
  std::ifstream in(fs::u8path(path), std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(fs::u8path(path), std::ios::binary | std::ios::trunc);
  out << bytes;
  if (!out) throw std::runtime_error("cannot write " + path);
}

bool PathExists(const std::string& path) {
  std::error_code ec;
  return fs::exists(fs::symlink_status(fs::u8path(path), ec));
}

std::string FileName(std::string name) {
  if (kOnWindows)
    name.erase(
        std::remove_if(name.begin(), name.end(), [](char c) { return c == '"' || c == '\\'; }),
        name.end());
  return name;
}

std::string WithoutRoot(const std::string& path) {
  return path.substr(path.size() > 2 && path[1] == ':' ? 3 : 1);
}

bool MakeDirectory(const std::string& path) {
  std::error_code error;
  return fs::create_directory(fs::u8path(path), error);
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  for (fs::directory_iterator it(fs::u8path(path)), end; it != end; ++it)
    names.push_back(it->path().filename().u8string());
  std::sort(names.begin(), names.end());
  return names;
}

std::string BinPath(const std::string& program) {
#ifdef _WIN32
  return std::string(VEL_BIN_DIR) + "/" + program + ".exe";
#else
  return std::string(VEL_BIN_DIR) + "/" + program;
#endif
}

#ifdef _WIN32

namespace {

std::wstring Wide(const std::string& text) { return fs::u8path(text).wstring(); }
std::string Narrow(const std::wstring& text) { return fs::path(text).u8string(); }

// One argument as the C runtime splits a command line again: in quotes, with
// the backslashes before a quote (or the closing one) doubled.
std::wstring Quoted(const std::wstring& arg) {
  std::wstring quoted = L"\"";
  std::size_t slashes = 0;
  for (const wchar_t c : arg) {
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

HANDLE OpenInheritable(const std::string& path, DWORD access, DWORD disposition) {
  SECURITY_ATTRIBUTES attributes = {sizeof attributes, nullptr, TRUE};
  const HANDLE file = CreateFileW(Wide(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  &attributes, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) throw std::runtime_error("cannot open " + path);
  return file;
}

std::string WithoutCarriageReturns(std::string text) {
  for (std::size_t at; (at = text.find("\r\n")) != std::string::npos;) text.erase(at, 1);
  return text;
}

}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::map<std::string, std::string> variables;
  if (wchar_t* block = GetEnvironmentStringsW()) {
    for (const wchar_t* entry = block; *entry; entry += wcslen(entry) + 1) {
      const std::string text = Narrow(entry);
      // Drive entries ("=C:=C:\...") start with "=".
      const std::size_t equals = std::min(text.find('=', 1), text.size());
      if (text.rfind("EXTRACTA_SIM_", 0) != 0) variables[text.substr(0, equals)] = text;
    }
    FreeEnvironmentStringsW(block);
  }
  for (const auto& [name, value] : options.env) {
    if (value)
      variables[name] = name + "=" + *value;
    else
      variables.erase(name);
  }
  std::wstring environment, command;
  for (const auto& [name, text] : variables) environment += Wide(text) + L'\0';
  environment += L'\0';
  for (const std::string& arg : argv) command += (command.empty() ? L"" : L" ") + Quoted(Wide(arg));
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
  Started started;
  started.pid = static_cast<int>(process.dwProcessId);
  started.process = process.hProcess;
  return started;
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const HANDLE process = started.process;
  if (WaitForSingleObject(process, static_cast<DWORD>(timeoutSeconds * 1000)) == WAIT_TIMEOUT) {
    result.timedOut = true;
    for (int pid : ProcessesInGroup(started.pid)) KillProcess(pid);
    WaitForSingleObject(process, INFINITE);
  }
  DWORD code = 0;
  GetExitCodeProcess(process, &code);
  result.exitCode = static_cast<int>(code);
  result.out = WithoutCarriageReturns(PathExists(outFile) ? ReadFile(outFile) : "");
  result.err = WithoutCarriageReturns(PathExists(errFile) ? ReadFile(errFile) : "");
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
  // The root's descendants are found after it has ended too.
  std::vector<DWORD> tree = {static_cast<DWORD>(root)};
  for (std::size_t i = 0; i < tree.size(); ++i)
    for (const auto& [pid, parent] : parents)
      if (parent == tree[i] && pid != tree[i]) tree.push_back(pid);
  for (DWORD pid : tree)
    if (names.count(pid)) found.emplace_back(static_cast<int>(pid), names[pid]);
  return found;
}

std::vector<int> ProcessesInGroup(int group, bool) {
  std::vector<int> members;
  for (const auto& [pid, name] : RunProcesses(group, "")) members.push_back(pid);
  return members;
}

bool ProcessExists(int pid) {
  const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
  if (!process) return false;
  const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  CloseHandle(process);
  return running;
}

bool SendSignal(int pid, int signal) {
  const HANDLE process =
      signal == SIGKILL ? OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid)) : nullptr;
  const bool sent = process && TerminateProcess(process, 128 + SIGKILL);
  if (process) CloseHandle(process);
  return sent;
}

#else

namespace {

// A file's bytes, or "" when it cannot be read (a process gone from /proc).
std::string ReadIfAny(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// What the terminal received since the last look (its master side does not block).
void ReadTerminal(int terminal, std::string& shown) {
  char buffer[4096];
  for (ssize_t got; (got = read(terminal, buffer, sizeof buffer)) > 0;)
    shown.append(buffer, static_cast<std::size_t>(got));
}

}  // namespace

Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile) {
  std::map<std::string, std::string> variables;
  for (char** entry = environ; *entry; ++entry) {
    const std::string text = *entry;
    const std::size_t equals = std::min(text.find('='), text.size());
    if (text.rfind("EXTRACTA_SIM_", 0) != 0) variables[text.substr(0, equals)] = text;
  }
  for (const auto& [name, value] : options.env) {
    if (value)
      variables[name] = name + "=" + *value;
    else
      variables.erase(name);
  }
  std::vector<char*> args, env;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  for (const auto& [name, text] : variables) env.push_back(const_cast<char*>(text.c_str()));
  args.push_back(nullptr);
  env.push_back(nullptr);
  const bool switchUser = options.unprivileged && geteuid() == 0;
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  Started started;
  int terminalSide = -1;
  if (options.terminalColumns > 0) {
    termios modes{};
    cfmakeraw(&modes);
    winsize size{};
    size.ws_row = 24;
    size.ws_col = static_cast<unsigned short>(options.terminalColumns);
    if (openpty(&started.terminal, &terminalSide, nullptr, &modes, &size) != 0)
      throw std::runtime_error("openpty failed");
    fcntl(started.terminal, F_SETFD, FD_CLOEXEC);
    fcntl(started.terminal, F_SETFL, O_NONBLOCK);
    fcntl(terminalSide, F_SETFD, FD_CLOEXEC);
  }
  started.pid = fork();
  if (started.pid < 0) throw std::runtime_error("fork failed");
  if (started.pid == 0) {
    // Only async-signal-safe calls from here on.
    setpgid(0, 0);
    if (dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0) != 0 ||
        dup2(options.outputOnTerminal ? terminalSide : open(outFile.c_str(), flags, 0600), 1) !=
            1 ||
        dup2(terminalSide >= 0 ? terminalSide : open(errFile.c_str(), flags, 0600), 2) != 2)
      _exit(126);
    if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
    if (options.fileSizeLimit > 0) {
      rlimit limit;
      getrlimit(RLIMIT_FSIZE, &limit);
      limit.rlim_cur = static_cast<rlim_t>(options.fileSizeLimit);
      if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(126);
    }
    // The user and group "nobody" on Debian.
    if (switchUser && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
      _exit(126);
    execve(args[0], args.data(), env.data());
    _exit(127);
  }
  setpgid(started.pid, started.pid);
  if (terminalSide >= 0) close(terminalSide);
  return started;
}

RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile) {
  RunResult result;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
  std::string shown;
  int status = 0;
  for (pid_t done;
       (done = waitpid(started.pid, &status, WNOHANG)) == 0 || (done < 0 && errno == EINTR);) {
    // Past the time-out the group is killed and the next round reaps it.
    if (std::chrono::steady_clock::now() >= deadline && !result.timedOut) {
      result.timedOut = true;
      kill(-started.pid, SIGKILL);
    }
    // A full terminal would hold the program up.
    if (started.terminal >= 0) ReadTerminal(started.terminal, shown);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = PathExists(outFile) ? ReadFile(outFile) : "";
  result.err = PathExists(errFile) ? ReadFile(errFile) : "";
  if (started.terminal >= 0) {
    ReadTerminal(started.terminal, shown);
    close(started.terminal);
    started.terminal = -1;
    result.err = shown;
  }
  return result;
}

std::vector<std::pair<int, std::string>> RunProcesses(int, const std::string& mark) {
  std::vector<std::pair<int, std::string>> found;
  DIR* proc = opendir("/proc");
  if (!proc) return found;
  while (const dirent* entry = readdir(proc)) {
    const std::string name = entry->d_name;
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string base = "/proc/" + name;
    // Every entry of /proc/<pid>/environ ends in a NUL byte; a zombie's
    // environment can no longer be read, so it is not found.
    const std::string environment = '\0' + ReadIfAny(base + "/environ");
    if (environment.find('\0' + mark + '\0') == std::string::npos) continue;
    const std::string stat = ReadIfAny(base + "/stat");  // "pid (comm) state ..."
    if (stat.compare(stat.rfind(')') + 1, 3, " Z ") == 0) continue;
    std::string command = ReadIfAny(base + "/cmdline");
    std::replace(command.begin(), command.end(), '\0', ' ');
    found.emplace_back(std::stoi(name), command);
  }
  closedir(proc);
  return found;
}

std::vector<int> ProcessesInGroup(int group, bool liveOnly) {
  std::vector<int> members;
  DIR* proc = opendir("/proc");
  while (dirent* entry = readdir(proc)) {
    // "pid (comm) state ppid pgrp ...": comm may hold blanks and parentheses.
    std::istringstream statFile(ReadIfAny("/proc/" + std::string(entry->d_name) + "/stat"));
    std::string stat;
    char state = 0;
    int parent = 0, pgrp = 0;
    if (std::getline(statFile, stat) &&
        std::istringstream(stat.substr(stat.rfind(')') + 1)) >> state >> parent >> pgrp &&
        pgrp == group && !(liveOnly && state == 'Z'))
      members.push_back(std::atoi(entry->d_name));
  }
  closedir(proc);
  return members;
}

bool ProcessExists(int pid) { return kill(pid, 0) == 0; }

void ReleaseProgram(Started&) {}

bool SendSignal(int pid, int signal) { return kill(pid, signal) == 0; }

#endif

RunResult RunProgram(const std::vector<std::string>& argv, const RunOptions& options) {
  const TempDir streams;
  Started started = StartProgram(argv, options, streams / "out", streams / "err");
  RunResult result = WaitProgram(started, options.timeoutSeconds, streams / "out", streams / "err");
  ReleaseProgram(started);
  return result;
}

bool PollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace veltest
