#include "core/Memory.h"

#include <windows.h>
// After windows.h, which it needs.
#include <psapi.h>

// The Windows heap gives blocks of this size back to the system on its own.
void VeltReturnLargeBlocksAtOnce() {}

std::uint64_t VeltPeakMemoryBytes() {
  PROCESS_MEMORY_COUNTERS counters = {};
  counters.cb = sizeof counters;
  if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0;
  return counters.PeakWorkingSetSize;
}
