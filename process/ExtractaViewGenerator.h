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
// polls.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "views/ExtractaViewDef.h"
#include "views/ViewTypes.h"

class ExtractaViewGenerator {
 public:
  // Writes the control file, then starts the child or queues the generator.
  // Throws ExtractaParserException on failure.
  ExtractaViewGenerator(const LongFileName& designFile, const ExtractaViewDef& viewDef,
                        const LongFileName& workingDir, bool generatorOption, const AString& name);
  ~ExtractaViewGenerator();
  ExtractaViewGenerator(const ExtractaViewGenerator&) = delete;
  ExtractaViewGenerator& operator=(const ExtractaViewGenerator&) = delete;

  // Blocks until this generator is neither queued nor running, driving the
  // pool meanwhile; returns the view type and the path of the view file.
  ActiveView waitForViewFile();

  // Runs one extracta on a multi-view control file written by the caller and
  // waits for it, outside the pool. `views` names the output files in the
  // order of the control file's blocks. Throws on failure.
  static void runExtracta(const LongFileName& designFile, const LongFileName& controlFile,
                          bool generatorOption, const std::vector<ActiveView>& views,
                          const LongFileName& workingDir);

  // The most children started through generators that run at once.
  static uint32_t maxConcurrentExtractas;
  // Half the hardware threads, at least 1.
  static uint32_t ConcurrencyLimitFor(unsigned hardwareThreads);
  static uint32_t DefaultConcurrencyLimit();

  // How far the children have got: those ended since the program began, those
  // running (in the pool or started by runExtracta) and those queued.
  struct PoolState {
    std::size_t ended = 0, running = 0, waiting = 0;
  };
  static PoolState poolState() {
    return PoolState{endedChildren, runningGenerators.size(), waitingGenerators.size()};
  }
  // Told the state after every pass of a wait and when a wait ends, so that
  // the caller can show progress; null when nobody listens.
  static std::function<void(const PoolState&)> observer;

  // Called on the polling thread with the view file of every child of the
  // pool that ended successfully, as soon as it is reaped; empty: nothing.
  static std::function<void(const ActiveView&)> viewFinished;

  // For tests and diagnostics: the pool's queue lengths and this generator's
  // child (null while queued or after its child was reaped).
  static std::size_t runningCount() { return runningGenerators.size(); }
  static std::size_t waitingCount() { return waitingGenerators.size(); }
  VeltProcessHandle childProcess() const { return processHandle; }

 private:
  static AString extractaExecutableName();
  static AString quotedPath(const LongFileName& file);
  static std::vector<AString> buildExtractaArguments(const LongFileName& first,
                                                     const LongFileName& second,
                                                     bool generatorOption,
                                                     const std::vector<LongFileName>& files);
  static VeltProcessHandle StartChildProcess(const AString& executable,
                                             const std::vector<AString>& arguments,
                                             const LongFileName& workingDir,
                                             VeltPipeHandle pipeWriteEnd);
  static bool ProcessRunning(VeltProcessHandle handle, const AString& processName,
                             VeltPipeHandle readEnd, AString& output);
  static void runAndWait(const AString& executable, const std::vector<AString>& arguments,
                         const LongFileName& workingDir);
  static void pollProcesses();
  static void tellObserver(std::size_t runningOutsidePool);

  void startOrQueue();
  bool checkFinished();
  void leaveQueues();

  // The pool: generators waiting for room, first in first out, and those
  // whose child was started and not yet reaped. Non-owning: a generator
  // leaves both when it is destroyed.
  static std::deque<ExtractaViewGenerator*> waitingGenerators;
  static std::deque<ExtractaViewGenerator*> runningGenerators;
  static std::size_t endedChildren;

  ViewType viewType;
  AString name;  // sanitised: letters, digits, "-" and "_" only
  LongFileName workingDir;
  LongFileName outputFile;
  VeltProcessHandle processHandle = nullptr;
  CPipe pipe;
  AString output;  // everything the child printed so far
  std::vector<AString> arguments;
};
