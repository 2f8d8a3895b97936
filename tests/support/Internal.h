#pragma once
// What the files of the test support share among themselves: the headers
// they all use and the pieces one file defines for the others.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace veltest {

namespace fs = std::filesystem;

// The one launcher, for each system: StartProgram starts argv[0] (a path) in
// a process group of its own, standard input from the null device, standard
// output and error into the files. WaitProgram waits for it, killing its
// process group after the time-out; on Windows the result's texts have CR LF
// line ends turned into LF, as the standard streams there are in text mode.
// ReleaseProgram lets the system forget a waited-for program: on Windows its
// id, held until then, may name another process afterwards. RunProcesses
// lists the processes not yet ended, as (pid, command line; on Windows
// program name): on POSIX those whose environment holds `mark` ("NAME=value",
// inherited by every child), on Windows `root` and its descendants (a process
// keeps its parent's id after the parent ended).
Started StartProgram(const std::vector<std::string>& argv, const RunOptions& options,
                     const std::string& outFile, const std::string& errFile);
RunResult WaitProgram(Started& started, double timeoutSeconds, const std::string& outFile,
                      const std::string& errFile);
void ReleaseProgram(Started& started);
std::vector<std::pair<int, std::string>> RunProcesses(int root, const std::string& mark);

// The environment a started program gets: this process's, without the
// stand-in's switches, with the options' variables set or unset on top.
std::map<std::string, std::string> Environment(const RunOptions& options);

inline constexpr char kMarkVariable[] = "VEL_FAULT_RUN";
inline constexpr char kDate[] = "Sat Nov 21 10:02:11 2026";

// A file's bytes, or "" when it cannot be read (a process gone from /proc).
std::string ReadIfAny(const std::string& path);

// True when `text` from `start` on is one or more of `digits`.
bool OnlyFrom(const std::string& text, std::size_t start, const char* digits);

}  // namespace veltest
