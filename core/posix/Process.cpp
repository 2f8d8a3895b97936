#include "core/Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/prctl.h>
#include <sys/syscall.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "core/File.h"
#include "core/SystemCalls.h"
#include "core/posix/ChildGroups.h"
#include "core/posix/ProgramLookup.h"

extern char** environ;

const int kVeltErrorNotFound = ENOENT;
const int kVeltErrorBadDirectory = ENOTDIR;
const int kVeltErrorInvalidArgument = EINVAL;
const bool kVeltChildrenAskedToEnd = true;

namespace {

struct ChildProcess {
  pid_t pid = 0;
  pid_t group = 0;     // 0: the child stayed in the caller's group
  int groupSlot = -1;  // its entry in the interrupt table; -1: none
  bool groupMayLive = false;
  int endSignal = 0;  // asks the child to end before its group is killed; 0: none
  int endWatch = -1;  // readable once the child has ended; -1: none
  bool ended = false;
  int exitCode = kVeltStillActive;

  ~ChildProcess() { CloseEndWatch(); }
  void CloseEndWatch() {
    if (endWatch >= 0) close(endWatch);
    endWatch = -1;
  }
};

ChildProcess* Child(VeltProcessHandle handle) { return static_cast<ChildProcess*>(handle); }

int ExitCodeOf(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return status;
}

bool GroupGone(pid_t group) { return kill(-group, 0) != 0 && errno == ESRCH; }

void ForgetGroup(ChildProcess& child) {
  velt_posix::ReleaseChildGroup(child.groupSlot, child.group);
  velt_posix::TellWatchdogGroupGone(child.group);
  child.groupSlot = -1;
  child.groupMayLive = false;
}

// Records the end of the group leader. Whatever else of its group has ended
// already is reaped too (orphans are ours, see BecomeOrphanReaper); a group
// that is not empty yet stays registered, so an interrupt still ends it.
void RecordEnd(ChildProcess& child, int status) {
  child.ended = true;
  child.CloseEndWatch();
  child.exitCode = ExitCodeOf(status);
  if (!child.groupMayLive) return;
  while (waitpid(-child.group, nullptr, WNOHANG) > 0) {
  }
  if (GroupGone(child.group)) ForgetGroup(child);
}

// Orphans of a child tree are handed to this process instead of the system's
// init, so that ending a tree can reap all of it: an init that does not reap
// (as in many containers) would otherwise keep them as zombies.
void BecomeOrphanReaper() {
#ifdef __linux__
  static const bool done = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  (void)done;
#endif
}

// A descriptor that becomes readable when the child ends; -1 where the
// system offers none.
int WatchEnd(pid_t pid) {
#ifdef __linux__
  // Through syscall(): this glibc's pidfd_open declaration lacks C linkage.
  // The descriptor is close-on-exec by nature.
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// Signals a caller may ignore, which a child must not inherit ignored.
bool DefaultedInChild(int signal) {
  for (int defaulted : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGCHLD, SIGALRM, SIGUSR1,
                        SIGUSR2, SIGTSTP, SIGTTIN, SIGTTOU, SIGXFSZ})
    if (signal == defaulted) return true;
  return false;
}

// What the child does between vfork and exec, all prepared by the parent so
// that the child only makes system calls (nothing that allocates, locks or
// writes to memory it shares with the parent).
struct ChildSetup {
  const char* executable;
  char* const* argv;
  char* const* environment;
  int directory;  // -1: stay in the caller's directory
  const char* inputPath;
  int outputHandle;
  bool errorToOutput;
  bool inheritHandles;
  bool newProcessGroup;
  int endSignal;
  pid_t parent;
  int errorReport;  // write end of the close-on-exec pipe that carries a failure's errno
};

[[noreturn]] void FailInChild(int errorReport) {
  const int error = errno;
  ssize_t ignored = write(errorReport, &error, sizeof error);
  (void)ignored;
  _exit(127);
}

[[noreturn]] void RunChild(const ChildSetup& setup) {
  // Handlers of the caller would run in the child until exec replaces them:
  // every signal is blocked now; reset them first, unblock at exec.
  struct sigaction action;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (signal == SIGKILL || signal == SIGSTOP || sigaction(signal, nullptr, &action) != 0)
      continue;
    if (action.sa_handler == SIG_IGN && !DefaultedInChild(signal)) continue;
    if (action.sa_handler == SIG_DFL) continue;
    action.sa_handler = SIG_DFL;
    action.sa_flags = 0;
    sigaction(signal, &action, nullptr);
  }
#ifdef __linux__
  // A VelExtracta that is killed outright leaves no extractor behind: the
  // child ends with the thread that created it (a farm's launcher is asked
  // to, so that it cancels its task through the engine at once; the watchdog
  // kills it after). If that thread is gone already, the signal was never
  // armed, so the child ends by itself.
  if (prctl(PR_SET_PDEATHSIG, setup.endSignal > 0 ? setup.endSignal : SIGKILL) != 0)
    FailInChild(setup.errorReport);
  if (getppid() != setup.parent) _exit(127);
#endif
  if (setup.newProcessGroup) {
    if (setpgid(0, 0) != 0) FailInChild(setup.errorReport);
    // Told before the program runs, so that nothing it starts in its group
    // can outlive a VelExtracta killed the moment after.
    velt_posix::TellWatchdogGroupStarted(getpid(), setup.endSignal);
  }
  if (setup.directory >= 0 && fchdir(setup.directory) != 0) FailInChild(setup.errorReport);

  const int input = open(setup.inputPath, O_RDONLY);
  if (input < 0) FailInChild(setup.errorReport);
  if (input != 0) {
    if (dup2(input, 0) < 0) FailInChild(setup.errorReport);
    close(input);
  }
  if (setup.outputHandle != kVeltNullPipeHandle) {
    if (dup2(setup.outputHandle, 1) < 0) FailInChild(setup.errorReport);
    if (setup.errorToOutput && dup2(setup.outputHandle, 2) < 0) FailInChild(setup.errorReport);
  } else if (setup.errorToOutput && dup2(1, 2) < 0) {
    FailInChild(setup.errorReport);
  }
  // Descriptors of other libraries may lack close-on-exec; none may reach the
  // child, or a pipe's end would stay open in a process that never uses it.
  // The failure report moves to 3, the one descriptor kept until exec.
  int errorReport = setup.errorReport;
  if (!setup.inheritHandles) {
    if (errorReport != 3) {
      if (dup3(errorReport, 3, O_CLOEXEC) < 0) FailInChild(errorReport);
      errorReport = 3;
    }
    closefrom(4);
  }

  sigset_t noSignals;
  sigemptyset(&noSignals);
  sigprocmask(SIG_SETMASK, &noSignals, nullptr);
  execve(setup.executable, setup.argv, setup.environment);
  FailInChild(errorReport);
}

// Starts the child and waits until it has called exec; 0 and its pid, or the
// errno of the step that failed (the failed child is reaped).
int StartChild(const ChildSetup& prepared, pid_t& pid) {
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) return errno;
  // Kept clear of the standard descriptors the child is about to replace.
  if (report[1] < 3) {
    const int moved = fcntl(report[1], F_DUPFD_CLOEXEC, 3);
    const int error = errno;
    close(report[1]);
    if (moved < 0) {
      close(report[0]);
      return error;
    }
    report[1] = moved;
  }
  ChildSetup setup = prepared;
  setup.errorReport = report[1];

  // vfork: a copy of this process's memory would cost time in proportion to
  // its size (the connectivity survey may hold hundreds of MiB while the
  // split runs start). The child borrows the memory until exec, changes
  // nothing in it but its own stack, and the caller waits meanwhile.
  pid = vfork();
  if (pid == 0) RunChild(setup);
  const int forkError = errno;
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    return forkError;
  }
  int childError = 0;
  ssize_t got;
  do {
    got = read(report[0], &childError, sizeof childError);
  } while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == 0) return 0;  // closed by the exec
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  return got == sizeof childError && childError != 0 ? childError : ECHILD;
}

// A launcher asked to end cancels its task through its engine and exits; it
// is given a bounded time for that, then killed like any other child.
void AskToEnd(ChildProcess& child) {
  kill(-child.group, child.endSignal);
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kVeltEndRequestMilliseconds);
  for (;;) {
    int status = 0;
    const pid_t reaped = waitpid(child.pid, &status, WNOHANG);
    if (reaped == child.pid) {
      RecordEnd(child, status);
      return;
    }
    if (reaped < 0 && errno != EINTR) return;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) return;
    // Woken by the child's end where it can be watched, else looked at again.
    pollfd end = {child.endWatch, POLLIN, 0};
    if (child.endWatch >= 0)
      poll(&end, 1, static_cast<int>(left));
    else
      poll(nullptr, 0, static_cast<int>(std::min<long long>(left, 10)));
  }
}

}  // namespace

int velt_system::StartProcess(const AString& applicationName, const AString* argv, int argc,
                              VeltProcessHandle& processHandle, const AString& workingDirectory,
                              const char* const* environment, const char* inputPath,
                              VeltPipeHandle outputHandle, bool inheritHandles, bool errorToOutput,
                              bool newProcessGroup, int endSignal, int* processId) {
  std::string executable;
  const int lookup = velt_posix::FindProgram(
      VEL_ANSI(applicationName.empty() ? argv[0] : applicationName), executable);
  if (lookup != 0) return lookup;

  std::vector<std::string> arguments{VEL_ANSI(argv[0])};
  std::string commandLine;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) commandLine += ' ';
    commandLine += VEL_ANSI(argv[i]);
  }
  for (std::string& argument : VeltSplitCommandLine(commandLine))
    arguments.push_back(std::move(argument));
  std::vector<char*> argumentPointers;
  for (std::string& argument : arguments) argumentPointers.push_back(&argument[0]);
  argumentPointers.push_back(nullptr);

  // Opened here, so that a bad working directory is not mistaken for a
  // missing program (both would be "not found" in the child).
  int directory = -1;
  if (!workingDirectory.empty()) {
    directory = open(VEL_ANSI(workingDirectory).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) return errno == ENOENT ? ENOTDIR : errno;
  }
  if (newProcessGroup) BecomeOrphanReaper();

  ChildSetup setup{};
  setup.executable = executable.c_str();
  setup.argv = argumentPointers.data();
  setup.environment =
      environment ? const_cast<char* const*>(environment) : static_cast<char* const*>(environ);
  setup.directory = directory;
  setup.inputPath = inputPath ? inputPath : "/dev/null";
  setup.outputHandle = static_cast<int>(outputHandle);
  setup.errorToOutput = errorToOutput;
  setup.inheritHandles = inheritHandles;
  setup.newProcessGroup = newProcessGroup;
  setup.endSignal = endSignal;
  setup.parent = getpid();

  // Every signal waits while the child is set up (its handlers must not run
  // in the child) and until its group is registered (an interrupt must not
  // miss a child that has already started).
  sigset_t everything, previous;
  sigfillset(&everything);
  pthread_sigmask(SIG_SETMASK, &everything, &previous);
  pid_t pid = 0;
  const int error = StartChild(setup, pid);
  ChildProcess* child = nullptr;
  if (error == 0) {
    child = new ChildProcess;
    child->pid = pid;
    child->endWatch = WatchEnd(pid);
    child->endSignal = endSignal;
    if (newProcessGroup) {
      child->group = pid;
      child->groupMayLive = true;
      child->groupSlot = velt_posix::RegisterChildGroup(pid, endSignal);
    }
  }
  // A child that failed before its exec was reaped: its group is gone.
  if (error != 0 && newProcessGroup && pid > 0) velt_posix::TellWatchdogGroupGone(pid);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (directory >= 0) close(directory);
  if (error != 0) return error;

  processHandle = child;
  if (processId) *processId = pid;
  return 0;
}

int VeltGetProcessExitCode(VeltProcessHandle handle, int& exitCode) {
  ChildProcess* child = Child(handle);
  if (!child) return 0;
  if (!child->ended) {
    int status = 0;
    pid_t reaped;
    do {
      reaped = waitpid(child->pid, &status, WNOHANG);
    } while (reaped < 0 && errno == EINTR);
    if (reaped < 0) return 0;
    if (reaped == 0) {
      exitCode = kVeltStillActive;
      return 1;
    }
    RecordEnd(*child, status);
  }
  exitCode = child->exitCode;
  return 1;
}

int VeltTerminateProcessTree(VeltProcessHandle handle) {
  ChildProcess* child = Child(handle);
  if (!child) return 0;
  if (child->endSignal > 0 && !child->ended) AskToEnd(*child);
  if (child->groupMayLive)
    kill(-child->group, SIGKILL);
  else if (!child->ended)
    kill(child->pid, SIGKILL);

  if (!child->ended) {
    int status = 0;
    pid_t reaped;
    do {
      reaped = waitpid(child->pid, &status, 0);
    } while (reaped < 0 && errno == EINTR);
    if (reaped == child->pid) {
      RecordEnd(*child, status);
    } else {
      child->ended = true;  // reaped behind our back; its code is unknown
      child->CloseEndWatch();
    }
  }
  if (child->groupMayLive) {
    // Whatever the leader left in its group was handed to us and dies of the
    // same signal; wait for all of it.
    for (;;) {
      const pid_t reaped = waitpid(-child->group, nullptr, 0);
      if (reaped < 0 && errno != EINTR) break;
    }
    ForgetGroup(*child);
  }
  return 1;
}

bool VeltCloseProcessHandle(VeltProcessHandle handle) {
  ChildProcess* child = Child(handle);
  if (!child) return false;
  // A child reaped behind our back (the query fails) has ended too.
  int exitCode = 0;
  if (!child->ended && VeltGetProcessExitCode(handle, exitCode) && !child->ended) return false;
  delete child;
  return true;
}

int VeltProcessId(VeltProcessHandle handle) {
  const ChildProcess* child = Child(handle);
  return child ? child->pid : 0;
}

void VeltWaitForChildActivity(const std::vector<VeltProcessHandle>& children,
                              const std::vector<VeltPipeHandle>& pipes, int timeoutMilliseconds) {
  std::vector<pollfd> watched;
  for (VeltProcessHandle handle : children) {
    const ChildProcess* child = Child(handle);
    if (!child || child->ended) continue;
    if (child->endWatch < 0)
      timeoutMilliseconds = std::min(timeoutMilliseconds, 1);
    else
      watched.push_back({child->endWatch, POLLIN, 0});
  }
  for (VeltPipeHandle pipe : pipes)
    if (pipe != kVeltNullPipeHandle) watched.push_back({static_cast<int>(pipe), POLLIN, 0});
  const int interrupt = velt_posix::InterruptWakeHandle();
  if (interrupt >= 0) watched.push_back({interrupt, POLLIN, 0});
  // A signal ends the wait early (EINTR) as well; the caller looks again.
  poll(watched.data(), watched.size(), timeoutMilliseconds);
}

int VeltFindProgram(const AString& name, AString& path) {
  std::string found;
  const int error = velt_posix::FindProgram(VEL_ANSI(name), found);
  if (error == 0) path = AString(found);
  return error;
}

std::string velt_system::ErrorText(int errorCode) {
  char buffer[256];
  const char* text = strerror_r(errorCode, buffer, sizeof buffer);
  return text ? text : "";
}
