#include "tests/e2e/RunSupport.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

namespace e2e {

using veltest::BinPath;
using veltest::RunOptions;
using veltest::RunProgram;
using veltest::RunResult;
using veltest::TempDir;

const std::string& SampleDesign() {
  static std::unique_ptr<TempDir> dir;
  static std::string design;
  if (design.empty()) {
    dir = std::make_unique<TempDir>();
    design = *dir / "pkg_top.mcm";
    const RunResult made = RunProgram(
        {BinPath("make-design"), "--seed", "5", "--conn-records", "300", "--quiet", "-o", design});
    if (made.exitCode != 0) throw std::runtime_error("make-design failed: " + made.err);
  }
  return design;
}

RunResult RunVelExtracta(const std::vector<std::string>& args, RunOptions options) {
  std::vector<std::string> argv = {BinPath("VelExtracta")};
  argv.insert(argv.end(), args.begin(), args.end());
  options.env.emplace("VELTAR_EXTRACTA_PATHOVERRIDE", BinPath("extracta-sim"));
  options.env.emplace("VELTAR_EXTRACTA_DEBUG", std::nullopt);
  for (const char* fault : {"EXTRACTA_SIM_FAIL", "EXTRACTA_SIM_MATCH", "EXTRACTA_SIM_SLEEP_MS"})
    options.env.emplace(fault, std::nullopt);
  return RunProgram(argv, options);
}

RunResult RunTool(const std::vector<std::string>& argv) {
  std::vector<std::string> full = {"/usr/bin/env"};
  full.insert(full.end(), argv.begin(), argv.end());
  return RunProgram(full);
}

// Plain text tests rather than std::regex, which gcc 12 compiles with false
// maybe-uninitialized warnings in the sanitizer build.
namespace {

// True when `text` from `start` on is one or more of `digits`.
bool OnlyFrom(const std::string& text, std::size_t start, const char* digits) {
  return start < text.size() && text.find_first_not_of(digits, start) == std::string::npos;
}

}  // namespace

std::vector<std::string> WorkingDirs(const std::string& directory) {
  std::vector<std::string> found;
  for (const auto& entry : veltest::ListDir(directory)) {
    if (entry.rfind("extract", 0) != 0) continue;
    const std::size_t number = entry.size() > 7 && entry[7] == '-' ? 8 : 7;
    if (OnlyFrom(entry, number, "0123456789")) found.push_back(entry);
  }
  return found;
}

std::vector<std::string> ArchiveNames(const std::string& archive) {
  const RunResult read = RunTool({"python3", "-c",
                                  "import sys, zipfile\n"
                                  "with zipfile.ZipFile(sys.argv[1]) as z:\n"
                                  "    bad = z.testzip()\n"
                                  "    if bad: sys.exit('damaged entry ' + bad)\n"
                                  "    print('\\n'.join(z.namelist()))\n",
                                  archive});
  EXPECT_EQ(read.exitCode, 0) << read.err;
  std::vector<std::string> names;
  std::istringstream lines(read.out);
  for (std::string line; std::getline(lines, line);)
    if (!line.empty()) names.push_back(line);
  std::sort(names.begin(), names.end());
  return names;
}

std::string Leaf(const std::string& path) { return path.substr(path.find_last_of('/') + 1); }

bool IsPointerLine(const std::string& text, const std::string& label) {
  const std::string start = label + "0x";
  if (text.rfind(start, 0) != 0 || text.back() != '\n') return false;
  return OnlyFrom(text.substr(0, text.size() - 1), start.size(), "0123456789abcdef");
}

std::string NotesWritingExtracta(const TempDir& dir) {
  const std::string path = dir / "extracta-with-notes";
  veltest::WriteFile(path, "#!/bin/sh\n'" + BinPath("extracta-sim") +
                               "' \"$@\" || exit $?\n"
                               "echo 'run notes' > notes.TXT\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

}  // namespace e2e
