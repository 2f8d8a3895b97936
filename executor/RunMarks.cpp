#include "executor/RunMarks.h"

#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/AString.h"
#include "core/File.h"

namespace fs = std::filesystem;

namespace {

constexpr char kFirstLine[] = "VelExtracta run";

// "extract" and the run number (negative before 1970), as a working
// directory is named.
bool IsRunNumberName(const std::string& name) {
  if (name.rfind("extract", 0) != 0) return false;
  std::size_t at = 7;
  if (at < name.size() && name[at] == '-') ++at;
  if (at == name.size()) return false;
  for (; at < name.size(); ++at)
    if (name[at] < '0' || name[at] > '9') return false;
  return true;
}

std::string ReadMark(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string WithoutTrailingSeparator(std::string path) {
  while (path.size() > 1 && VeltIsPathSeparator(static_cast<unsigned char>(path.back())))
    path.pop_back();
  return path;
}

}  // namespace

std::string RunMarkPath(const std::string& directory) {
  const std::string path = WithoutTrailingSeparator(directory);
  std::size_t leaf = path.size();
  while (leaf > 0 && !VeltIsPathSeparator(static_cast<unsigned char>(path[leaf - 1]))) --leaf;
  return path.substr(0, leaf) + "." + path.substr(leaf) + ".run";
}

std::string RunMarkText(const VeltProcessStamp& run, bool kept) {
  std::ostringstream text;
  text << kFirstLine << "\nhost " << run.host << "\npid " << run.pid << "\nstarted " << run.started
       << "\n";
  if (kept) text << "kept\n";
  return text.str();
}

RunDirectoryFate FateOf(const std::string& markText, const std::string& host,
                        const std::function<bool(long long, const std::string&)>& runs) {
  std::istringstream lines(markText);
  std::string line, markHost, started;
  long long pid = 0;
  bool kept = false, hasHost = false, hasPid = false, hasStarted = false;
  if (!std::getline(lines, line) || line != kFirstLine) return RunDirectoryFate::kNoRunMark;
  while (std::getline(lines, line)) {
    if (line.rfind("host ", 0) == 0) {
      markHost = line.substr(5);
      hasHost = true;
    } else if (line.rfind("pid ", 0) == 0) {
      std::istringstream number(line.substr(4));
      hasPid = static_cast<bool>(number >> pid) && number.eof() && pid > 0;
    } else if (line.rfind("started ", 0) == 0 || line == "started") {
      started = line.size() > 8 ? line.substr(8) : std::string();
      hasStarted = true;
    } else if (line == "kept") {
      kept = true;
    }
  }
  // A mark cut short (its writer died while writing it) is no mark to act on.
  if (!hasHost || !hasPid || !hasStarted) return RunDirectoryFate::kNoRunMark;
  if (kept) return RunDirectoryFate::kKept;
  if (markHost != host || host.empty()) return RunDirectoryFate::kAnotherHost;
  if (runs(pid, started)) return RunDirectoryFate::kStillRunning;
  return RunDirectoryFate::kRemove;
}

std::vector<std::string> RemoveDeadRuns(const std::string& base) {
  std::vector<std::string> removed;
  const std::string host = VeltThisProcess().host;
  std::error_code error;
  for (fs::directory_iterator it(fs::u8path(base), error), end; !error && it != end;
       it.increment(error)) {
    const std::string leaf = it->path().filename().u8string();
    // ".extract<N>.run"
    if (leaf.size() < 5 || leaf[0] != '.' || leaf.compare(leaf.size() - 4, 4, ".run") != 0)
      continue;
    const std::string name = leaf.substr(1, leaf.size() - 5);
    if (!IsRunNumberName(name)) continue;
    const std::string mark = ReadMark(it->path());
    if (FateOf(mark, host, VeltProcessRuns) != RunDirectoryFate::kRemove) continue;
    const AString directory((it->path().parent_path() / fs::u8path(name)).u8string());
    // The directory first: a mark left alone is removed by the next run. A
    // run that took the freed name meanwhile has written a mark of its own,
    // which stays.
    const bool there = VeltPathExists(directory);
    if (there && !VeltRemoveTree(directory)) continue;
    if (ReadMark(it->path()) == mark) VeltRemoveTree(AString(it->path().u8string()));
    if (there) removed.push_back(fs::u8path(VEL_ANSI(directory)).generic_u8string());
  }
  return removed;
}
