// What process creation shares on every system: the command line's split.

#include "core/Process.h"

std::vector<std::string> VeltSplitCommandLine(const std::string& commandLine) {
  std::vector<std::string> arguments;
  std::string current;
  bool inArgument = false;
  bool quoted = false;
  const std::size_t length = commandLine.size();
  std::size_t i = 0;
  while (i < length) {
    const char c = commandLine[i];
    if (!quoted && (c == ' ' || c == '\t')) {
      if (inArgument) arguments.push_back(std::move(current));
      current.clear();
      inArgument = false;
      ++i;
      continue;
    }
    inArgument = true;
    if (c == '\\') {
      std::size_t backslashes = 0;
      while (i < length && commandLine[i] == '\\') {
        ++backslashes;
        ++i;
      }
      if (i < length && commandLine[i] == '"') {
        current.append(backslashes / 2, '\\');
        if (backslashes % 2 == 1) {
          current += '"';
          ++i;
        }
      } else {
        current.append(backslashes, '\\');
      }
      continue;
    }
    if (c == '"') {
      if (quoted && i + 1 < length && commandLine[i + 1] == '"') {
        current += '"';
        i += 2;
      } else {
        quoted = !quoted;
        ++i;
      }
      continue;
    }
    current += c;
    ++i;
  }
  if (inArgument) arguments.push_back(std::move(current));
  return arguments;
}
