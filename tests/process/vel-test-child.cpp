// vel-test-child: a child process for the process tests, standing in for
// extracta. It ignores its arguments (it only records them) and does what the
// environment variable VEL_TEST_CHILD says, a ";"-separated list run in order:
//   record=FILE     append what it was started with to FILE (see below), and
//                   its end time when it ends
//   say=TEXT        print TEXT on standard output (no line end added)
//   warn=TEXT       print TEXT on standard error
//   print=N         print N bytes of numbered lines on standard output
//   sleep=MS        sleep MS milliseconds
//   grandchild=FILE start a grandchild that sleeps for ten minutes; its
//                   process id goes into FILE
//   exit=N          end with exit code N once the list is done (default 0)
// A record is lines "<pid>\t<key>\t<value>", written with one append each
// time so that children sharing a file do not mix their lines. Keys: start
// and end (CLOCK_MONOTONIC nanoseconds), pgid, cwd, stdin (what descriptor 0
// is), fds (the open descriptors), arg (one per argv element, in order).

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

long long Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

void WriteAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

void Append(const std::string& file, const std::string& text) {
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  WriteAll(fd, text);
  close(fd);
}

std::string LinkTarget(const std::string& link) {
  char buffer[4096];
  const ssize_t n = readlink(link.c_str(), buffer, sizeof buffer);
  return n > 0 ? std::string(buffer, static_cast<std::size_t>(n)) : std::string();
}

std::string OpenDescriptors() {
  std::vector<int> fds;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return "";
  const int own = dirfd(dir);
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = std::atoi(entry->d_name);
    if (fd != own) fds.push_back(fd);
  }
  closedir(dir);
  std::string text;
  for (int fd : fds) text += (text.empty() ? "" : ",") + std::to_string(fd);
  return text;
}

std::string StartRecord(int argc, char** argv) {
  const std::string pid = std::to_string(getpid()) + "\t";
  char cwd[4096];
  std::string text = pid + "start\t" + std::to_string(Now()) + "\n";
  text += pid + "pgid\t" + std::to_string(getpgrp()) + "\n";
  text += pid + "cwd\t" + (getcwd(cwd, sizeof cwd) ? cwd : "") + "\n";
  text += pid + "stdin\t" + LinkTarget("/proc/self/fd/0") + "\n";
  text += pid + "fds\t" + OpenDescriptors() + "\n";
  for (int i = 0; i < argc; ++i) text += pid + "arg\t" + argv[i] + "\n";
  return text;
}

void StartGrandchild(const std::string& pidFile) {
  const pid_t pid = fork();
  if (pid == 0) {
    const std::string temporary = pidFile + ".tmp";
    Append(temporary, std::to_string(getpid()));
    rename(temporary.c_str(), pidFile.c_str());
    sleep(600);
    _exit(0);
  }
}

std::string Numbered(long long bytes) {
  std::string text;
  text.reserve(static_cast<std::size_t>(bytes) + 32);
  for (long long line = 0; static_cast<long long>(text.size()) < bytes; ++line)
    text += "line " + std::to_string(line) + " of the child's output\n";
  text.resize(static_cast<std::size_t>(bytes));
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  const char* actions = std::getenv("VEL_TEST_CHILD");
  std::string list = actions ? actions : "";
  std::string recordFile;
  int exitCode = 0;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(';', start);
    if (end == std::string::npos) end = list.size();
    const std::string action = list.substr(start, end - start);
    start = end + 1;
    const std::size_t equals = action.find('=');
    const std::string key = action.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : action.substr(equals + 1);
    if (key == "record") {
      recordFile = value;
      Append(recordFile, StartRecord(argc, argv));
    } else if (key == "say") {
      WriteAll(1, value);
    } else if (key == "warn") {
      WriteAll(2, value);
    } else if (key == "print") {
      WriteAll(1, Numbered(std::atoll(value.c_str())));
    } else if (key == "sleep") {
      const long long ms = std::atoll(value.c_str());
      timespec pause = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
      while (nanosleep(&pause, &pause) != 0) {
      }
    } else if (key == "grandchild") {
      StartGrandchild(value);
    } else if (key == "exit") {
      exitCode = std::atoi(value.c_str());
    }
  }
  if (!recordFile.empty())
    Append(recordFile, std::to_string(getpid()) + "\tend\t" + std::to_string(Now()) + "\n");
  return exitCode;
}
