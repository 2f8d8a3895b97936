#include "tests/process/ChildProcesses.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/support/TestSupport.h"

namespace veltest {

std::string ChildProgram() { return BinPath("vel-test-child"); }

std::vector<ChildRecord> ReadChildRecords(const std::string& file) {
  std::vector<ChildRecord> records;
  if (!PathExists(file)) return records;
  std::map<int, std::size_t> byPid;
  std::istringstream lines(ReadFile(file));
  std::string line;
  while (std::getline(lines, line)) {
    const std::size_t tab1 = line.find('\t');
    const std::size_t tab2 = line.find('\t', tab1 + 1);
    if (tab1 == std::string::npos || tab2 == std::string::npos) continue;
    const int pid = std::atoi(line.substr(0, tab1).c_str());
    const std::string key = line.substr(tab1 + 1, tab2 - tab1 - 1);
    const std::string value = line.substr(tab2 + 1);
    if (!byPid.count(pid)) {
      byPid[pid] = records.size();
      records.emplace_back();
      records.back().pid = pid;
    }
    ChildRecord& record = records[byPid[pid]];
    if (key == "start") record.start = std::atoll(value.c_str());
    if (key == "end") record.end = std::atoll(value.c_str());
    if (key == "pgid") record.pgid = std::atoi(value.c_str());
    if (key == "cwd") record.cwd = value;
    if (key == "stdin") record.stdinTarget = value;
    if (key == "fds") record.fds = value;
    if (key == "arg") record.args.push_back(value);
  }
  std::stable_sort(records.begin(), records.end(),
                   [](const ChildRecord& a, const ChildRecord& b) { return a.start < b.start; });
  return records;
}

std::vector<GroupMember> ProcessesInGroup(int group) {
  std::vector<GroupMember> members;
  DIR* proc = opendir("/proc");
  if (!proc) return members;
  while (dirent* entry = readdir(proc)) {
    const int pid = std::atoi(entry->d_name);
    if (pid <= 0) continue;
    std::ifstream statFile("/proc/" + std::to_string(pid) + "/stat");
    std::string stat;
    if (!std::getline(statFile, stat)) continue;
    // "pid (comm) state ppid pgrp ...": comm may hold blanks and parentheses.
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream fields(stat.substr(close + 1));
    char state = 0;
    int parent = 0, pgrp = 0;
    fields >> state >> parent >> pgrp;
    if (pgrp == group) members.push_back({pid, state == 'Z'});
  }
  closedir(proc);
  return members;
}

std::vector<int> LiveProcessesInGroup(int group) {
  std::vector<int> live;
  for (const GroupMember& member : ProcessesInGroup(group))
    if (!member.zombie) live.push_back(member.pid);
  return live;
}

bool ProcessExists(int pid) {
  struct stat info;
  return stat(("/proc/" + std::to_string(pid)).c_str(), &info) == 0;
}

bool PollUntil(const std::function<bool()>& condition, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace veltest
