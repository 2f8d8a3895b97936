#include "core/Memory.h"

#include <sys/resource.h>

#include "core/VelDebug.h"

#if defined(__GLIBC__)
#include <malloc.h>
#endif

void VeltReturnLargeBlocksAtOnce() {
#if defined(__GLIBC__)
  // A fixed threshold: glibc otherwise raises it to the largest block freed
  // so far, after which multi-megabyte buffers stay in the heaps.
  constexpr int kLargeBlockBytes = 256 << 10;
  if (mallopt(M_MMAP_THRESHOLD, kLargeBlockBytes) != 1)
    VelDebug(1, L"the C library kept its own threshold for large blocks\n");
#endif
}

std::uint64_t VeltPeakMemoryBytes() {
  rusage usage;
  if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
  // Linux counts it in kilobytes.
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
}
