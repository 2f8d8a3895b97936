#pragma once
// Launcher: how each extracta child is started. By default on this machine,
// as always. Inside a farm job, through the farm engine's own launcher onto a
// slot of the job's allocation, as MPI launchers start their tasks: a Slurm
// job step (srun), an LSF task (blaunch), a Grid Engine task (qrsh -inherit);
// the engine counts and ends every task, and no ssh is involved. Or behind a
// site's command prefix (a wrapper script, "bsub -K -q short").
//
// Chosen once at start from VELTAR_EXTRACTA_LAUNCHER and
// VELTAR_EXTRACTA_SLOTS. The pool counts slots and knows no engine: it gives
// each child the lowest slot no running child holds; the launcher says on
// which host that slot lies and which command starts the child there.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "process/FarmAllocation.h"

class Launcher {
 public:
  virtual ~Launcher() = default;

  // How many children run at once.
  uint32_t slots() const { return slots_; }
  // The host a slot lies on; empty where the launcher does not choose one
  // (this machine, a prefix).
  std::string slotHost(uint32_t slot) const;
  // "slurm", "lsf", "sge", "prefix", or "" for this machine.
  virtual const char* kind() const = 0;
  // The command that starts `command` (the program's full path, then the
  // arguments exactly as the child is to get them) on the slot: the engine's
  // launcher and its words, then the command. Not asked on this machine.
  virtual std::vector<std::string> commandOn(uint32_t slot,
                                             const std::vector<std::string>& command) const = 0;
  // The signal that asks the launcher's process to end its task through the
  // engine before it is killed; 0: it is killed at once.
  virtual int endSignal() const { return 0; }

  // A command (full path first) that ends, through the engine, whatever of
  // this run's tasks the engine still holds once their launchers are gone;
  // empty where nothing can be left. The watchdog runs it when the program
  // dies; endLeftovers runs it after a run that ended its children early.
  virtual std::vector<std::string> leftoverCommand() const { return {}; }
  // Runs the leftover command and waits for it (it bounds its own time).
  void endLeftovers() const;

  // VELTAR_EXTRACTA_SLOTS given: so many run at once, spread over the
  // allocation's hosts in turn (beyond its slots when it asks for more).
  void setSlots(uint32_t slots) { slots_ = slots; }

 protected:
  // The job's hosts and their slots; the slot count becomes their sum.
  void setAllocation(const std::vector<HostSlots>& allocation);
  void setLocalSlots(uint32_t slots) { slots_ = slots; }

 private:
  uint32_t slots_ = 1;
  std::vector<std::string> slotHosts_;  // the host of each slot of the allocation
};

// What choosing a launcher reads of the world, so that it can be tried with
// any allocation: a variable's value (null when unset), a file's text (false
// when it cannot be read), whether a program can be started (its full path,
// or false with the system's reason), and the slots of this machine.
struct LaunchEnvironment {
  std::function<const char*(const char*)> variable;
  std::function<bool(const std::string& path, std::string& text)> readFile;
  std::function<bool(const std::string& program, std::string& path, std::string& reason)> program;
  uint32_t localSlots = 1;
  bool enginesAvailable = true;  // false where farm engines cannot be driven
};

// The launcher VELTAR_EXTRACTA_LAUNCHER and VELTAR_EXTRACTA_SLOTS ask for, or
// null with one line in `error` that names the setting and says why it
// cannot be used.
std::unique_ptr<Launcher> ChooseLauncher(const LaunchEnvironment& environment, std::string& error);

// The environment of this process.
LaunchEnvironment ThisProcessLaunchEnvironment(uint32_t localSlots);
