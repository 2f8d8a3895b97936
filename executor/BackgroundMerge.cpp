#include "executor/BackgroundMerge.h"

#include "core/ExtractaParserException.h"

BackgroundMerge::BackgroundMerge(const AString& combinedPath, std::string failurePrefix,
                                 ConnectivityMerge::Bodies bodies)
    : merge_(combinedPath, bodies),
      failurePrefix_(std::move(failurePrefix)),
      thread_([this] { work(); }) {}

BackgroundMerge::~BackgroundMerge() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    pieces_.clear();
  }
  wake_.notify_all();
  thread_.join();
}

void BackgroundMerge::add(const AString& piecePath) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pieces_.push_back(piecePath);
  }
  wake_.notify_one();
}

void BackgroundMerge::throwIfFailed() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (failed_) throw ExtractaParserException(failurePrefix_ + failure_);
}

bool BackgroundMerge::settle() {
  std::unique_lock<std::mutex> lock(mutex_);
  settled_.wait(lock, [this] { return failed_ || (pieces_.empty() && !busy_); });
  return failed_;
}

void BackgroundMerge::finish() {
  settle();
  throwIfFailed();
}

void BackgroundMerge::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !pieces_.empty(); });
    if (stopping_) return;
    const AString piece = pieces_.front();
    pieces_.pop_front();
    busy_ = true;
    lock.unlock();
    bool pieceFailed = false;
    std::string failure;
    try {
      merge_.add(piece);
    } catch (const std::exception& error) {
      pieceFailed = true;
      failure = error.what();
    }
    lock.lock();
    busy_ = false;
    if (pieceFailed) {
      // Nothing after a failed piece is merged: the run fails with it.
      failed_ = true;
      failure_ = failure;
      pieces_.clear();
    }
    if (failed_ || pieces_.empty()) settled_.notify_all();
  }
}
