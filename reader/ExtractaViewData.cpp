#include "reader/ExtractaViewData.h"

#include "core/ExtractaParserException.h"

void ExtractaViewData::addColumns(const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (!sRecords_.empty()) {
      throw ExtractaParserException(
          "View Data: Cannot add header information after data has been bound.");
    }
    // Read the size before the name goes in: a repeated name is not a new
    // entry, so it takes the count of distinct names seen so far.
    const auto index = static_cast<uint32_t>(columns_.size());
    columns_[name] = index;
  }
}

void ExtractaViewData::setJRecord(Row& fields) { jRecord_.swap(fields); }

void ExtractaViewData::setSRecords(Rows& rows) { sRecords_.swap(rows); }

uint32_t ExtractaViewData::columnIndex(const std::string& name) const {
  const auto found = columns_.find(name);
  return found == columns_.end() ? kNoColumn : found->second;
}
