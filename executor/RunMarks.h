#pragma once
// Run marks: a run marks the working directory it creates as its own, so
// that when it dies without cleaning up (killed together with its watchdog,
// a machine that crashed) the next run on the same base can tell that
// directory from any other and remove it.
//
// The mark is a small file beside the directory, named after it with a dot
// before and ".run" after ("extract1700000000" has ".extract1700000000.run"),
// since inside it would be packed with the views:
//   VelExtracta run
//   host NAME
//   pid N
//   started TEXT       (core/ProcessStamp.h)
//   kept               (only for a directory VELTAR_EXTRACTA_DEBUG keeps)
// A directory goes only when its mark says a run of this host made it, that
// run has ended and did not keep it. A directory without a mark (another
// program's), a kept one, that of a run still going, and that of another
// host's run (on a shared file system that run may well be alive: nothing is
// removed on a guess) all stay.

#include <functional>
#include <string>
#include <vector>

#include "core/ProcessStamp.h"

// The mark's path for a directory (narrow text, with or without a trailing
// separator).
std::string RunMarkPath(const std::string& directory);

std::string RunMarkText(const VeltProcessStamp& run, bool kept);

enum class RunDirectoryFate { kRemove, kNoRunMark, kKept, kAnotherHost, kStillRunning };

// What becomes of a directory whose mark reads `markText`, on host `host`;
// `runs` says whether a process of this host still runs.
RunDirectoryFate FateOf(const std::string& markText, const std::string& host,
                        const std::function<bool(long long, const std::string&)>& runs);

// Removes, under the base directory (narrow text), the working directories
// of this host's runs that have ended without removing them, with their
// marks, and marks whose directory is gone. Returns the directories removed.
std::vector<std::string> RemoveDeadRuns(const std::string& base);
