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

#include <cstdint>
#include <deque>
#include <vector>

#include "core/AString.h"
#include "core/LongFileName.h"
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
};
