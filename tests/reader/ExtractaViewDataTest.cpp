#include "reader/ExtractaViewData.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// That a header is refused once rows are bound is shown through the parser,
// with a second view file read into a filled table.

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using Row = ExtractaViewData::Row;
using Rows = ExtractaViewData::Rows;

TEST(ExtractaViewData, ColumnTakesTheCountOfDistinctNamesBeforeIt) {
  ExtractaViewData distinct;
  distinct.addColumns({"NET_NAME", ""});
  EXPECT_THAT(distinct.columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));

  // A repeated name moves on, and the names after it sit one below their
  // header position.
  ExtractaViewData repeated;
  repeated.addColumns({"A", "B", "A", "C"});
  EXPECT_THAT(repeated.columns(), ElementsAre(Pair("A", 2u), Pair("B", 1u), Pair("C", 2u)));

  // A second header continues from the number of names already entered.
  repeated.addColumns({"D", "B"});
  EXPECT_THAT(repeated.columns(),
              ElementsAre(Pair("A", 2u), Pair("B", 4u), Pair("C", 2u), Pair("D", 3u)));
}

TEST(ExtractaViewData, ColumnIndexNeverAddsTheName) {
  ExtractaViewData data;
  data.addColumns({"REFDES", "PIN_NUMBER"});
  EXPECT_EQ(data.columnIndex("PIN_NUMBER"), 1u);
  EXPECT_EQ(data.columnIndex("NET_NAME"), 0xFFFFFFFFu);
  EXPECT_EQ(data.columnIndex(""), 0xFFFFFFFFu);
  // Had the look-ups entered the names, this one would not get index 2.
  data.addColumns({"NET_NAME"});
  EXPECT_EQ(data.columnIndex("NET_NAME"), 2u);
}

TEST(ExtractaViewData, RecordsAreTakenOverByExchangeNotCopied) {
  ExtractaViewData data;
  Row jRecord{"pkg_top.mcm with a name too long for any small-string buffer"};
  const char* jText = jRecord[0].data();
  data.setJRecord(jRecord);
  EXPECT_TRUE(jRecord.empty());
  EXPECT_EQ(data.jRecord()[0].data(), jText);

  Row second{"second"};
  data.setJRecord(second);
  EXPECT_THAT(data.jRecord(), ElementsAre("second"));
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(second[0].data(), jText) << "the old J record should come back to the caller";

  Rows rows{{"VDD_CORE_WITH_A_LONG_NET_NAME", ""}, {"GND", ""}};
  const Row* firstRow = rows.data();
  data.setSRecords(rows);
  EXPECT_TRUE(rows.empty());
  EXPECT_EQ(data.sRecords().data(), firstRow);
  EXPECT_EQ(data.sRecords().size(), 2u);
}

}  // namespace
