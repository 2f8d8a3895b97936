#include "reader/ExtractaViewGrammar.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "tests/support/TestSupport.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
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

// The forms a view file can take, one by one; their combinations are the
// view file fuzz target's work, which holds the grammar to a plain reader
// written separately from the same format.
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
  ExtractaViewData survey;
  ASSERT_EQ(parse("A!NET_NAME!\r\nJ!x!\r\nS!GND!\r\nS!VCC!\r\n", survey), "");
  // The "!" that ends each line leaves an empty last field, in the header too.
  EXPECT_THAT(survey.columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));
  EXPECT_THAT(survey.jRecord(), ElementsAre("x", ""));
  EXPECT_THAT(survey.sRecords(), ElementsAre(ElementsAre("GND", ""), ElementsAre("VCC", "")));

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
  const struct {
    std::string text;
    std::string message;
  } cases[] = {
      {"", failure(0)},
      {"J!x!\r\nS!GND!\r\n", failure(0)},
      {"A", failure(0)},
      {"A!NET_NAME!\r\nS!GND!\r\n", failure(0)},
      {"A!NET_NAME!\nJ!x!\nS!GND!\n", failure(0)},
      {"A!N!\r\nJ!x!\r\nS!a!\r\nS!b!\r\n\r\nS!c!\r\nT!d!\r\nS!e!\r\n", leftover(3)},
      {"A!N!\r\nJ!x!\r\nS", leftover(0)},
      {"A!N!\r\nJ!x!\r\nS!a!\r\n\n", leftover(1)},
  };
  std::vector<ExtractaViewData> tables(std::size(cases));
  for (std::size_t i = 0; i < tables.size(); ++i)
    EXPECT_EQ(parse(cases[i].text, tables[i]), cases[i].message) << cases[i].text;
  EXPECT_THAT(tables[0].columns(), IsEmpty());

  // The header was stored before the J record turned out to be missing.
  EXPECT_THAT(tables[3].columns(), ElementsAre(Pair("", 1u), Pair("NET_NAME", 0u)));
  EXPECT_THAT(tables[3].jRecord(), IsEmpty());

  // Without CR the whole file is one header line, and no J record follows.
  EXPECT_THAT(tables[4].columns(),
              ElementsAre(Pair("\n", 5u), Pair("\nJ", 1u), Pair("\nS", 3u), Pair("GND", 4u),
                          Pair("NET_NAME", 0u), Pair("x", 2u)));

  // A record that is not an S record ends the rows; the rows before it stay.
  EXPECT_THAT(tables[5].jRecord(), ElementsAre("x", ""));
  EXPECT_THAT(tables[5].sRecords(),
              ElementsAre(ElementsAre("a", ""), ElementsAre("b", ""), ElementsAre("c", "")));
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
