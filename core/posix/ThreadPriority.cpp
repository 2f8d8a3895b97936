#include "core/ThreadPriority.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "core/VelDebug.h"

void VeltLowerThisThreadsPriority() {
#ifdef __linux__
  // On Linux the nice value belongs to the thread; by the system call, since
  // the C library's gettid() is newer than the oldest systems served.
  constexpr int kBackgroundNice = 10;
  const auto thread = static_cast<id_t>(syscall(SYS_gettid));
  if (setpriority(PRIO_PROCESS, thread, kBackgroundNice) != 0)
    VelDebug(1, L"a packing thread kept its priority\n");
#endif
}
