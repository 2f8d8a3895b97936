#pragma once
// What the stand-in tools ask of the operating system, one implementation per
// platform (PlatformPosix.cpp, PlatformWin32.cpp). Everything else in the
// tools is plain C++.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

namespace veltools {

int ProcessId();

// Standard output and error carry bytes as written (no CR added before a
// line feed where the runtime would add one).
void UseBinaryStandardStreams();

void SleepMilliseconds(std::uint64_t milliseconds);

// The local time and the universal time of a calendar time.
std::tm LocalTime(std::time_t time);
std::tm UniversalTime(std::time_t time);

// Moves a file's position to `offset` from its start (files beyond 2 GiB
// included); false on failure.
bool SeekTo(std::FILE* file, std::uint64_t offset);

// Ends this process as a death by `signal` does: on POSIX by the signal
// itself (a signal whose default is to be ignored returns), elsewhere with
// the exit code a POSIX parent would see (128 + the signal).
void DieBySignal(int signal);

// Leaves a process that sleeps `seconds` and then ends, and returns its
// process id. It belongs to this process's tree, so ending the tree ends it.
// Unless `keepOutput`, it holds neither standard output nor standard error.
int StartSleeper(double seconds, bool keepOutput);

// Where a sleeper is this program started again: when the arguments say this
// process is one, sleeps and returns true (the caller then ends).
bool RunAsSleeper(int argc, char** argv);

// A file's bytes mapped read-only; false where the file cannot be mapped
// (the caller reads it instead). Unmap releases what MapFile returned.
bool MapFile(const std::string& path, const char*& data, std::size_t& size);
void UnmapFile(const char* data, std::size_t size);

}  // namespace veltools
