// Grid Engine: every child a task of the parallel job on one of its hosts,
// started with "qrsh -inherit", at most as many on a host as the job's slots
// there; the pool is NSLOTS.
//
// qrsh -inherit hands its command to a shell on the host (bash -c), so every
// word is quoted for that shell and arrives whole. It passes this process's
// environment (-V) and directory (-cwd), as a child on this machine gets
// them. A qrsh that is killed has its task ended by the host's daemon; a
// signal passed on to the task would count as the task's failure, which
// makes the engine end the whole job, so none is sent.

#include "process/EngineLaunchers.h"

namespace {

class GridEngineLauncher final : public Launcher {
 public:
  GridEngineLauncher(std::string qrsh, const std::vector<HostSlots>& allocation)
      : qrsh_(std::move(qrsh)) {
    setAllocation(allocation);
  }

  const char* kind() const override { return "sge"; }

  std::vector<std::string> commandOn(uint32_t slot,
                                     const std::vector<std::string>& command) const override {
    std::vector<std::string> words{qrsh_, "-inherit", "-V", "-cwd", slotHost(slot)};
    for (const std::string& word : command) words.push_back(ShellQuoted(word));
    return words;
  }

 private:
  std::string qrsh_;
};

}  // namespace

std::unique_ptr<Launcher> MakeGridEngineLauncher(const LaunchEnvironment& environment,
                                                 std::string& error) {
  const char* where = "a Grid Engine parallel job";
  std::string job, hostFile, qrsh, text, reason;
  if (!RequireVariable(environment, "JOB_ID", where, job, error) ||
      !RequireVariable(environment, "PE_HOSTFILE", where, hostFile, error))
    return nullptr;
  std::vector<HostSlots> allocation;
  if (!environment.readFile(hostFile, text)) {
    error = "the host file " + hostFile + " (PE_HOSTFILE) cannot be read";
    return nullptr;
  }
  if (!ReadPeHostFile(text, allocation, reason)) {
    error = "the host file " + hostFile + " cannot be read: " + reason;
    return nullptr;
  }
  if (allocation.empty()) {
    error = "the job holds no slot";
    return nullptr;
  }
  if (!RequireProgram(environment, "qrsh", qrsh, error)) return nullptr;
  auto launcher = std::make_unique<GridEngineLauncher>(qrsh, allocation);
  // NSLOTS is what the job was granted; the host file never says more.
  const char* granted = environment.variable("NSLOTS");
  uint32_t slots = 0;
  if (granted && ReadSlotCount(granted, slots, reason) && slots < launcher->slots())
    launcher->setSlots(slots);
  return launcher;
}
