#pragma once
// What the process tests need to watch real children: the records that
// vel-test-child writes, the processes of a child's tree, and (on POSIX) an
// interrupt sent in the middle of a wait.

#ifdef _WIN32
#include <windows.h>
// After windows.h, which it needs.
#include <tlhelp32.h>
#else
#include <dirent.h>
#include <signal.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "core/Pipe.h"
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

#ifdef _WIN32
// The processes of the tree that `group` started: it and its descendants
// (a process keeps its parent's id after the parent ended). Ended processes
// are gone on Windows, so `liveOnly` changes nothing.
inline std::vector<int> ProcessesInGroup(int group, bool = false) {
  std::vector<std::pair<int, int>> parents;  // (pid, parent pid)
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
  PROCESSENTRY32W entry = {};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(snapshot, &entry); more; more = Process32NextW(snapshot, &entry))
    parents.emplace_back(static_cast<int>(entry.th32ProcessID),
                         static_cast<int>(entry.th32ParentProcessID));
  CloseHandle(snapshot);
  std::vector<int> members;
  for (const auto& [pid, parent] : parents)
    if (pid == group) members.push_back(pid);
  for (std::size_t i = 0; i < members.size(); ++i)
    for (const auto& [pid, parent] : parents)
      if (parent == members[i] && pid != members[i]) members.push_back(pid);
  return members;
}

// Whether the process still exists.
inline bool ProcessExists(int pid) {
  const HANDLE process = OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(pid));
  if (!process) return false;
  const bool running = WaitForSingleObject(process, 0) == WAIT_TIMEOUT;
  CloseHandle(process);
  return running;
}

// Ends the process as a crash by SIGKILL reads on POSIX: exit code 137.
inline void KillProcess(int pid) {
  const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(pid));
  if (process) TerminateProcess(process, 128 + 9);
  if (process) CloseHandle(process);
}

inline bool WriteToPipe(VeltPipeHandle pipe, const std::string& bytes) {
  DWORD written = 0;
  return ::WriteFile(reinterpret_cast<HANDLE>(pipe), bytes.data(), static_cast<DWORD>(bytes.size()),
                     &written, nullptr) &&
         written == bytes.size();
}
#else
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

// Whether the process still exists (a zombie, not yet reaped, does).
inline bool ProcessExists(int pid) { return kill(pid, 0) == 0; }

inline void KillProcess(int pid) { kill(pid, SIGKILL); }

inline bool WriteToPipe(VeltPipeHandle pipe, const std::string& bytes) {
  return write(static_cast<int>(pipe), bytes.data(), bytes.size()) ==
         static_cast<ssize_t>(bytes.size());
}
#endif

inline void SetEnv(const std::string& name, const std::string& value) {
#ifdef _WIN32
  _putenv_s(name.c_str(), value.c_str());
#else
  setenv(name.c_str(), value.c_str(), 1);
#endif
}

inline void UnsetEnv(const std::string& name) {
#ifdef _WIN32
  _putenv_s(name.c_str(), "");
#else
  unsetenv(name.c_str());
#endif
}

inline bool MakeDirectory(const std::string& path) {
  std::error_code error;
  return std::filesystem::create_directory(std::filesystem::u8path(path), error);
}

// Makes the program `target` (named with or without ".exe") startable as
// `name`: a link on POSIX, a copy named `name` + ".exe" on Windows (which
// finds it under `name`).
inline bool InstallProgram(const std::string& target, const std::string& name) {
  std::error_code error;
#ifdef _WIN32
  const bool hasExe = target.size() > 4 && target.compare(target.size() - 4, 4, ".exe") == 0;
  std::filesystem::copy_file(std::filesystem::u8path(hasExe ? target : target + ".exe"),
                             std::filesystem::u8path(name + ".exe"), error);
#else
  std::filesystem::create_symlink(target, name, error);
#endif
  return !error;
}

#ifndef _WIN32
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

#endif

}  // namespace veltest
