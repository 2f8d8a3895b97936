#include "core/Interrupt.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "core/InterruptState.h"
#include "core/posix/ChildGroups.h"

namespace velt_posix {
namespace {

// More than a run ever has alive at once (about twenty children); a child
// that finds the table full still runs, it is only not ended by an interrupt.
constexpr int kGroupSlots = 256;

// A slot holds a group and its end signal in one word, so that the handler
// never sees one without the other.
std::atomic<uint64_t> childGroups[kGroupSlots];

static_assert(std::atomic<uint64_t>::is_always_lock_free, "the signal handler reads the slots");

uint64_t Entry(pid_t group, int endSignal) {
  return static_cast<uint64_t>(static_cast<uint32_t>(endSignal)) << 32 |
         static_cast<uint32_t>(group);
}
pid_t GroupOf(uint64_t entry) { return static_cast<pid_t>(static_cast<uint32_t>(entry)); }
int EndSignalOf(uint64_t entry) { return static_cast<int>(entry >> 32); }

int TakeFreeSlot(uint64_t entry) {
  for (int slot = 0; slot < kGroupSlots; ++slot) {
    uint64_t expected = 0;
    if (childGroups[slot].compare_exchange_strong(expected, entry)) return slot;
  }
  return -1;
}

}  // namespace

int RegisterChildGroup(pid_t group, int endSignal) {
  const uint64_t entry = Entry(group, endSignal);
  const int slot = TakeFreeSlot(entry);
  if (slot >= 0) return slot;
  // Groups whose leader finished normally stay registered while they might
  // still hold a grandchild; forget those that are gone by now.
  for (auto& held : childGroups) {
    uint64_t old = held.load();
    if (old != 0 && kill(-GroupOf(old), 0) != 0 && errno == ESRCH)
      held.compare_exchange_strong(old, 0);
  }
  return TakeFreeSlot(entry);
}

void ReleaseChildGroup(int slot, pid_t group) {
  if (slot < 0 || slot >= kGroupSlots) return;
  uint64_t held = childGroups[slot].load();
  if (held != 0 && GroupOf(held) == group) childGroups[slot].compare_exchange_strong(held, 0);
}

void EndChildGroups() {
  for (auto& held : childGroups) {
    const uint64_t entry = held.load();
    if (entry == 0 || GroupOf(entry) <= 0) continue;
    const int endSignal = EndSignalOf(entry);
    kill(-GroupOf(entry), endSignal > 0 ? endSignal : SIGKILL);
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
  // A launcher on a farm is asked to end its task through the engine; the
  // failure path that follows kills what is left of it.
  velt_posix::EndChildGroups();
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
