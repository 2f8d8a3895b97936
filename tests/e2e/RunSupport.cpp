#include "tests/e2e/RunSupport.h"

#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <regex>
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

std::vector<std::string> WorkingDirs(const std::string& directory) {
  static const std::regex name("extract-?[0-9]+");
  std::vector<std::string> found;
  for (const auto& entry : veltest::ListDir(directory))
    if (std::regex_match(entry, name)) found.push_back(entry);
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
  return std::regex_match(text, std::regex(label + "0x[0-9a-f]+\n"));
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
