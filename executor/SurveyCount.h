#pragma once
// The connectivity survey counted as it is read: record by record through
// the view file reader's own field list, keeping only a count per net, so
// that the program's memory follows the number of nets and not the size of
// the design (a large design's survey lists tens of millions of records).
//
// The survey can be counted while extracta still writes it: the complete
// records that have appeared are counted at each look, and the rest once the
// child has ended. extracta writes its view files front to back, so what has
// been read never changes; the outcome is that of reading the finished file.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/File.h"
#include "executor/ConnectivitySplit.h"
#include "reader/ViewFileScanner.h"

class SurveyCounter {
 public:
  // `path` is narrow text; the survey need not exist yet.
  SurveyCounter(std::string path, NetRecordCounts& counts);
  SurveyCounter(const SurveyCounter&) = delete;
  SurveyCounter& operator=(const SurveyCounter&) = delete;

  // Stops following, if it was started.
  ~SurveyCounter();

  // Counts what has been written since the last look, at most a few
  // megabytes. Never throws: a text that can no longer be a view file is held
  // for finish, because a failing child is reported before its file. True
  // when more was there than one look reads.
  bool follow();
  // Follows on a thread of its own, a look every few milliseconds, until
  // finish: the thread that watches the children does nothing slow.
  void followAlongside();
  // The child has ended with success: counts the rest and returns how many
  // records the survey holds. Fails as reading the whole table and then
  // counting it would: a text that is no view file with the reader's
  // message, then a survey without a NET_NAME column, then the first record
  // without the field. Whatever was counted before a failure is to be thrown
  // away.
  uint64_t finish();

 private:
  void stopFollowing();
  void restart();
  void count(const ExtractaViewData::Row& record);
  bool readOn(std::size_t budget);
  // The file followed is the one at the path now, and was read to its end.
  bool followedTheFileAtThePath() const;

  std::string path_;
  NetRecordCounts& counts_;
  std::unique_ptr<ViewFileScanner> scanner_;
  VeltInputFile file_;
  std::vector<char> block_;
  bool opened_ = false;
  uint64_t bytesRead_ = 0;
  bool unreadable_ = false;  // a read failed: the finished file is read anew
  std::exception_ptr held_;
  std::thread following_;
  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
  uint32_t netColumn_ = ExtractaViewData::kNoColumn;
  uint64_t shortRecord_ = 0;  // the first record without the field, from 1
};

// Reads the finished survey at `path` (narrow text) into `counts`; see
// SurveyCounter::finish.
uint64_t CountSurvey(const std::string& path, NetRecordCounts& counts);
