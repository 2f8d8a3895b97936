#include "core/ProcessStamp.h"

#include <signal.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

namespace {

std::string FirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// The boot and the clock tick the process started at ("" where /proc does
// not tell), and whether it has ended unreaped.
std::string StartOf(long long pid, bool& zombie) {
  zombie = false;
  const std::string stat = FirstLine("/proc/" + std::to_string(pid) + "/stat");
  // "pid (command) state ppid ...": the command may hold anything, even ")".
  const std::size_t close = stat.rfind(')');
  if (close == std::string::npos) return std::string();
  std::istringstream fields(stat.substr(close + 1));
  std::string field;
  // The state is the third field, the start time the twenty-second.
  for (int number = 3; number <= 22 && fields >> field; ++number) {
    if (number == 3) zombie = field == "Z" || field == "X";
    if (number == 22) return FirstLine("/proc/sys/kernel/random/boot_id") + ":" + field;
  }
  return std::string();
}

}  // namespace

VeltProcessStamp VeltThisProcess() {
  VeltProcessStamp stamp;
  utsname names;
  if (uname(&names) == 0) stamp.host = names.nodename;
  stamp.pid = getpid();
  bool zombie = false;
  stamp.started = StartOf(stamp.pid, zombie);
  return stamp;
}

bool VeltProcessRuns(long long pid, const std::string& started) {
  if (pid <= 0) return false;
  bool zombie = false;
  const std::string now = StartOf(pid, zombie);
  if (!started.empty()) return now == started && !zombie;
  // Without /proc: the id alone.
  return !zombie && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}
