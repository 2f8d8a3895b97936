#include "tests/farm/FarmSupport.h"

#include <zip.h>

#include <algorithm>
#include <sstream>

#include "tests/support/Internal.h"
#include "tests/support/PlatformHelpers.h"

namespace veltest {

std::string PlacedExtractor(const std::string& directory) {
  const std::string script = directory + "/placed-extracta";
  // The node a Slurm step runs on, or the host; the task's ids as the engine
  // gave them; then the stand-in takes this process's place.
  WriteFile(script,
            "#!/bin/sh\n"
            "node=${SLURMD_NODENAME:-$(hostname)}\n"
            "task=${SLURM_JOB_ID:-${JOB_ID:--}}.${SLURM_STEP_ID:-${SGE_TASK_ID:--}}\n"
            "parent=$(cat /proc/$PPID/comm)\n"
            "echo \"$$ $node $task $parent\" >> '" +
                directory + "/placed.log'\n" + "exec '" + BinPath("extracta-sim") + "' \"$@\"\n");
  MakeExecutable(script);
  return script;
}

std::vector<PlacedRun> ReadPlacedRuns(const std::string& directory) {
  std::map<int, PlacedRun> places;
  std::istringstream lines(
      PathExists(directory + "/placed.log") ? ReadFile(directory + "/placed.log") : "");
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    int pid = 0;
    PlacedRun placed;
    if (fields >> pid >> placed.node >> placed.task >> placed.parent) places[pid] = placed;
  }
  std::vector<PlacedRun> runs;
  for (const SimRun& run : ReadSimLog(directory + "/sim.log")) {
    PlacedRun placed = places.count(run.pid) ? places[run.pid] : PlacedRun{};
    placed.run = run;
    runs.push_back(placed);
  }
  return runs;
}

int MostAtOnceOnANode(const std::vector<PlacedRun>& runs) {
  std::map<std::string, std::vector<SimRun>> byNode;
  for (const PlacedRun& placed : runs) byNode[placed.node].push_back(placed.run);
  int most = 0;
  for (const auto& [node, nodeRuns] : byNode) most = std::max(most, MostAtOnce(nodeRuns));
  return most;
}

std::vector<std::string> MarkedProcesses(const std::string& mark) {
  std::vector<std::string> found;
  for (const auto& [pid, command] : RunProcesses(0, mark))
    found.push_back(std::to_string(pid) + " " + command);
  return found;
}

ArchiveByLeaf ReadArchiveByLeaf(const std::string& path) {
  ArchiveByLeaf archive;
  for (const auto& [name, file] : ReadArchive(path)) archive.data[Leaf(name)] = file.data;
  int error = 0;
  if (zip_t* zip = zip_open(path.c_str(), ZIP_RDONLY, &error)) {
    for (zip_int64_t i = 0; i < zip_get_num_entries(zip, 0); ++i)
      archive.order.push_back(Leaf(zip_get_name(zip, static_cast<zip_uint64_t>(i), 0)));
    zip_close(zip);
  }
  return archive;
}

}  // namespace veltest
