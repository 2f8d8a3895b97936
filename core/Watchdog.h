#pragma once
// The watchdog: ends the process groups of this program's children when the
// program itself is killed outright (SIGKILL, the out-of-memory killer), so
// that nothing an extracta started keeps running.
//
// A direct child dies with the thread that created it (core/Process.h); what
// that child started in its process group does not. On POSIX a small process,
// forked at start, learns every child's process group as it starts and when
// it is gone; when this program ends without saying goodbye it kills every
// group it still knows and exits. It holds none of the program's descriptors
// (its standard streams are the null device), ignores SIGINT, SIGTERM and
// SIGHUP (interrupts stay the program's to handle) and is waited for when
// the program exits normally. On Windows the job objects end every child
// tree already; there it does nothing.

#include <string>
#include <vector>

// Starts the watchdog. Call once at start, before any thread exists and before
// any child starts; a watchdog that cannot be started is left out.
// `lastCommand` (a program's full path and its arguments; may be empty) runs
// once the groups are ended after the program died: what a farm engine still
// holds of the children's tasks is ended through the engine by it.
void StartChildWatchdog(const std::vector<std::string>& lastCommand = {});

// What this program made and must not leave behind: `path` (narrow text; a
// file, or a directory with everything in it) is removed by the watchdog
// when the program dies without saying goodbye, once its children are ended
// and the last command has run. VeltForgetRemoval takes that back, once the
// program has removed or delivered the path itself. Nothing without a
// watchdog (on Windows a killed run's working directory is removed by the
// next run on its base).
void VeltRemoveWhenKilled(const std::string& path);
void VeltForgetRemoval(const std::string& path);
