// The view file reader. Every form a view file can take is held to a plain
// reader written separately from the same format on the view file fuzz
// target's seeds (tests/replay); here: the messages of failures and of files
// that cannot be read, and the columns a header enters.

#include "reader/ExtractaViewGrammar.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "tests/support/TestSupport.h"

namespace {

using ::testing::ElementsAre;
using ::testing::Pair;
using ::testing::StartsWith;
using namespace std::string_literals;

// The failure message of reading `path` ("" on success).
std::string MessageOf(const std::string& path, ExtractaViewData& data) {
  try {
    readViewFile(path, data);
    return "";
  } catch (const ExtractaParserException& e) {
    return e.what();
  }
}

TEST(ViewFileParser, FailuresCountTheRowsReadAndNameTheFile) {
  veltest::TempDir dir;
  const std::string path = dir / "conn pieces ü.txt";
  const std::string failed = path + " parsing failed after successfully parsing the first ";
  const std::string partly = path +
                             " parsing failed to parse whole file after successfully "
                             "parsing the first ";
  const struct {
    std::string text, message;
  } cases[] = {
      {"A!NET_NAME!\r\nJ!x\r\n\r\nS!\0\xff\r!\r\n"s, ""},  // read in binary, every byte kept
      {"", failed + "0 S records"},
      {"A!NET_NAME!\r\nS!GND!\r\n", failed + "0 S records"},
      {"A!NET_NAME!\nJ!x!\nS!GND!\n", failed + "0 S records"},
      {"A!N!\r\nJ!x!\r\nS!a!\r\nS!b!\r\n\r\nS!c!\r\nT!d!\r\nS!e!\r\n", partly + "3 S records"},
      {"A!N!\r\nJ!x!\r\nS!a!\r\n\n", partly + "1 S records"},
  };
  for (const auto& c : cases) {
    veltest::WriteFile(path, c.text);
    ExtractaViewData data;
    EXPECT_EQ(MessageOf(path, data), c.message) << c.text;
    if (c.message.empty()) {
      EXPECT_THAT(data.sRecords(), ElementsAre(ElementsAre("\0\xff\r"s, "")));
    }
  }
  ExtractaViewData data;
  // The system's reason follows the path.
  for (const std::string& path : {dir / "missing.txt", dir.path()})
    EXPECT_THAT(MessageOf(path, data), StartsWith("Could not open file: " + path + " ("));
}

TEST(ViewFileParser, ColumnsTakeTheCountOfDistinctNamesBeforeThem) {
  // A repeated name moves on, and the names after it sit one below their
  // header position; a second header continues from the names entered.
  ExtractaViewData data;
  data.addColumns({"A", "B", "A", "C"});
  EXPECT_THAT(data.columns(), ElementsAre(Pair("A", 2u), Pair("B", 1u), Pair("C", 2u)));
  data.addColumns({"D", "B"});
  EXPECT_THAT(data.columns(),
              ElementsAre(Pair("A", 2u), Pair("B", 4u), Pair("C", 2u), Pair("D", 3u)));
  // A look-up never enters the name.
  EXPECT_EQ(data.columnIndex("NET_NAME"), ExtractaViewData::kNoColumn);
  data.addColumns({"NET_NAME"});
  EXPECT_EQ(data.columnIndex("NET_NAME"), 4u);
}

}  // namespace
