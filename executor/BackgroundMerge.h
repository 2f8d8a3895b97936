#pragma once
// BackgroundMerge: the connectivity merge on a thread of its own. The polling
// thread hands over each piece as its child ends and goes straight back to
// the children, so that a slot that frees is filled at once instead of after
// the piece has been copied. Pieces are merged strictly in the order given.

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "core/AString.h"
#include "executor/ConnectivityMerge.h"

class BackgroundMerge {
 public:
  // `failurePrefix` begins the text of every failure thrown.
  BackgroundMerge(const AString& combinedPath, std::string failurePrefix,
                  ConnectivityMerge::Bodies bodies = ConnectivityMerge::Bodies::kCopied);
  // Lets the piece being copied end and drops the pieces not begun.
  ~BackgroundMerge();
  BackgroundMerge(const BackgroundMerge&) = delete;
  BackgroundMerge& operator=(const BackgroundMerge&) = delete;

  // Queues a piece behind those given before.
  void add(const AString& piecePath);
  // Throws the merge's first failure, if there was one by now; never waits.
  void throwIfFailed();
  // Waits until every piece given has been merged or one has failed; true
  // when one failed (throwIfFailed then throws it).
  bool settle();
  // Waits as settle, then throws the first failure.
  void finish();

  // After finish.
  const ConnectivityMerge& merge() const { return merge_; }

 private:
  void work();

  ConnectivityMerge merge_;
  std::string failurePrefix_;
  std::mutex mutex_;
  std::condition_variable wake_;     // a piece or the end is there
  std::condition_variable settled_;  // the queue ran empty or failed
  std::deque<AString> pieces_;
  bool busy_ = false;  // a piece is being merged
  bool stopping_ = false;
  bool failed_ = false;
  std::string failure_;  // the failure's text, as ConnectivityMerge gave it
  std::thread thread_;
};
