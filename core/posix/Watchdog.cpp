#include "core/Watchdog.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/Process.h"
#include "core/posix/ChildGroups.h"

namespace {

// One message per event, a kind, an end signal and a process group, small
// enough that a send never splits it.
constexpr std::size_t kMessageSize = 8;
constexpr char kGroupStarted = 'g';
constexpr char kGroupGone = 'r';
constexpr char kGoodbye = 'q';
constexpr int kReadEveryMilliseconds = 100;

// The program's end of the channel; -1 without a watchdog.
std::atomic<int> channel{-1};
pid_t watchdog = 0;

void Send(char kind, pid_t group, int endSignal = 0) {
  const int end = channel.load();
  if (end < 0) return;
  char message[kMessageSize] = {kind, static_cast<char>(endSignal)};
  const int32_t value = group;
  std::memcpy(message + 4, &value, sizeof value);
  // A watchdog that is gone must not take the program with it (no SIGPIPE).
  ssize_t sent;
  do {
    sent = send(end, message, sizeof message, MSG_NOSIGNAL);
  } while (sent < 0 && errno == EINTR);
}

struct KnownGroup {
  pid_t group;
  int endSignal;  // 0: killed at once
};

bool GroupAlive(pid_t group) { return kill(-group, 0) == 0 || errno != ESRCH; }

// The command run last, prepared before the fork: argv for execv.
std::vector<std::string> lastWords;

// Runs the last command with the watchdog's null streams and waits for it.
void RunLastCommand() {
  if (lastWords.empty()) return;
  std::vector<char*> argv;
  for (std::string& word : lastWords) argv.push_back(&word[0]);
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) ::signal(signal, SIG_DFL);
    execv(argv[0], argv.data());
    _exit(127);
  }
  if (pid > 0)
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

// A farm's launcher is asked to end first, so that it cancels its task
// through the engine; it had the same signal when the program died. Every
// group is killed once those asked have ended, or after a bounded time; then
// the last command ends what the engine still holds.
[[noreturn]] void EndGroups(const std::vector<KnownGroup>& groups) {
  bool asked = false;
  for (const KnownGroup& known : groups) {
    if (known.endSignal <= 0) continue;
    kill(-known.group, known.endSignal);
    asked = true;
  }
  for (int waited = 0; asked && waited < kVeltEndRequestMilliseconds; waited += 10) {
    asked = false;
    for (const KnownGroup& known : groups)
      if (known.endSignal > 0 && GroupAlive(known.group)) asked = true;
    if (asked) poll(nullptr, 0, 10);
  }
  for (const KnownGroup& known : groups) kill(-known.group, SIGKILL);
  RunLastCommand();
  _exit(0);
}

// The watchdog's life: note the groups as they come and go, and when the
// program is gone without a goodbye, end those still known. Only groups
// told and not yet released are ended: a group's number may be reused once
// the group is gone. The watchdog sleeps until the program's end hangs up,
// not until each message (a wake-up per message would slow every child's
// start), and reads what came meanwhile every so often, so that the
// program's writes never wait for room.
[[noreturn]] void Watch(int end) {
  fcntl(end, F_SETFL, O_NONBLOCK);
  std::vector<KnownGroup> groups;
  char message[kMessageSize];
  std::size_t have = 0;
  for (;;) {
    pollfd hangUp = {end, 0, 0};
    poll(&hangUp, 1, kReadEveryMilliseconds);
    ssize_t got;
    while ((got = read(end, message + have, sizeof message - have)) > 0 ||
           (got < 0 && errno == EINTR)) {
      if (got < 0) continue;
      have += static_cast<std::size_t>(got);
      if (have < sizeof message) continue;
      have = 0;
      int32_t group = 0;
      std::memcpy(&group, message + 4, sizeof group);
      if (message[0] == kGoodbye) _exit(0);
      if (message[0] == kGroupStarted && group > 0) groups.push_back({group, message[1]});
      const auto known = std::find_if(groups.begin(), groups.end(),
                                      [group](const KnownGroup& k) { return k.group == group; });
      if (message[0] == kGroupGone && known != groups.end()) groups.erase(known);
    }
    if (got == 0 || errno != EAGAIN) break;  // the program is gone
  }
  EndGroups(groups);
}

// In the forked watchdog: nothing of the program may stay open in it (a
// child's output pipe would never see its end, a calling tool would wait on
// the program's standard streams), and the terminal's interrupts are the
// program's to handle.
[[noreturn]] void BecomeWatchdog(int end) {
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE}) ::signal(signal, SIG_IGN);
  const int kept = fcntl(end, F_DUPFD, 3);
  const int null = open("/dev/null", O_RDWR);
  if (kept < 0 || null < 0) _exit(0);
  for (int standard = 0; standard < 3; ++standard) dup2(null, standard);
  if (dup2(kept, 3) < 0) _exit(0);
  closefrom(4);
  Watch(3);
}

// At a normal exit: the watchdog leaves the children alone and is reaped,
// so that no zombie of it outlives the program.
void SayGoodbye() {
  Send(kGoodbye, 0);
  const int end = channel.exchange(-1);
  if (end >= 0) close(end);
  while (waitpid(watchdog, nullptr, 0) < 0 && errno == EINTR) {
  }
}

}  // namespace

void StartChildWatchdog(const std::vector<std::string>& lastCommand) {
  if (watchdog > 0) return;
  lastWords = lastCommand;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return;
  const pid_t pid = fork();
  if (pid == 0) {
    close(ends[0]);
    BecomeWatchdog(ends[1]);
  }
  close(ends[1]);
  // Kept clear of the standard descriptors, which a child's set-up replaces.
  const int end = pid > 0 ? fcntl(ends[0], F_DUPFD_CLOEXEC, 3) : -1;
  close(ends[0]);
  if (pid < 0) return;
  watchdog = pid;
  if (end < 0) {
    SayGoodbye();  // a closed channel without a goodbye: the watchdog just exits
    return;
  }
  channel.store(end);
  std::atexit(SayGoodbye);
}

void velt_posix::TellWatchdogGroupStarted(pid_t group, int endSignal) {
  Send(kGroupStarted, group, endSignal);
}

void velt_posix::TellWatchdogGroupGone(pid_t group) { Send(kGroupGone, group); }
