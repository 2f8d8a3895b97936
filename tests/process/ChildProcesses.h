#pragma once
// What the process tests need to watch real children: the records that
// vel-test-child writes, the processes of a child's tree, and (on POSIX) an
// interrupt sent in the middle of a wait.

#ifdef _WIN32
#include <windows.h>
#else
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
inline bool WriteToPipe(VeltPipeHandle pipe, const std::string& bytes) {
  DWORD written = 0;
  return ::WriteFile(reinterpret_cast<HANDLE>(pipe), bytes.data(), static_cast<DWORD>(bytes.size()),
                     &written, nullptr) &&
         written == bytes.size();
}
#else
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
