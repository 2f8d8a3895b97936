// Slurm: every child a job step of one task on one CPU of the allocation,
// started with srun on the node of its slot.
//
// The steps overlap (--overlap): they never wait for CPUs another step holds,
// VelExtracta's own among them when it was started as a step itself
// ("srun VelExtracta ..." inside sbatch), and the pool, not the controller,
// keeps each node to the CPUs the job holds there. --exact keeps a step to its
// one CPU.
//
// Ending: srun quits on one SIGINT and cancels its step through the
// controller (--quit-on-interrupt); a step cancelled that way is gone within a
// few tenths of a second. A killed srun often leaves its step running until
// the cluster's KillWait has passed (30 seconds by default). A step whose task
// was still being launched when it was cancelled may keep that task as long:
// such steps, found by the run's own step name, are sent SIGKILL through the
// controller afterwards, which ends them at once.

#include <csignal>
#include <random>
#include <sstream>

#include "process/EngineLaunchers.h"

namespace {

class SlurmLauncher final : public Launcher {
 public:
  SlurmLauncher(std::string srun, std::string squeue, std::string scancel, std::string job,
                const std::vector<HostSlots>& allocation)
      : srun_(std::move(srun)),
        squeue_(std::move(squeue)),
        scancel_(std::move(scancel)),
        job_(std::move(job)),
        stepName_(RunStepName()) {
    setAllocation(allocation);
  }

  const char* kind() const override { return "slurm"; }

  std::vector<std::string> commandOn(uint32_t slot,
                                     const std::vector<std::string>& command) const override {
    // srun runs the program itself, with no shell between: the arguments
    // arrive as they are. The child gets this process's environment, as it
    // would on this machine, whatever the site's default export is.
    std::vector<std::string> words{srun_,
                                   "--jobid=" + job_,
                                   "--nodes=1",
                                   "--ntasks=1",
                                   "--cpus-per-task=1",
                                   "--exact",
                                   "--overlap",
                                   "--nodelist=" + slotHost(slot),
                                   "--export=ALL",
                                   "--job-name=" + stepName_,
                                   "--quiet",
                                   "--quit-on-interrupt"};
    words.insert(words.end(), command.begin(), command.end());
    return words;
  }

  int endSignal() const override { return SIGINT; }

  std::vector<std::string> leftoverCommand() const override {
    // Every step of this run still listed is sent SIGKILL, again every
    // quarter of a second (a task that was not yet started misses it), for
    // three seconds at most.
    return {"/bin/sh",
            "-c",
            "for try in 1 2 3 4 5 6 7 8 9 10 11 12; do\n"
            "  steps=$(\"$1\" -h -s -j \"$3\" -o '%i %j' | awk -v name=\"$4\" '$2 == name {print "
            "$1}')\n"
            "  [ -z \"$steps\" ] && exit 0\n"
            "  \"$2\" -s KILL $steps\n"
            "  sleep 0.25\n"
            "done\n",
            "velextracta-leftovers",
            squeue_,
            scancel_,
            job_,
            stepName_};
  }

 private:
  // Names this run's steps apart from any other's in the same job (another
  // run, the job's own steps).
  static std::string RunStepName() {
    std::random_device random;
    std::ostringstream name;
    name << "extracta-" << std::hex << random() << random();
    return name.str();
  }

  std::string srun_, squeue_, scancel_;
  std::string job_;
  std::string stepName_;
};

}  // namespace

std::unique_ptr<Launcher> MakeSlurmLauncher(const LaunchEnvironment& environment,
                                            std::string& error) {
  const char* where = "a Slurm allocation";
  std::string job, nodes, cpus, srun;
  if (!RequireVariable(environment, "SLURM_JOB_ID", where, job, error) ||
      !RequireVariable(environment, "SLURM_JOB_NODELIST", where, nodes, error) ||
      !RequireVariable(environment, "SLURM_JOB_CPUS_PER_NODE", where, cpus, error))
    return nullptr;
  std::vector<HostSlots> allocation;
  std::string reason;
  if (!SlurmAllocation(nodes, cpus, allocation, reason)) {
    error = "the allocation cannot be read (SLURM_JOB_NODELIST=" + nodes +
            ", SLURM_JOB_CPUS_PER_NODE=" + cpus + "): " + reason;
    return nullptr;
  }
  std::string squeue, scancel;
  if (!RequireProgram(environment, "srun", srun, error) ||
      !RequireProgram(environment, "squeue", squeue, error) ||
      !RequireProgram(environment, "scancel", scancel, error))
    return nullptr;
  return std::make_unique<SlurmLauncher>(srun, squeue, scancel, job, allocation);
}
