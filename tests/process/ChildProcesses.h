#pragma once
// What the process tests need to watch real children: the records that
// vel-test-child writes, and the processes of a process group as /proc shows
// them.

#include <functional>
#include <string>
#include <vector>

namespace veltest {

// Path of the helper child program in the build tree.
std::string ChildProgram();

// One child's record, as vel-test-child writes it.
struct ChildRecord {
  int pid = 0;
  int pgid = 0;
  long long start = 0;  // CLOCK_MONOTONIC nanoseconds
  long long end = 0;    // 0: the child never got to its end
  std::string cwd;
  std::string stdinTarget;
  std::string fds;
  std::vector<std::string> args;  // argv[0] first
};

// The records of a file in the order the children started; none when the
// file does not exist.
std::vector<ChildRecord> ReadChildRecords(const std::string& file);

struct GroupMember {
  int pid;
  bool zombie;
};

// Every process whose process group is `group`, zombies included.
std::vector<GroupMember> ProcessesInGroup(int group);

// The members of the group that are not zombies.
std::vector<int> LiveProcessesInGroup(int group);

// True while /proc lists the process (a zombie included).
bool ProcessExists(int pid);

// Polls the condition every few milliseconds for at most `seconds`.
bool PollUntil(const std::function<bool()>& condition, double seconds);

}  // namespace veltest
