#include "core/UsableThreads.h"

#include <windows.h>

#include <thread>

unsigned VeltUsableThreads() {
  DWORD_PTR processMask = 0, systemMask = 0;
  unsigned usable = 0;
  if (GetProcessAffinityMask(GetCurrentProcess(), &processMask, &systemMask))
    for (; processMask != 0; processMask &= processMask - 1) ++usable;
  if (usable == 0) usable = std::thread::hardware_concurrency();
  return usable > 0 ? usable : 1;
}
