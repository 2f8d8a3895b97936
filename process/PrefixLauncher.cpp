// Children on this machine, and children behind a site's command prefix.

#include "process/EngineLaunchers.h"

namespace {

// Marks a prefix whose program hands the command to a shell that splits it
// again (ssh, a wrapper that runs "sh -c"): each word is then quoted for it.
constexpr char kShellMark[] = "shell:";

class LocalLauncher final : public Launcher {
 public:
  explicit LocalLauncher(uint32_t slots) { setLocalSlots(slots); }
  const char* kind() const override { return ""; }
  std::vector<std::string> commandOn(uint32_t,
                                     const std::vector<std::string>& command) const override {
    return command;
  }
};

class PrefixLauncher final : public Launcher {
 public:
  PrefixLauncher(std::vector<std::string> words, bool throughShell, uint32_t slots)
      : words_(std::move(words)), throughShell_(throughShell) {
    setLocalSlots(slots);
  }

  const char* kind() const override { return "prefix"; }

  std::vector<std::string> commandOn(uint32_t,
                                     const std::vector<std::string>& command) const override {
    std::vector<std::string> words = words_;
    for (const std::string& word : command)
      words.push_back(throughShell_ ? ShellQuoted(word) : word);
    return words;
  }

 private:
  std::vector<std::string> words_;
  bool throughShell_;
};

}  // namespace

std::unique_ptr<Launcher> MakeLocalLauncher(const LaunchEnvironment& environment) {
  return std::make_unique<LocalLauncher>(environment.localSlots);
}

std::unique_ptr<Launcher> MakePrefixLauncher(const LaunchEnvironment& environment,
                                             const std::string& value, std::string& error) {
  std::string prefix = value;
  const bool throughShell = prefix.compare(0, sizeof kShellMark - 1, kShellMark) == 0;
  if (throughShell) prefix.erase(0, sizeof kShellMark - 1);
  std::vector<std::string> words;
  std::string reason;
  if (!SplitShellWords(prefix, words, reason)) {
    error = "cannot be split into words: " + reason;
    return nullptr;
  }
  if (words.empty()) {
    error = "names no program";
    return nullptr;
  }
  // Started by its full path, so that what was checked is what runs.
  std::string program;
  if (!RequireProgram(environment, words[0], program, error)) return nullptr;
  words[0] = program;
  return std::make_unique<PrefixLauncher>(words, throughShell, environment.localSlots);
}
