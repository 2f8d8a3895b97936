#pragma once
// ExtractaViewData: the table of one view file that extracta wrote. The header
// names the columns, the J record describes the extraction, and every S record
// is one row. Rows are kept exactly as read, as lists of narrow field texts; a
// caller finds a field of a row through the column index of its name.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class ExtractaViewData {
 public:
  using Row = std::vector<std::string>;
  using Rows = std::vector<Row>;

  // The index columnIndex gives for a name that is not a column.
  static constexpr uint32_t kNoColumn = 0xFFFFFFFF;

  // Enters the header's field names. Each name gets the number of distinct
  // names entered before it, so a repeated name moves to a later index and the
  // names after it sit one below their header position; the survey run relies
  // on headers whose names are distinct. Throws ExtractaParserException, and
  // enters nothing, once rows have been stored.
  void addColumns(const std::vector<std::string>& names);

  // Take over the J record and the rows by exchange, so that a parser's
  // buffers move into the table without copying millions of strings; the
  // argument receives what the table held before.
  void setJRecord(Row& fields);
  void setSRecords(Rows& rows);

  // The index stored for `name`, or kNoColumn. Never adds the name.
  uint32_t columnIndex(const std::string& name) const;

  const std::map<std::string, uint32_t>& columns() const { return columns_; }
  const Rows& sRecords() const { return sRecords_; }
  const Row& jRecord() const { return jRecord_; }

 private:
  std::map<std::string, uint32_t> columns_;
  Rows sRecords_;
  Row jRecord_;
};
