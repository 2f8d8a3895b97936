#pragma once
// ViewFileScanner: reads a view file record by record, through the same field
// list as readViewFile, and hands each S record to a callback instead of
// keeping it. Memory then depends on the longest record, not on the file: the
// connectivity survey of a large design lists tens of millions of records,
// of which the split needs only a count per net.
//
// The text may arrive in pieces of any size (a file read in blocks, or one
// that its writer is still extending): complete records are parsed as soon
// as they are there, and the rest waits for the next piece. For every text,
// whatever its pieces, the records handed over, the header and any failure
// message are exactly those readViewFile gives for the whole text.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reader/ExtractaViewData.h"

class ViewFileScanner {
 public:
  using RecordHandler = std::function<void(const ExtractaViewData::Row&)>;

  // `name` begins the failure messages (the file's path, as readViewFile).
  ViewFileScanner(std::string name, RecordHandler onRecord);
  ~ViewFileScanner();
  ViewFileScanner(const ViewFileScanner&) = delete;
  ViewFileScanner& operator=(const ViewFileScanner&) = delete;

  // Takes the next bytes of the text. Throws ExtractaParserException as soon
  // as the text already read can no longer be a view file.
  void feed(const char* data, std::size_t size);
  // The text is complete: parses what is left, or throws.
  void finish();

  // The header's columns and the J record, once they have been read.
  const ExtractaViewData& header() const { return header_; }
  uint64_t records() const { return records_; }

 private:
  struct Grammar;

  // Parses [buffer_ + begin_, buffer_ + end), which ends where records end
  // (or at the end of the text): all of it must be records.
  void parse(std::size_t end);
  [[noreturn]] void fail(bool headerRead) const;
  void onHeader(const ExtractaViewData::Row& names);
  void onJRecord(const ExtractaViewData::Row& fields);
  void onRecord(const ExtractaViewData::Row& fields);

  std::string name_;
  RecordHandler onRecord_;
  std::unique_ptr<Grammar> grammar_;
  ExtractaViewData header_;
  bool headerRead_ = false;
  uint64_t records_ = 0;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;     // the first byte not parsed yet
  std::size_t searched_ = 0;  // bytes before it looked at for record ends
  int headerEnds_ = 0;        // record ends seen before the header was read
};

// Reads the file at `path` (narrow text) in blocks through `scanner` and
// finishes it. Throws ExtractaParserException as readViewFile does.
void scanViewFile(const std::string& path, ViewFileScanner& scanner);
