#include "core/ThreadPriority.h"

#include <windows.h>

#include "core/VelDebug.h"

void VeltLowerThisThreadsPriority() {
  if (!SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL))
    VelDebug(1, L"a packing thread kept its priority\n");
}
