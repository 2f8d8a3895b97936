#pragma once
// What the farm tests share: an extractor that records where it ran, the
// children's runs joined with those records, and archives compared whatever
// their run numbers.

#include <map>
#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace veltest {

// One child as it ran: the stand-in's log line joined with what the child
// recorded of its place (by process id).
struct PlacedRun {
  SimRun run;
  std::string node;    // SLURMD_NODENAME, or the host it ran on
  std::string task;    // the engine's id of its task ("42.7": job 42, step 7)
  std::string parent;  // the command name of the process that started it
};

// An extractor for PATHOVERRIDE (POSIX): a script in `directory` that appends
// "pid node task parent" to `directory`/placed.log and then becomes
// extracta-sim, keeping its process id.
std::string PlacedExtractor(const std::string& directory);

// The runs of `directory`/sim.log joined with `directory`/placed.log.
std::vector<PlacedRun> ReadPlacedRuns(const std::string& directory);

// The most runs under way at one moment on one node.
int MostAtOnceOnANode(const std::vector<PlacedRun>& runs);

// The processes not yet ended whose environment holds `mark` ("NAME=value"),
// as "pid command line" texts.
std::vector<std::string> MarkedProcesses(const std::string& mark);

// An archive's entries by file name, and the file names in archive order: two
// runs deliver the same when these agree, whatever their working directories
// were called.
struct ArchiveByLeaf {
  std::vector<std::string> order;
  std::map<std::string, std::string> data;
  bool operator==(const ArchiveByLeaf& other) const {
    return order == other.order && data == other.data;
  }
};
ArchiveByLeaf ReadArchiveByLeaf(const std::string& archive);

}  // namespace veltest
