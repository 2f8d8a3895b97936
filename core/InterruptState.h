#pragma once
// The interrupt request shared by the platform's handler and the waits: the
// number of the signal (or console event) that asked the run to end, 0 for
// none. Written from a signal handler, so it must stay lock-free.

#include <atomic>

namespace velt_interrupt {

extern std::atomic<int> pendingSignal;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler writes it");

// Drops wake-ups that an interrupt left for the waits; the platform's part.
void ForgetWakeUps();

}  // namespace velt_interrupt
