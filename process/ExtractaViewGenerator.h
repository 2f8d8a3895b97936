#pragma once
// ExtractaViewGenerator: one extracta child process for one view request. It
// writes a one-view control file into the run's working directory, starts
// extracta on it (or queues itself while the pool is full), gathers what the
// child prints, and on request waits until the child has ended. A child that
// exits non-zero becomes an ExtractaParserException carrying what it printed.
// Dropping a generator whose child still runs ends the child's process tree.
//
// The pool is process-wide and single-threaded: children are reaped, and
// queued generators started in first-in first-out order, only while some wait
// polls (ChildPool schedules; ExtractaCommandLine forms the arguments).

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "process/ChildPool.h"
#include "process/Launcher.h"
#include "process/RunObserver.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

class ExtractaViewGenerator {
 public:
  // Writes the control file, then starts the child or queues the generator.
  // Throws ExtractaParserException on failure. `observer` (may be null) is
  // told of this child's start and end and of its finished view file;
  // `launcher` (null: this machine) starts the child on its slot.
  ExtractaViewGenerator(const LongFileName& designFile, const ExtractaViewDef& viewDef,
                        const LongFileName& workingDir, bool generatorOption, const AString& name,
                        RunObserver* observer = nullptr, const Launcher* launcher = nullptr);
  ~ExtractaViewGenerator();
  ExtractaViewGenerator(const ExtractaViewGenerator&) = delete;
  ExtractaViewGenerator& operator=(const ExtractaViewGenerator&) = delete;

  // Blocks until this generator is neither queued nor running, driving the
  // pool meanwhile; returns the view type and the path of the view file.
  // `check` (if any) runs on this thread after every look at the children and
  // ends the wait by throwing; it must be quick.
  ActiveView waitForViewFile(const std::function<void()>& check = nullptr);

  // Runs one extracta on a multi-view control file written by the caller and
  // waits for it, outside the pool. `views` names the output files in the
  // order of the control file's blocks. Throws on failure.
  static void runExtracta(const LongFileName& designFile, const LongFileName& controlFile,
                          bool generatorOption, const std::vector<ActiveView>& views,
                          const LongFileName& workingDir, RunObserver* observer = nullptr,
                          const Launcher* launcher = nullptr);

  // The most children started through generators that run at once. Process-
  // wide like the queues below: the program's established interface has them.
  static uint32_t maxConcurrentExtractas;
  // Half the hardware threads, at least 1.
  static uint32_t ConcurrencyLimitFor(unsigned hardwareThreads);
  static uint32_t DefaultConcurrencyLimit();

  // For tests and diagnostics: the pool's queue lengths and this generator's
  // child (null while queued or after its child was reaped).
  static std::size_t runningCount() { return runningGenerators.size(); }
  static std::size_t waitingCount() { return waitingGenerators.size(); }
  VeltProcessHandle childProcess() const { return processHandle; }
  // The pool's slot the child runs on (while it runs).
  uint32_t slot() const { return slot_; }
  // Where the child writes its view file.
  AString outputPath() const { return outputFile.FilePath(); }

 private:
  friend class ChildPool<ExtractaViewGenerator>;
  using Pool = ChildPool<ExtractaViewGenerator>;
  static Pool pool() { return Pool(waitingGenerators, runningGenerators, maxConcurrentExtractas); }

  // Through the launcher (if any) on the slot.
  static VeltProcessHandle StartChildProcess(const AString& executable,
                                             const std::vector<AString>& arguments,
                                             const LongFileName& workingDir,
                                             VeltPipeHandle pipeWriteEnd,
                                             const Launcher* launcher = nullptr, uint32_t slot = 0);
  static bool ProcessRunning(VeltProcessHandle handle, const AString& processName,
                             VeltPipeHandle readEnd, AString& output);
  static void runAndWait(const AString& executable, const std::vector<AString>& arguments,
                         const LongFileName& workingDir, RunObserver* observer,
                         const Launcher* launcher, ChildRun& run);

  void startOrQueue();
  // For the pool: starts this generator's child on the slot.
  void start(uint32_t slot);
  bool checkFinished();
  // Tells the observer once that the child ended, with its exit code.
  void reportEnd(int exitCode);

  // The pool: generators waiting for room, first in first out, and those
  // whose child was started and not yet reaped. Non-owning: a generator
  // leaves both when it is destroyed.
  static std::deque<ExtractaViewGenerator*> waitingGenerators;
  static std::deque<ExtractaViewGenerator*> runningGenerators;

  ViewType viewType;
  AString name;  // sanitised: letters, digits, "-" and "_" only
  LongFileName workingDir;
  LongFileName outputFile;
  VeltProcessHandle processHandle = nullptr;
  CPipe pipe;
  AString output;  // everything the child printed so far
  std::vector<AString> arguments;
  RunObserver* observer;
  const Launcher* launcher;
  uint32_t slot_ = 0;
  bool queued = false;  // waited for room before its child started
  ChildRun run_;        // what the observer is told of the child
  bool endReported_ = false;
};
