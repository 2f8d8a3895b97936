#pragma once
// What process creation and the interrupt handler share: the table of live
// child process groups that an interrupt ends (written by process creation
// and reaping, read by the signal handler, which may run at any moment: a
// fixed number of lock-free slots, no allocation), the watchdog's news of
// those groups, and the interrupt's wake-up descriptor.

#include <sys/types.h>

namespace velt_posix {

// Remembers a child's process group and the signal that asks it to end (0:
// it is killed); returns its slot, or -1 when the table stays full even after
// forgetting the groups that are gone.
int RegisterChildGroup(pid_t group, int endSignal);

// Forgets the group in its slot, unless the slot has been given to another
// group since (-1 is ignored).
void ReleaseChildGroup(int slot, pid_t group);

// Ends every registered group: its end signal where it has one, else
// SIGKILL. Async-signal-safe.
void EndChildGroups();

// Tell the watchdog (core/Watchdog.h) that a child's process group started,
// with the signal that asks it to end (0: none; async-signal-safe: the child
// tells it itself, before its exec), or that it is gone and its number may be
// reused. Nothing without a watchdog.
void TellWatchdogGroupStarted(pid_t group, int endSignal);
void TellWatchdogGroupGone(pid_t group);

// A descriptor that becomes readable when an interrupt arrives, so that a
// wait sleeping in poll() wakes whichever thread the signal went to; -1
// until the interrupt handlers are installed.
int InterruptWakeHandle();

}  // namespace velt_posix
