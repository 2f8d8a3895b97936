#include "core/Interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "core/InterruptState.h"
#include "core/posix/ChildGroups.h"

namespace velt_posix {
namespace {

// More than a run ever has alive at once (about twenty children); a child
// that finds the table full still runs, it is only not ended by an interrupt.
constexpr int kGroupSlots = 256;

std::atomic<pid_t> childGroups[kGroupSlots];

static_assert(std::atomic<pid_t>::is_always_lock_free, "the signal handler reads the slots");

int TakeFreeSlot(pid_t group) {
  for (int slot = 0; slot < kGroupSlots; ++slot) {
    pid_t expected = 0;
    if (childGroups[slot].compare_exchange_strong(expected, group)) return slot;
  }
  return -1;
}

}  // namespace

int RegisterChildGroup(pid_t group) {
  const int slot = TakeFreeSlot(group);
  if (slot >= 0) return slot;
  // Groups whose leader finished normally stay registered while they might
  // still hold a grandchild; forget those that are gone by now.
  for (auto& entry : childGroups) {
    const pid_t old = entry.load();
    if (old != 0 && kill(-old, 0) != 0 && errno == ESRCH) {
      pid_t expected = old;
      entry.compare_exchange_strong(expected, 0);
    }
  }
  return TakeFreeSlot(group);
}

void ReleaseChildGroup(int slot, pid_t group) {
  if (slot < 0 || slot >= kGroupSlots) return;
  childGroups[slot].compare_exchange_strong(group, 0);
}

void SignalChildGroups(int signal) {
  for (auto& entry : childGroups) {
    const pid_t group = entry.load();
    if (group > 0) kill(-group, signal);
  }
}

namespace {
std::atomic<int> wakeEnds[2] = {-1, -1};
}  // namespace

int InterruptWakeHandle() { return wakeEnds[0].load(); }

}  // namespace velt_posix

namespace {

using velt_interrupt::pendingSignal;

void OnInterrupt(int signal) {
  const int savedErrno = errno;
  velt_posix::SignalChildGroups(SIGKILL);
  const int wake = velt_posix::wakeEnds[1].load();
  if (wake >= 0) {
    const char byte = 1;
    ssize_t ignored = write(wake, &byte, 1);  // a full pipe wakes the waits just as well
    (void)ignored;
  }
  int none = 0;
  if (!pendingSignal.compare_exchange_strong(none, signal)) {
    // The first interrupt was not acted on yet and the user insists: die by
    // this signal as if no handler were installed (it is delivered when the
    // handler returns, since it is blocked while the handler runs).
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigaction(signal, &fallback, nullptr);
    raise(signal);
  }
  errno = savedErrno;
}

}  // namespace

void InstallInterruptHandlers() {
  if (velt_posix::wakeEnds[0].load() < 0) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
      velt_posix::wakeEnds[1].store(ends[1]);
      velt_posix::wakeEnds[0].store(ends[0]);
    }
  }
  struct sigaction action = {};
  action.sa_handler = OnInterrupt;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&action.sa_mask, signal);
  // Interrupted system calls resume; the waits notice the request by polling.
  action.sa_flags = SA_RESTART;
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}

void velt_interrupt::ForgetWakeUps() {
  const int wake = velt_posix::InterruptWakeHandle();
  char bytes[64];
  while (wake >= 0 && read(wake, bytes, sizeof bytes) > 0) {
  }
}
