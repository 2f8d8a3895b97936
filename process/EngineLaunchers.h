#pragma once
// The launchers ChooseLauncher picks from, one small class per engine, each
// made here from the environment: false with the reason (without the
// setting's name) when it cannot be used.

#include <memory>
#include <string>

#include "process/Launcher.h"

// This machine: the children start as they always did.
std::unique_ptr<Launcher> MakeLocalLauncher(const LaunchEnvironment& environment);

// Slurm: a job step per child (srun), inside an allocation.
std::unique_ptr<Launcher> MakeSlurmLauncher(const LaunchEnvironment& environment,
                                            std::string& error);

// LSF: a task per child (blaunch), inside a job.
std::unique_ptr<Launcher> MakeLsfLauncher(const LaunchEnvironment& environment, std::string& error);

// Grid Engine: a task per child (qrsh -inherit), inside a parallel job.
std::unique_ptr<Launcher> MakeGridEngineLauncher(const LaunchEnvironment& environment,
                                                 std::string& error);

// Any other value: a command prefix; "shell:" before it says that its program
// hands the command to a shell, which splits it again.
std::unique_ptr<Launcher> MakePrefixLauncher(const LaunchEnvironment& environment,
                                             const std::string& value, std::string& error);

// What an engine's job sets, or an error naming the variable that is missing.
bool RequireVariable(const LaunchEnvironment& environment, const char* name, const char* where,
                     std::string& value, std::string& error);

// The engine's own program found where children start from, or an error.
bool RequireProgram(const LaunchEnvironment& environment, const std::string& name,
                    std::string& path, std::string& error);
