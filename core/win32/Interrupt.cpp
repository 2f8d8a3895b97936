#include "core/Interrupt.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <mutex>
#include <vector>

#include "core/InterruptState.h"
#include "core/win32/ChildJobs.h"

#ifndef SIGBREAK
#define SIGBREAK 21
#endif

namespace velt_win32 {
namespace {

std::mutex jobsLock;
std::vector<HANDLE>& Jobs() {
  static std::vector<HANDLE> jobs;
  return jobs;
}

std::atomic<HANDLE> wakeEvent{nullptr};

}  // namespace

void RegisterChildJob(HANDLE job) {
  std::lock_guard<std::mutex> hold(jobsLock);
  Jobs().push_back(job);
}

void ReleaseChildJob(HANDLE job) {
  std::lock_guard<std::mutex> hold(jobsLock);
  std::vector<HANDLE>& jobs = Jobs();
  jobs.erase(std::remove(jobs.begin(), jobs.end(), job), jobs.end());
}

void TerminateChildJobs() {
  std::lock_guard<std::mutex> hold(jobsLock);
  for (HANDLE job : Jobs()) TerminateJobObject(job, 1);
}

HANDLE InterruptWakeEvent() { return wakeEvent.load(); }

}  // namespace velt_win32

namespace {

using velt_interrupt::pendingSignal;

int SignalFor(DWORD event) {
  switch (event) {
    case CTRL_C_EVENT:
      return SIGINT;
    case CTRL_BREAK_EVENT:
      return SIGBREAK;
    default:  // the console closing, the user logging off, the system shutting down
      return SIGTERM;
  }
}

BOOL WINAPI OnConsoleEvent(DWORD event) {
  velt_win32::TerminateChildJobs();
  int none = 0;
  if (!pendingSignal.compare_exchange_strong(none, SignalFor(event))) {
    // The first interrupt was not acted on yet and the user insists: the
    // system's own handler ends the program.
    return FALSE;
  }
  if (HANDLE wake = velt_win32::InterruptWakeEvent()) SetEvent(wake);
  if (event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT) return TRUE;
  // After the other events the system ends the program as soon as this
  // handler returns: wait here while the run removes its working directory
  // and exits (the system's own time limit still applies).
  Sleep(INFINITE);
  return TRUE;
}

}  // namespace

void InstallInterruptHandlers() {
  if (!velt_win32::wakeEvent.load()) {
    velt_win32::wakeEvent.store(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  }
}

void velt_interrupt::ForgetWakeUps() {
  if (HANDLE wake = velt_win32::InterruptWakeEvent()) ResetEvent(wake);
}
