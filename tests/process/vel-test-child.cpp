// vel-test-child: a child process for the process tests, standing in for
// extracta. It only records its arguments and does what VEL_TEST_CHILD says, a
// ";"-separated list run in order:
//   record=FILE  append a start line to FILE now and an end line at its end
//   say=TEXT     print TEXT (no line end added) on standard output
//   sleep=MS     sleep MS milliseconds
//   grandchild=FILE  leave a grandchild sleeping ten minutes, its pid in FILE
//   pidfile=FILE write this process's pid into FILE
//   exit=N       end with exit code N once the list is done (default 0)
// Record lines, one append each so that children sharing a file do not mix
// them, are fields each ended by a tab (times CLOCK_MONOTONIC nanoseconds):
//   start  pid  time  cwd  stdin-target  open-fds ("0,1,2")  argv[0]  argv[1] ...
//   end    pid  time
// On Windows the times are the steady clock's, the stdin target is "NUL" for
// the null device, and the open descriptors are not known ("-").

#ifdef _WIN32
#include <direct.h>
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>
#include <thread>

namespace {

#ifdef _WIN32
int GetPid() { return _getpid(); }

std::string Now() {
  return std::to_string(std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::steady_clock::now().time_since_epoch())
                            .count()) +
         "\t";
}

void WriteAll(int fd, const std::string& text) {
  for (int done = 0, n; done < static_cast<int>(text.size()); done += n)
    if ((n = _write(fd, text.data() + done, static_cast<unsigned>(text.size() - done))) <= 0)
      return;
}

void Append(const std::string& file, const std::string& text) {
  const int fd = _open(file.c_str(), _O_WRONLY | _O_APPEND | _O_CREAT | _O_BINARY, 0644);
  WriteAll(fd, text);
  _close(fd);
}

std::string StartRecord(int argc, char** argv) {
  char cwd[4096];
  const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
  std::string text = "start\t" + std::to_string(_getpid()) + "\t" + Now() +
                     (_getcwd(cwd, sizeof cwd) ? cwd : "") + "\t" +
                     (GetFileType(input) == FILE_TYPE_CHAR ? "NUL" : "file") + "\t-\t";
  for (int i = 0; i < argc; ++i) text += std::string(argv[i]) + "\t";
  return text + "\n";
}

// Starts this program again with the one action "pidfile=FILE;sleep=600000",
// in this child's job, as a grandchild.
void LeaveGrandchild(const std::string& file) {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  const std::string actions = "pidfile=" + file + ";sleep=600000";
  SetEnvironmentVariableA("VEL_TEST_CHILD", actions.c_str());
  std::wstring commandLine = L"\"" + std::wstring(self) + L"\"";
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION started = {};
  if (CreateProcessW(self, &commandLine[0], nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                     &started)) {
    CloseHandle(started.hThread);
    CloseHandle(started.hProcess);
  }
}
#else
int GetPid() { return getpid(); }

std::string Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(now.tv_sec * 1000000000LL + now.tv_nsec) + "\t";
}

void WriteAll(int fd, const std::string& text) {
  for (ssize_t done = 0, n; done < static_cast<ssize_t>(text.size()); done += n)
    if ((n = write(fd, text.data() + done, text.size() - done)) <= 0) return;
}

void Append(const std::string& file, const std::string& text) {
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  WriteAll(fd, text);
  close(fd);
}

std::string StartRecord(int argc, char** argv) {
  char cwd[4096], input[4096];
  const ssize_t n = readlink("/proc/self/fd/0", input, sizeof input);
  std::string text = "start\t" + std::to_string(getpid()) + "\t" + Now() +
                     (getcwd(cwd, sizeof cwd) ? cwd : "") + "\t" +
                     std::string(input, n > 0 ? static_cast<std::size_t>(n) : 0) + "\t";
  DIR* fds = opendir("/proc/self/fd");
  std::string open;
  while (dirent* entry = readdir(fds))
    if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(fds))
      open += (open.empty() ? "" : ",") + std::string(entry->d_name);
  closedir(fds);
  text += open + "\t";
  for (int i = 0; i < argc; ++i) text += std::string(argv[i]) + "\t";
  return text + "\n";
}

void LeaveGrandchild(const std::string& file) {
  if (fork() != 0) return;
  // The pid appears at once, whole: written aside, then renamed.
  Append(file + ".tmp", std::to_string(getpid()));
  rename((file + ".tmp").c_str(), file.c_str());
  sleep(600);
  _exit(0);
}
#endif

}  // namespace

int main(int argc, char** argv) {
#ifdef _WIN32
  // What it is told to print arrives byte for byte, as on POSIX.
  _setmode(1, _O_BINARY);
  _setmode(2, _O_BINARY);
#endif
  const char* actions = std::getenv("VEL_TEST_CHILD");
  std::istringstream list(actions ? actions : "");
  std::string recordFile;
  int exitCode = 0;
  for (std::string action; std::getline(list, action, ';');) {
    const std::size_t equals = std::min(action.find('='), action.size());
    const std::string key = action.substr(0, equals);
    const std::string value = equals < action.size() ? action.substr(equals + 1) : "";
    if (key == "record") {
      recordFile = value;
      Append(recordFile, StartRecord(argc, argv));
    } else if (key == "say") {
      WriteAll(1, value);
    } else if (key == "sleep") {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::atoll(value.c_str())));
    } else if (key == "grandchild") {
      LeaveGrandchild(value);
    } else if (key == "pidfile") {
      // The pid appears at once, whole: written aside, then renamed.
      Append(value + ".tmp", std::to_string(GetPid()));
      std::remove(value.c_str());
      std::rename((value + ".tmp").c_str(), value.c_str());
    } else if (key == "exit") {
      exitCode = std::atoi(value.c_str());
    }
  }
  if (!recordFile.empty())
    Append(recordFile, "end\t" + std::to_string(GetPid()) + "\t" + Now() + "\n");
  return exitCode;
}
