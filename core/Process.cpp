// What process creation shares on every system: the checks of the
// arguments, the system's message texts as callers see them, and the command
// line's split.

#include "core/Process.h"

#include "core/SystemCalls.h"

int VeltCreateProcess(const AString& applicationName, const AString* argv, int argc,
                      VeltProcessHandle& processHandle, const AString& workingDirectory,
                      const char* const* environment, const char* inputPath,
                      VeltPipeHandle outputHandle, unsigned creationFlags, bool inheritHandles,
                      bool errorToOutput, bool newProcessGroup, int* processId) {
  processHandle = nullptr;
  if (processId) *processId = 0;
  if (argv == nullptr || argc < 1) return kVeltErrorInvalidArgument;
  int endSignal = 0;
  if (creationFlags != 0) {
    endSignal = static_cast<int>(creationFlags & ~kVeltEndRequested);
    // A signal number, only for a child of its own group, where signals are.
    if ((creationFlags & kVeltEndRequested) == 0 || endSignal <= 0 || endSignal >= 64 ||
        !newProcessGroup || !kVeltChildrenAskedToEnd)
      return kVeltErrorInvalidArgument;
  }
  return velt_system::StartProcess(applicationName, argv, argc, processHandle, workingDirectory,
                                   environment, inputPath, outputHandle, inheritHandles,
                                   errorToOutput, newProcessGroup, endSignal, processId);
}

std::string VeltFormatSystemMessage(int errorCode) {
  // What a buffer of 79 characters holds with its terminator.
  constexpr std::size_t kMostCharacters = 78;
  std::string message = velt_system::ErrorText(errorCode);
  if (message.size() > kMostCharacters) message.resize(kMostCharacters);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r')) message.pop_back();
  return message;
}

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

std::string VeltQuoteArgument(const std::string& argument, bool always) {
  if (!always && !argument.empty() && argument.find_first_of(" \t\"") == std::string::npos)
    return argument;
  std::string quoted = "\"";
  std::size_t backslashes = 0;
  for (const char c : argument) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    quoted.append(c == '"' ? 2 * backslashes + 1 : backslashes, '\\');
    quoted += c;
    backslashes = 0;
  }
  // Before the closing quote, backslashes are doubled so they stay literal.
  quoted.append(2 * backslashes, '\\');
  quoted += '"';
  return quoted;
}
