#include "core/posix/ProgramLookup.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "core/File.h"

namespace {

bool EndsWithExe(const std::string& name) {
  if (name.size() <= 4) return false;
  const std::string tail = name.substr(name.size() - 4);
  return strcasecmp(tail.c_str(), ".exe") == 0;
}

// True for a regular file we may execute; `unusable` records a file that is
// there but is no program we may run.
bool IsProgram(const std::string& path, bool& unusable) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return false;
  if (S_ISREG(info.st_mode) && access(path.c_str(), X_OK) == 0) return true;
  unusable = true;
  return false;
}

std::string Absolute(const std::string& path) {
  if (!path.empty() && path[0] == '/') return path;
  const std::string directory = VeltCurrentDirectory();
  return directory.empty() ? path : directory + "/" + path;
}

}  // namespace

int velt_posix::FindProgram(const std::string& name, std::string& found) {
  if (name.empty()) return ENOENT;
  std::vector<std::string> candidates{name};
  if (EndsWithExe(name)) candidates.push_back(name.substr(0, name.size() - 4));
  const char* pathVariable = std::getenv("PATH");
  const std::string searchPath = pathVariable ? pathVariable : "/bin:/usr/bin";
  bool unusable = false;
  for (const std::string& candidate : candidates) {
    if (candidate.find('/') != std::string::npos) {
      if (IsProgram(candidate, unusable)) {
        found = Absolute(candidate);
        return 0;
      }
      continue;
    }
    std::size_t start = 0;
    for (;;) {
      const std::size_t end = searchPath.find(':', start);
      std::string directory = searchPath.substr(start, end - start);
      if (directory.empty()) directory = ".";  // an empty entry is the current directory
      const std::string path = directory + "/" + candidate;
      if (IsProgram(path, unusable)) {
        found = Absolute(path);
        return 0;
      }
      if (end == std::string::npos) break;
      start = end + 1;
    }
  }
  return unusable ? EACCES : ENOENT;
}
