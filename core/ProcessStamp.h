#pragma once
// Which process made something, so that a later process can tell whether it
// still runs: the host's name, the process id, and when the process started
// (with the boot it started in, where the system tells), so that an id the
// system has given to another process since does not pass for it.

#include <string>

struct VeltProcessStamp {
  std::string host;
  long long pid = 0;
  std::string started;  // as the system tells it; empty where it does not
};

// This process.
VeltProcessStamp VeltThisProcess();

// True while the process `pid` of this host runs and started when `started`
// says (with an empty `started`, while any process has that id). A process
// that has ended but was not yet reaped does not run.
bool VeltProcessRuns(long long pid, const std::string& started);
