#include "executor/SurveyCount.h"

#include <algorithm>
#include <chrono>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "core/VelDebug.h"

namespace {

constexpr std::size_t kBlockBytes = 1 << 20;
// What one look reads at most: a few milliseconds of parsing.
constexpr std::size_t kFollowBudget = 4 << 20;
// Between two looks that found nothing new: short, so that little is left
// to count when the child ends.
constexpr int kLookMilliseconds = 2;

}  // namespace

SurveyCounter::SurveyCounter(std::string path, NetRecordCounts& counts)
    : path_(std::move(path)), counts_(counts), block_(kBlockBytes) {
  restart();
}

SurveyCounter::~SurveyCounter() { stopFollowing(); }

void SurveyCounter::followAlongside() {
  following_ = std::thread([this] {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      lock.unlock();
      const bool more = follow();
      lock.lock();
      if (!more) stop_.wait_for(lock, std::chrono::milliseconds(kLookMilliseconds));
    }
  });
}

void SurveyCounter::stopFollowing() {
  if (!following_.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  stop_.notify_all();
  following_.join();
}

void SurveyCounter::restart() {
  counts_.clear();
  netColumn_ = ExtractaViewData::kNoColumn;
  shortRecord_ = 0;
  scanner_ = std::make_unique<ViewFileScanner>(
      path_, [this](const ExtractaViewData::Row& record) { count(record); });
}

void SurveyCounter::count(const ExtractaViewData::Row& record) {
  // The header has been read by the time the first record arrives.
  if (scanner_->records() == 1) netColumn_ = scanner_->header().columnIndex("NET_NAME");
  if (netColumn_ < record.size())
    counts_.add(record[netColumn_]);
  else if (shortRecord_ == 0)
    shortRecord_ = scanner_->records();
}

// Reads and counts up to `budget` bytes; false once the end written so far
// is reached, a read failed or the text failed.
bool SurveyCounter::readOn(std::size_t budget) {
  while (budget > 0) {
    const int64_t got = file_.Read(block_.data(), std::min(block_.size(), budget));
    if (got < 0) {
      unreadable_ = true;
      return false;
    }
    if (got == 0) return false;
    bytesRead_ += static_cast<uint64_t>(got);
    try {
      scanner_->feed(block_.data(), static_cast<std::size_t>(got));
    } catch (const ExtractaParserException&) {
      held_ = std::current_exception();
      return false;
    }
    budget -= static_cast<std::size_t>(got);
  }
  return true;
}

bool SurveyCounter::follow() {
  if (held_ || unreadable_) return false;
  // Until the child has created it, there is nothing to read.
  if (!opened_ && !(opened_ = file_.Open(AString(path_)))) return false;
  return readOn(kFollowBudget);
}

bool SurveyCounter::followedTheFileAtThePath() const {
  VeltFileId followed, there;
  return file_.Identify(followed) && VeltFileIdentity(AString(path_), there) &&
         followed.SameFile(there) && bytesRead_ == there.size;
}

uint64_t SurveyCounter::finish() {
  stopFollowing();
  while (opened_ && !held_ && !unreadable_ && readOn(kFollowBudget)) {
  }
  // An extracta may write the survey elsewhere and rename it into place once
  // done: what was followed is then another file (or a placeholder), and
  // the counts are those of the file at the path now, all of it.
  if (opened_ && !followedTheFileAtThePath()) {
    VelDebug(1, L"*SurveyCounter: %s was replaced while it was followed: counted anew\n",
             AString(path_).c_str());
    held_ = nullptr;
    opened_ = false;
  }
  if (held_) std::rethrow_exception(held_);
  if (opened_ && !unreadable_) {
    scanner_->finish();
  } else {
    // Read the finished file from its start, so that a file that cannot be
    // opened or read fails with the reader's own words.
    restart();
    scanViewFile(path_, *scanner_);
  }

  // A survey without the column is a broken survey, whether or not it found
  // records: its nets cannot be told apart.
  if (scanner_->header().columnIndex("NET_NAME") == ExtractaViewData::kNoColumn)
    throw ExtractaParserException("connectivity survey " + path_ + " has no NET_NAME column");
  if (shortRecord_ != 0) {
    throw ExtractaParserException("connectivity survey " + path_ + " record " +
                                  std::to_string(shortRecord_) + " has no NET_NAME field");
  }
  return scanner_->records();
}

uint64_t CountSurvey(const std::string& path, NetRecordCounts& counts) {
  return SurveyCounter(path, counts).finish();
}
