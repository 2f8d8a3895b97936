#include "executor/SurveyCount.h"

#include "core/ExtractaParserException.h"
#include "reader/ViewFileScanner.h"

uint64_t CountSurvey(const std::string& path, NetRecordCounts& counts) {
  uint32_t netColumn = ExtractaViewData::kNoColumn;
  uint64_t shortRecord = 0;  // the first record without the field, from 1
  // The header has been read by the time the first record arrives.
  ViewFileScanner counting(path, [&](const ExtractaViewData::Row& record) {
    if (counting.records() == 1) netColumn = counting.header().columnIndex("NET_NAME");
    if (netColumn < record.size())
      counts.add(record[netColumn]);
    else if (shortRecord == 0)
      shortRecord = counting.records();
  });
  scanViewFile(path, counting);

  // A survey without the column is a broken survey, whether or not it found
  // records: its nets cannot be told apart.
  if (counting.header().columnIndex("NET_NAME") == ExtractaViewData::kNoColumn)
    throw ExtractaParserException("connectivity survey " + path + " has no NET_NAME column");
  if (shortRecord != 0) {
    throw ExtractaParserException("connectivity survey " + path + " record " +
                                  std::to_string(shortRecord) + " has no NET_NAME field");
  }
  return counting.records();
}
