#include "process/Launcher.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "core/AString.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "process/EngineLaunchers.h"

namespace {

std::string Trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::string();
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

std::string Setting(const char* name, const char* value) {
  return std::string(name) + "=" + value + ": ";
}

}  // namespace

std::string Launcher::slotHost(uint32_t slot) const {
  return slotHosts_.empty() ? std::string() : slotHosts_[slot % slotHosts_.size()];
}

void Launcher::setAllocation(const std::vector<HostSlots>& allocation) {
  slotHosts_ = SlotHosts(allocation);
  slots_ = static_cast<uint32_t>(std::min<std::size_t>(slotHosts_.size(), kMostSlots));
}

void Launcher::endLeftovers() const {
  const std::vector<std::string> command = leftoverCommand();
  if (command.empty()) return;
  std::vector<AString> argv{AString(command[0])};
  for (std::size_t i = 1; i < command.size(); ++i) argv.emplace_back(VeltQuoteArgument(command[i]));
  // What it prints is of no use to anybody; it goes through a pipe that is
  // read and dropped, so that it never reaches this program's streams.
  CPipe pipe;
  if (!pipe.CreatePipe()) return;
  VeltProcessHandle handle = nullptr;
  if (VeltCreateProcess(AString(), argv.data(), static_cast<int>(argv.size()), handle, AString(),
                        nullptr, nullptr, pipe.WriteHandle(), 0, false, true, true, nullptr) != 0)
    return;
  AString output;
  int code = kVeltStillActive;
  while (VeltGetProcessExitCode(handle, code) != 0 && code == kVeltStillActive) {
    VeltWaitForChildActivity({handle}, {pipe.ReadHandle()}, 100);
    drainPipe(pipe.ReadHandle(), output);
    output = AString();
  }
  VeltTerminateProcessTree(handle);
  VeltCloseProcessHandle(handle);
}

bool RequireVariable(const LaunchEnvironment& environment, const char* name, const char* where,
                     std::string& value, std::string& error) {
  const char* text = environment.variable(name);
  if (!text || !*text) {
    error = std::string("not inside ") + where + " (" + name + " is not set)";
    return false;
  }
  value = text;
  return true;
}

bool RequireProgram(const LaunchEnvironment& environment, const std::string& name,
                    std::string& path, std::string& error) {
  std::string reason;
  if (environment.program(name, path, reason)) return true;
  error = "cannot start " + name + ": " + reason;
  return false;
}

std::unique_ptr<Launcher> ChooseLauncher(const LaunchEnvironment& environment, std::string& error) {
  const char* launcherName = "VELTAR_EXTRACTA_LAUNCHER";
  const char* given = environment.variable(launcherName);
  const std::string value = Trimmed(given ? given : "");
  std::unique_ptr<Launcher> launcher;
  std::string reason;
  if (value.empty()) {
    launcher = MakeLocalLauncher(environment);
  } else if ((value == "slurm" || value == "lsf" || value == "sge") &&
             !environment.enginesAvailable) {
    reason =
        "a farm engine's launcher is started from Linux only; here, give a command prefix "
        "instead";
  } else if (value == "slurm") {
    launcher = MakeSlurmLauncher(environment, reason);
  } else if (value == "lsf") {
    launcher = MakeLsfLauncher(environment, reason);
  } else if (value == "sge") {
    launcher = MakeGridEngineLauncher(environment, reason);
  } else {
    launcher = MakePrefixLauncher(environment, value, reason);
  }
  if (!launcher) {
    error = Setting(launcherName, given) + reason;
    return nullptr;
  }

  const char* slotsName = "VELTAR_EXTRACTA_SLOTS";
  const char* slots = environment.variable(slotsName);
  if (slots && *slots) {
    uint32_t count = 0;
    if (!ReadSlotCount(slots, count, reason)) {
      error = Setting(slotsName, slots) + reason;
      return nullptr;
    }
    launcher->setSlots(count);
  }
  return launcher;
}

LaunchEnvironment ThisProcessLaunchEnvironment(uint32_t localSlots) {
  LaunchEnvironment environment;
  environment.variable = [](const char* name) { return std::getenv(name); };
  environment.readFile = [](const std::string& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    text = bytes.str();
    return static_cast<bool>(in) || in.eof();
  };
  environment.program = [](const std::string& name, std::string& path, std::string& reason) {
    AString found;
    const int error = VeltFindProgram(AString(name), found);
    if (error != 0) {
      reason = VeltFormatSystemMessage(error);
      return false;
    }
    path = VEL_ANSI(found);
    return true;
  };
  environment.localSlots = localSlots;
  environment.enginesAvailable = kVeltChildrenAskedToEnd;
  return environment;
}
