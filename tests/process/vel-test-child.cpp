// vel-test-child: a child process for the process tests, standing in for
// extracta. It ignores its arguments (it only records them) and does what the
// environment variable VEL_TEST_CHILD says, a ";"-separated list run in order:
//   record=FILE     append a start line to FILE now and an end line at its end
//   say=TEXT        print TEXT on standard output (no line end added)
//   warn=TEXT       print TEXT on standard error
//   print=N         print N bytes of numbered lines on standard output
//   sleep=MS        sleep MS milliseconds
//   grandchild=FILE start a grandchild that sleeps for ten minutes; its
//                   process id goes into FILE
//   exit=N          end with exit code N once the list is done (default 0)
// Record lines are fields each ended by a tab, written with one append each
// so that children sharing a file do not mix them:
//   start  pid  time  cwd  stdin-target  open-fds  argv[0]  argv[1] ...
//   end    pid  time
// (times in CLOCK_MONOTONIC nanoseconds, open-fds as "0,1,2").

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>

namespace {

std::string Now() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::to_string(now.tv_sec * 1000000000LL + now.tv_nsec);
}

void WriteAll(int fd, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
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

std::string OpenDescriptors() {
  std::string text;
  DIR* dir = opendir("/proc/self/fd");
  while (dirent* entry = dir ? readdir(dir) : nullptr)
    if (entry->d_name[0] != '.' && std::atoi(entry->d_name) != dirfd(dir))
      text += (text.empty() ? "" : ",") + std::string(entry->d_name);
  if (dir) closedir(dir);
  return text;
}

std::string StartRecord(int argc, char** argv) {
  char cwd[4096], input[4096];
  const ssize_t n = readlink("/proc/self/fd/0", input, sizeof input);
  std::string text = "start\t" + std::to_string(getpid()) + "\t" + Now() + "\t" +
                     (getcwd(cwd, sizeof cwd) ? cwd : "") + "\t" +
                     std::string(input, n > 0 ? static_cast<std::size_t>(n) : 0) + "\t" +
                     OpenDescriptors() + "\t";
  for (int i = 0; i < argc; ++i) text += std::string(argv[i]) + "\t";
  return text + "\n";
}

void StartGrandchild(const std::string& pidFile) {
  if (fork() != 0) return;
  const std::string temporary = pidFile + ".tmp";
  Append(temporary, std::to_string(getpid()));
  rename(temporary.c_str(), pidFile.c_str());
  sleep(600);
  _exit(0);
}

std::string Numbered(std::size_t bytes) {
  std::string text;
  for (long long line = 0; text.size() < bytes; ++line)
    text += "line " + std::to_string(line) + " of the child's output\n";
  text.resize(bytes);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  const char* actions = std::getenv("VEL_TEST_CHILD");
  const std::string list = actions ? actions : "";
  std::string recordFile;
  int exitCode = 0;
  for (std::size_t start = 0; start <= list.size();) {
    const std::size_t end = std::min(list.find(';', start), list.size());
    const std::string action = list.substr(start, end - start);
    start = end + 1;
    const std::size_t equals = action.find('=');
    const std::string key = action.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : action.substr(equals + 1);
    if (key == "record") {
      recordFile = value;
      Append(recordFile, StartRecord(argc, argv));
    } else if (key == "say" || key == "warn") {
      WriteAll(key == "say" ? 1 : 2, value);
    } else if (key == "print") {
      WriteAll(1, Numbered(std::strtoull(value.c_str(), nullptr, 10)));
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
    Append(recordFile, "end\t" + std::to_string(getpid()) + "\t" + Now() + "\t\n");
  return exitCode;
}
