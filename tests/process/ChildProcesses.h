#pragma once
// What the process tests need to watch real children: the records that
// vel-test-child writes, the processes of a process group as /proc shows
// them, and an interrupt sent in the middle of a wait.

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TestSupport.h"

namespace veltest {

inline std::string ChildProgram() { return BinPath("vel-test-child"); }

// One child's record, as vel-test-child writes it.
struct ChildRecord {
  long long pid = 0, start = 0, end = 0;  // times CLOCK_MONOTONIC ns; end 0: never got there
  std::string cwd, stdinTarget, fds;
  std::vector<std::string> args;  // argv[0] first
};

// The records of a file in the order the children started; none when the
// file does not exist.
inline std::vector<ChildRecord> ReadChildRecords(const std::string& file) {
  std::vector<ChildRecord> records;
  std::istringstream lines(PathExists(file) ? ReadFile(file) : "");
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> f;
    std::istringstream fields(line);
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    if (f.size() == 3 && f[0] == "end") {
      for (ChildRecord& record : records)
        if (record.pid == std::stoll(f[1])) record.end = std::stoll(f[2]);
    } else if (f.size() >= 7 && f[0] == "start") {
      records.push_back({std::stoll(f[1]), std::stoll(f[2]), 0, f[3], f[4], f[5],
                         std::vector<std::string>(f.begin() + 6, f.end())});
    }
  }
  std::stable_sort(records.begin(), records.end(),
                   [](const ChildRecord& a, const ChildRecord& b) { return a.start < b.start; });
  return records;
}

// The processes whose process group is `group`; zombies too unless liveOnly.
inline std::vector<int> ProcessesInGroup(int group, bool liveOnly = false) {
  std::vector<int> members;
  DIR* proc = opendir("/proc");
  while (dirent* entry = readdir(proc)) {
    // "pid (comm) state ppid pgrp ...": comm may hold blanks and parentheses.
    std::ifstream statFile("/proc/" + std::string(entry->d_name) + "/stat");
    std::string stat;
    char state = 0;
    int parent = 0, pgrp = 0;
    if (std::getline(statFile, stat) &&
        std::istringstream(stat.substr(stat.rfind(')') + 1)) >> state >> parent >> pgrp &&
        pgrp == group && !(liveOnly && state == 'Z'))
      members.push_back(std::atoi(entry->d_name));
  }
  closedir(proc);
  return members;
}

// Sends a signal to this process from another thread 100 ms after `ready`
// holds, as a Ctrl-C or a supervisor's SIGTERM arrives in the middle of a wait;
// the result is when it was sent (the future waits for that as it goes).
inline std::future<std::chrono::steady_clock::time_point> SignalWhen(int signal,
                                                                     std::function<bool()> ready) {
  return std::async(std::launch::async, [signal, ready] {
    PollUntil(ready, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto sent = std::chrono::steady_clock::now();
    kill(getpid(), signal);
    return sent;
  });
}

}  // namespace veltest
