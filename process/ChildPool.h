#pragma once
// ChildPool: the scheduling of the generator pool, apart from how a child is
// started or checked. At most `limit` children run; the others wait and start
// strictly first in, first out. Children are only reaped, and waiting ones only
// started, while some wait polls: single-threaded, no locks.
//
// Each running child holds a slot, 0 to limit - 1: a child starts on the
// lowest slot no running child holds, so that a launcher can place it (a
// slot is a CPU of a farm job's node). The pool knows nothing of where.
//
// The pool is a view onto queues that live elsewhere (the generators' process-
// wide ones, or a test's), holding non-owning pointers. A Child offers
//   void start(uint32_t slot);  starts its process on the slot; throws on failure
//   uint32_t slot() const;      the slot it was started on
//   bool checkFinished();       true while its process runs; throws when it failed
// and leaves both queues itself when it is destroyed.

#include <algorithm>
#include <cstdint>
#include <deque>

#include "core/Interrupt.h"

template <typename Child>
class ChildPool {
 public:
  using Queue = std::deque<Child*>;

  ChildPool(Queue& waiting, Queue& running, const uint32_t& limit)
      : waiting_(waiting), running_(running), limit_(limit) {}

  // Starts the child at once while fewer than the limit run, else queues it
  // at the back. A child whose start throws is left in neither queue.
  void startOrQueue(Child& child) {
    if (running_.size() < limit_) {
      Remove(waiting_, &child);
      child.start(FreeSlot());
      running_.push_back(&child);
    } else {
      waiting_.push_back(&child);
    }
  }

  // True while the child waits or its process runs. A child seen ended
  // leaves the running queue; one that failed throws and stays in it.
  bool busy(Child& child) {
    if (std::find(waiting_.begin(), waiting_.end(), &child) != waiting_.end()) return true;
    if (child.checkFinished()) return true;
    Remove(running_, &child);
    return false;
  }

  // One scheduling pass: reap every running child (the first failure ends the
  // pass), then start waiting ones while there is room.
  void pass() {
    const Queue running = running_;  // reaping changes the queue
    for (Child* child : running) busy(*child);
    while (!waiting_.empty() && running_.size() < limit_) startOrQueue(*waiting_.front());
  }

  // Polls until `stillBusy` returns false: a pass over the pool, then
  // `pause(running queue)` until something may have changed. Every wait goes
  // through here, so a child failing anywhere ends whichever wait is polling,
  // and an interrupt ends it before the next look.
  template <typename StillBusy, typename Pause>
  void waitWhile(StillBusy stillBusy, Pause pause) {
    for (;;) {
      ThrowIfInterrupted();
      if (!stillBusy()) return;
      pass();
      pause(static_cast<const Queue&>(running_));
    }
  }

  void leave(Child& child) {
    Remove(waiting_, &child);
    Remove(running_, &child);
  }

 private:
  uint32_t FreeSlot() const {
    for (uint32_t slot = 0;; ++slot) {
      const auto held = [slot](const Child* child) { return child->slot() == slot; };
      if (std::none_of(running_.begin(), running_.end(), held)) return slot;
    }
  }

  static void Remove(Queue& queue, Child* child) {
    queue.erase(std::remove(queue.begin(), queue.end(), child), queue.end());
  }

  Queue& waiting_;
  Queue& running_;
  const uint32_t& limit_;
};
