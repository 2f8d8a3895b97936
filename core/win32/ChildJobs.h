#pragma once
// What process creation and the console control handler share: the job
// objects of the running child trees, which an interrupt ends (the handler
// runs on a thread of its own, so a lock guards the table), and the event
// that wakes a wait when an interrupt arrives.

#include <windows.h>

namespace velt_win32 {

// Remembers a child tree's job until ReleaseChildJob.
void RegisterChildJob(HANDLE job);

// Forgets the job; after this an interrupt no longer touches it, so the
// caller may close it.
void ReleaseChildJob(HANDLE job);

// Ends every registered child tree.
void TerminateChildJobs();

// Signalled while an interrupt is pending; null until the handler is
// installed.
HANDLE InterruptWakeEvent();

}  // namespace velt_win32
