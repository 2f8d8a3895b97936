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
#include <filesystem>
#include <string>
#include <vector>

#include "core/Process.h"
#include "core/posix/ChildGroups.h"

namespace {

// One message per event: a kind, an end signal and a number (a process
// group, or the length of the path that follows), sent in one piece.
constexpr std::size_t kMessageSize = 8;
constexpr char kGroupStarted = 'g';
constexpr char kGroupGone = 'r';
constexpr char kGoodbye = 'q';
constexpr char kRemoveWhenKilled = 'p';
constexpr char kForgetRemoval = 'f';
constexpr int kReadEveryMilliseconds = 100;

// The program's end of the channel; -1 without a watchdog.
std::atomic<int> channel{-1};
pid_t watchdog = 0;

void SendBytes(const char* bytes, std::size_t size) {
  const int end = channel.load();
  if (end < 0) return;
  // A watchdog that is gone must not take the program with it (no SIGPIPE).
  while (size > 0) {
    const ssize_t sent = send(end, bytes, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return;
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
}

// Async-signal-safe: a child tells of its group between vfork and exec.
void Send(char kind, pid_t group, int endSignal = 0) {
  char message[kMessageSize] = {kind, static_cast<char>(endSignal)};
  const int32_t value = group;
  std::memcpy(message + 4, &value, sizeof value);
  SendBytes(message, sizeof message);
}

void SendPath(char kind, const std::string& path) {
  std::string message(kMessageSize, '\0');
  message[0] = kind;
  const int32_t length = static_cast<int32_t>(path.size());
  std::memcpy(&message[4], &length, sizeof length);
  SendBytes((message + path).data(), kMessageSize + path.size());
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
// the last command ends what the engine still holds, and once the children
// are gone what the program left is removed.
[[noreturn]] void EndGroups(const std::vector<KnownGroup>& groups,
                            const std::vector<std::string>& paths) {
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
  // A killed child may still be writing into the working directory for a
  // moment; its end is waited for (within a bound) before it is removed.
  for (int waited = 0; waited < 1000; waited += 10) {
    if (std::none_of(groups.begin(), groups.end(),
                     [](const KnownGroup& known) { return GroupAlive(known.group); }))
      break;
    poll(nullptr, 0, 10);
  }
  for (const std::string& path : paths) {
    std::error_code ignored;  // nobody is left to tell
    std::filesystem::remove_all(path, ignored);
  }
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
  std::vector<std::string> paths;
  std::string pending;
  char block[4096];
  for (;;) {
    pollfd hangUp = {end, 0, 0};
    poll(&hangUp, 1, kReadEveryMilliseconds);
    ssize_t got;
    while ((got = read(end, block, sizeof block)) > 0 || (got < 0 && errno == EINTR)) {
      if (got > 0) pending.append(block, static_cast<std::size_t>(got));
    }
    const bool gone = got == 0 || errno != EAGAIN;  // the program is gone
    for (;;) {
      if (pending.size() < kMessageSize) break;
      int32_t value = 0;
      std::memcpy(&value, &pending[4], sizeof value);
      const char kind = pending[0];
      const bool withPath = kind == kRemoveWhenKilled || kind == kForgetRemoval;
      const std::size_t size = kMessageSize + (withPath && value > 0 ? value : 0);
      if (pending.size() < size) break;
      const std::string path = pending.substr(kMessageSize, size - kMessageSize);
      const int endSignal = pending[1];
      pending.erase(0, size);
      if (kind == kGoodbye) _exit(0);
      if (kind == kGroupStarted && value > 0) groups.push_back({value, endSignal});
      const auto known = std::find_if(groups.begin(), groups.end(),
                                      [value](const KnownGroup& k) { return k.group == value; });
      if (kind == kGroupGone && known != groups.end()) groups.erase(known);
      if (kind == kRemoveWhenKilled) paths.push_back(path);
      const auto held = std::find(paths.begin(), paths.end(), path);
      if (kind == kForgetRemoval && held != paths.end()) paths.erase(held);
    }
    if (gone) break;
  }
  EndGroups(groups, paths);
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

void VeltRemoveWhenKilled(const std::string& path) { SendPath(kRemoveWhenKilled, path); }

void VeltForgetRemoval(const std::string& path) { SendPath(kForgetRemoval, path); }

void velt_posix::TellWatchdogGroupStarted(pid_t group, int endSignal) {
  Send(kGroupStarted, group, endSignal);
}

void velt_posix::TellWatchdogGroupGone(pid_t group) { Send(kGroupGone, group); }
