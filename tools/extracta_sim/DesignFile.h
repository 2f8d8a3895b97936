#pragma once
// Read access to a design snapshot: the job record and the tables, one per
// view keyword, each with its header of field names and its record lines.
//
// The snapshot is mapped into memory and never copied; tables are located on
// demand, so a request for a small table near the front of a large design
// does not touch the records of the tables behind it.

#include <cstddef>
#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace extracta_sim {

class DesignError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A whole file in memory (mapped when it is a regular, non-empty file).
class MappedFile {
 public:
  // Throws DesignError with `what` and the system's reason when the file
  // cannot be opened or read.
  MappedFile(const std::string& path, const std::string& what);
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  std::string_view bytes() const { return {data_, size_}; }

 private:
  const char* data_ = nullptr;
  std::size_t size_ = 0;
  bool mapped_ = false;
  std::string copy_;  // used where mapping is not possible (pipes, empty files)
};

struct DesignTable {
  std::string keyword;
  std::vector<std::string_view> fields;  // header, in column order
  std::string_view records;              // the "S!" lines of the table, line ends included
  std::size_t recordsOffset = 0;         // offset of `records` in the file, for messages
};

class Design {
 public:
  // Reads the job record; throws DesignError when the text does not start
  // with one. `bytes` must outlive the Design.
  explicit Design(std::string_view bytes);

  // The job record's fields: name, date, x1, y1, x2, y2, accuracy, units,
  // title, accuracy with unit, layer count, database state.
  const std::vector<std::string_view>& job() const { return job_; }

  // The table for `keyword`, or nullptr when the design has none. Throws
  // DesignError when the part of the file it had to read is malformed.
  const DesignTable* findTable(std::string_view keyword);

 private:
  bool readNextTable();

  std::string_view bytes_;
  std::size_t cursor_ = 0;  // start of the first table not yet located
  std::vector<std::string_view> job_;
  std::deque<DesignTable> tables_;  // stable addresses for findTable's callers
};

// Splits the content of a record line after its "X!" tag: every field is
// followed by "!". Throws DesignError mentioning `offset` when the last
// field is not terminated.
std::vector<std::string_view> SplitRecordFields(std::string_view content, std::size_t offset);

}  // namespace extracta_sim
