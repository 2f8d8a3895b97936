#pragma once
// The program's own memory. The packer's threads take and give back buffers
// of a few megabytes for every segment of a view they compress; left to the
// C library's defaults, such blocks are kept and split again inside each
// thread's heap, so the program's peak memory crept up with the size of the
// design. With this, large blocks are taken from the system and given back
// the moment they are freed, and the peak stays the same from one design size
// to the next.

#include <cstdint>

// Call once at start, before any thread exists.
void VeltReturnLargeBlocksAtOnce();

// The most memory this process has held at once so far (its peak resident
// set; on Windows its peak working set), in bytes; 0 where the system does
// not tell.
std::uint64_t VeltPeakMemoryBytes();
