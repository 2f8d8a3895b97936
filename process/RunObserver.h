#pragma once
// RunObserver: what one run tells whoever follows it (the status line, the
// background packer) while its children run. The executor hands one observer
// to every generator and to runExtracta; the process layer calls nothing
// above it except through that object, and a run's counts begin at zero, so
// nothing of an earlier run in the same process shows.
//
// Every call comes on the polling thread. The default does nothing, so that an
// observer overrides only what it follows.

#include "views/ViewTypes.h"

class RunObserver {
 public:
  virtual ~RunObserver() = default;

  // A child waits for room in the pool.
  virtual void childQueued() {}
  // A child started; `fromQueue` when it had waited for room first.
  virtual void childStarted(bool /*fromQueue*/) {}
  // A child of the pool has started to write this view file, front to back.
  virtual void viewStarted(const ActiveView& /*view*/) {}
  // A child ended with exit code 0 and was reaped.
  virtual void childEnded() {}
  // The view file of a child of the pool is complete and will not change.
  virtual void viewFinished(const ActiveView& /*view*/) {}
  // The run entered a step after extraction ("merging connectivity").
  virtual void step(const char* /*name*/) {}
  // A wait made a pass and found nothing ended: the time moved on.
  virtual void waiting() {}
};
