#include "reader/ExtractaViewGrammar.h"

#include <random>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "tests/support/TestSupport.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using Row = ExtractaViewData::Row;
using Rows = ExtractaViewData::Rows;
using namespace std::string_literals;

const std::string kName = "D:\\run\\nets.txt";

// Parses `text` into `data`; gives the failure message, or "" on success.
std::string parse(const std::string& text, ExtractaViewData& data) {
  try {
    parseViewText(text.data(), text.data() + text.size(), kName, data);
    return "";
  } catch (const ExtractaParserException& e) {
    return e.what();
  }
}

std::string failure(std::size_t records) {
  return kName + " parsing failed after successfully parsing the first " + std::to_string(records) +
         " S records";
}

std::string leftover(std::size_t records) {
  return kName + " parsing failed to parse whole file after successfully parsing the first " +
         std::to_string(records) + " S records";
}

TEST(ViewFileParser, SurveyFileGivesColumnsJRecordAndRows) {
  ExtractaViewData data;
  ASSERT_EQ(parse("A!NET_NAME!\r\nJ!x!\r\nS!GND!\r\nS!VCC!\r\n", data), "");
  // The "!" that ends each line leaves an empty last field, in the header too.
  EXPECT_THAT(data.columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));
  EXPECT_THAT(data.jRecord(), ElementsAre("x", ""));
  EXPECT_THAT(data.sRecords(), ElementsAre(ElementsAre("GND", ""), ElementsAre("VCC", "")));
}

TEST(ViewFileParser, FieldsKeepEveryByteExceptSeparatorsAndLineEnds) {
  ExtractaViewData data;
  const std::string text = "A!a!!b\r\nJ! PKG TOP !\r\n"s +
                           "S!cr\rin!lf\nin!\r!\n\r\n" +  // lone CR and LF are text
                           "S!x\r\r\nS!\r\n" +            // CR before the line end
                           "S!nul\0byte!\xff\x80!\r\n"s;  // any byte, NUL included
  ASSERT_EQ(parse(text, data), "");
  EXPECT_THAT(data.columns(), ElementsAre(Pair("", 1u), Pair("a", 0u), Pair("b", 2u)));
  EXPECT_THAT(data.jRecord(), ElementsAre(" PKG TOP ", ""));
  EXPECT_THAT(data.sRecords(),
              ElementsAre(ElementsAre("cr\rin", "lf\nin", "\r", "\n"), ElementsAre("x\r"),
                          ElementsAre(""), ElementsAre("nul\0byte"s, "\xff\x80", "")));
}

TEST(ViewFileParser, RecordLayoutsThatParse) {
  ExtractaViewData noRows;
  EXPECT_EQ(parse("A!NET_NAME!\r\nJ!x!\r\n", noRows), "");
  EXPECT_THAT(noRows.sRecords(), IsEmpty());
  EXPECT_THAT(noRows.jRecord(), ElementsAre("x", ""));

  ExtractaViewData noFinalLineEnd;
  EXPECT_EQ(parse("A!a\r\nJ!b", noFinalLineEnd), "");
  EXPECT_THAT(noFinalLineEnd.columns(), ElementsAre(Pair("a", 0u)));
  EXPECT_THAT(noFinalLineEnd.jRecord(), ElementsAre("b"));

  ExtractaViewData blankLines;
  EXPECT_EQ(parse("A!a!\r\n\r\n\r\nJ!b!\r\n\r\nS!1!\r\n\r\n\r\nS!2\r\n\r\n", blankLines), "");
  EXPECT_THAT(blankLines.jRecord(), ElementsAre("b", ""));
  EXPECT_THAT(blankLines.sRecords(), ElementsAre(ElementsAre("1", ""), ElementsAre("2")));
}

TEST(ViewFileParser, FailuresCountTheRowsReadAndKeepWhatWasStored) {
  ExtractaViewData empty;
  EXPECT_EQ(parse("", empty), failure(0));
  EXPECT_THAT(empty.columns(), IsEmpty());

  ExtractaViewData noHeader;
  EXPECT_EQ(parse("J!x!\r\nS!GND!\r\n", noHeader), failure(0));
  EXPECT_EQ(parse("A", noHeader), failure(0));

  // The header was stored before the J record turned out to be missing.
  ExtractaViewData noJRecord;
  EXPECT_EQ(parse("A!NET_NAME!\r\nS!GND!\r\n", noJRecord), failure(0));
  EXPECT_THAT(noJRecord.columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));
  EXPECT_THAT(noJRecord.jRecord(), IsEmpty());

  // Without CR the whole file is one header line, and no J record follows.
  ExtractaViewData lfOnly;
  EXPECT_EQ(parse("A!NET_NAME!\nJ!x!\nS!GND!\n", lfOnly), failure(0));
  EXPECT_THAT(lfOnly.columns(), ElementsAre(Pair("\n", 5u), Pair("\nJ", 1u), Pair("\nS", 3u),
                                            Pair("GND", 4u), Pair("NET_NAME", 0u), Pair("x", 2u)));

  // A record that is not an S record ends the rows; the rows before it stay.
  ExtractaViewData stray;
  EXPECT_EQ(parse("A!N!\r\nJ!x!\r\nS!a!\r\nS!b!\r\n\r\nS!c!\r\nT!d!\r\nS!e!\r\n", stray),
            leftover(3));
  EXPECT_THAT(stray.jRecord(), ElementsAre("x", ""));
  EXPECT_THAT(stray.sRecords(),
              ElementsAre(ElementsAre("a", ""), ElementsAre("b", ""), ElementsAre("c", "")));

  ExtractaViewData strayAfterJ;
  EXPECT_EQ(parse("A!N!\r\nJ!x!\r\nS", strayAfterJ), leftover(0));
  ExtractaViewData lfAfterRows;
  EXPECT_EQ(parse("A!N!\r\nJ!x!\r\nS!a!\r\n\n", lfAfterRows), leftover(1));
}

TEST(ViewFileParser, TableWithRowsRefusesASecondFile) {
  ExtractaViewData data;
  ASSERT_EQ(parse("A!NET_NAME!\r\nJ!first!\r\nS!GND!\r\n", data), "");
  EXPECT_EQ(parse("A!REFDES!\r\nJ!second!\r\nS!U1!\r\n", data),
            "View Data: Cannot add header information after data has been bound.");
  EXPECT_THAT(data.columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));
  EXPECT_THAT(data.jRecord(), ElementsAre("first", ""));
  EXPECT_THAT(data.sRecords(), ElementsAre(ElementsAre("GND", "")));
}

TEST(ViewFileParser, ReadsFilesInBinaryAndNamesThemInMessages) {
  veltest::TempDir dir;
  const std::string path = dir / "conn pieces ü.txt";
  veltest::WriteFile(path, "A!NET_NAME!\r\nJ!x\r\n\r\nS!\0\xff\r!\r\n"s);
  ExtractaViewData data;
  readViewFile(path, data);
  EXPECT_THAT(data.sRecords(), ElementsAre(ElementsAre("\0\xff\r"s, "")));

  const auto messageOf = [](const std::string& file) -> std::string {
    ExtractaViewData table;
    try {
      readViewFile(file, table);
      return "";
    } catch (const ExtractaParserException& e) {
      return e.what();
    }
  };
  EXPECT_EQ(messageOf(dir / "missing.txt"), "Could not open file: " + (dir / "missing.txt"));
  EXPECT_EQ(messageOf(dir.path()), "Could not open file: " + dir.path());
  const std::string empty = dir / "empty.txt";
  veltest::WriteFile(empty, "");
  EXPECT_EQ(messageOf(empty),
            empty + " parsing failed after successfully parsing the first 0 S records");
}

// Any table whose fields hold neither "!" nor a CR LF pair survives being
// written as a view file and read back, whatever other bytes the fields hold
// and however many blank lines sit between the records.
TEST(ViewFileParser, WrittenTablesReadBackUnchanged) {
  std::mt19937 random(4242);
  const std::string alphabet = "GNDVCC_09 \r\n\t\"'/<>\xff\x80\0"s;
  const auto pick = [&](int below) { return static_cast<int>(random() % below); };
  const auto field = [&] {
    std::string text;
    for (int n = pick(8); n > 0; --n) {
      const char c = alphabet[pick(static_cast<int>(alphabet.size()))];
      if (c == '\n' && !text.empty() && text.back() == '\r') continue;
      text += c;
    }
    return text;
  };
  const auto fields = [&](int atLeast) {
    Row row(atLeast + pick(4));
    for (std::string& text : row) text = field();
    return row;
  };
  // A record's last field takes a trailing CR into its text, which the CR of
  // the line end then follows.
  const auto record = [&](const char* kind, const Row& row) {
    std::string text = kind;
    for (std::size_t i = 0; i < row.size(); ++i) text += (i ? "!" : "") + row[i];
    text += "\r\n";
    for (int n = pick(3) == 0 ? pick(3) : 0; n > 0; --n) text += "\r\n";
    return text;
  };

  veltest::TempDir dir;
  for (int round = 0; round < 200; ++round) {
    Row header{"NET_NAME"};
    for (int i = pick(3); i > 0; --i) header.push_back("F" + std::to_string(i));
    const Row jRecord = fields(1);
    Rows rows(pick(20));
    for (Row& row : rows) row = fields(1);

    std::string text = record("A!", header) + record("J!", jRecord);
    for (const Row& row : rows) text += record("S!", row);
    const std::string path = dir / "view.txt";
    veltest::WriteFile(path, text);

    ExtractaViewData data;
    readViewFile(path, data);
    ASSERT_EQ(data.jRecord(), jRecord) << "round " << round;
    ASSERT_EQ(data.sRecords(), rows) << "round " << round;
    for (std::size_t i = 0; i < header.size(); ++i) ASSERT_EQ(data.columnIndex(header[i]), i);
  }
}

TEST(ViewFileParser, MillionRecordSurveyParsesWhole) {
  std::string text = "A!NET_NAME!\r\nJ!pkg_top.mcm!\r\n";
  const std::size_t records = 1000000;
  for (std::size_t i = 0; i < records; ++i) {
    text += i % 3 ? "S!GND!\r\n" : "S!NET_" + std::to_string(i) + "!\r\n";
  }
  ExtractaViewData data;
  ASSERT_EQ(parse(text, data), "");
  ASSERT_EQ(data.sRecords().size(), records);
  EXPECT_THAT(data.sRecords()[999999], ElementsAre("NET_999999", ""));
  EXPECT_THAT(data.sRecords()[999998], ElementsAre("GND", ""));
}

}  // namespace
