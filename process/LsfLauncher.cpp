// LSF: every child a task of the job on one of its hosts, started with
// blaunch, at most as many on a host as the job holds there.
//
// blaunch hands its command to a shell on the host, so every word is quoted
// for that shell and arrives whole. Asked to end, blaunch passes the signal
// on to its task.

#include <csignal>

#include "process/EngineLaunchers.h"

namespace {

class LsfLauncher final : public Launcher {
 public:
  LsfLauncher(std::string blaunch, const std::vector<HostSlots>& allocation)
      : blaunch_(std::move(blaunch)) {
    setAllocation(allocation);
  }

  const char* kind() const override { return "lsf"; }

  std::vector<std::string> commandOn(uint32_t slot,
                                     const std::vector<std::string>& command) const override {
    std::vector<std::string> words{blaunch_, slotHost(slot)};
    for (const std::string& word : command) words.push_back(ShellQuoted(word));
    return words;
  }

  int endSignal() const override { return SIGTERM; }

 private:
  std::string blaunch_;
};

}  // namespace

std::unique_ptr<Launcher> MakeLsfLauncher(const LaunchEnvironment& environment,
                                          std::string& error) {
  std::string job, blaunch;
  if (!RequireVariable(environment, "LSB_JOBID", "an LSF job", job, error)) return nullptr;
  // The host list where the job has one; a large job has only the host file.
  std::vector<HostSlots> allocation;
  std::string reason;
  const char* hostList = environment.variable("LSB_MCPU_HOSTS");
  const char* hostFile = environment.variable("LSB_DJOB_HOSTFILE");
  if (hostList && *hostList) {
    if (!ReadLsfHostList(hostList, allocation, reason)) {
      error = "LSB_MCPU_HOSTS cannot be read: " + reason;
      return nullptr;
    }
  } else if (hostFile && *hostFile) {
    std::string text;
    if (!environment.readFile(hostFile, text)) {
      error = std::string("the host file ") + hostFile + " (LSB_DJOB_HOSTFILE) cannot be read";
      return nullptr;
    }
    if (!ReadLsfHostFile(text, allocation, reason)) {
      error = std::string("the host file ") + hostFile + " cannot be read: " + reason;
      return nullptr;
    }
  } else {
    error = "the job's hosts are not known (neither LSB_MCPU_HOSTS nor LSB_DJOB_HOSTFILE is set)";
    return nullptr;
  }
  if (allocation.empty()) {
    error = "the job holds no slot";
    return nullptr;
  }
  if (!RequireProgram(environment, "blaunch", blaunch, error)) return nullptr;
  return std::make_unique<LsfLauncher>(blaunch, allocation);
}
