// The view file reader. Every form a view file can take is held to a plain
// reader written separately from the same format on the view file fuzz
// target's seeds (tests/replay); here: the messages of failures and of files
// that cannot be read, and the columns a header enters.

#include "reader/ExtractaViewGrammar.h"
#include "reader/ViewFileScanner.h"

#include <algorithm>
#include <functional>
#include <optional>
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

// The failure message of a read ("" on success).
std::string MessageOf(const std::function<void()>& read) {
  try {
    read();
    return "";
  } catch (const ExtractaParserException& e) {
    return e.what();
  }
}

// The whole-file reader's failures count the records read and name the file
// (where a message is given), and the record-by-record reader, on every text
// fed in pieces of several sizes (down to a byte, so that every place a piece
// can end is met), gives the same records, header and J record, or the same
// failure. Files are read in binary, every byte kept.
TEST(ViewFileParser, RecordByRecordReadsAsTheWholeFile) {
  veltest::TempDir dir;
  const std::string path = dir / "conn pieces ü.txt";
  const std::string failed = path + " parsing failed after successfully parsing the first ";
  const std::string partly = path +
                             " parsing failed to parse whole file after successfully "
                             "parsing the first ";
  const struct {
    std::string text;
    std::optional<std::string> message;
  } cases[] = {
      {"A!NET_NAME!\r\nJ!x\r\n\r\nS!\0\xff\r!\r\nS!b!\r\n"s, ""},
      {"A!NET_NAME!\r\n\r\nJ!x!\r\nS!a\r\n\r\n\r\nS!b!c", std::nullopt},
      {"A!N!\r\nJ!x!\r\nS!a!\r\nS!b!\r\n\r\nS!c!\r\nT!d!\r\nS!e!\r\n", partly + "3 S records"},
      {"A!N!\r\nJ!x!\r\nS!a!\r\n\n", partly + "1 S records"},
      {"A!N!\r\nJ!x!\r\nS!a!\r\n\rS!b!\r\n", std::nullopt},
      {"A!N!\r\nJ!x!\r\nS!a!\r\nS", std::nullopt},
      {"A!N!\r\nJ!x!\r\nS!a\nS!b\r\n", std::nullopt},
      {"A!N!\r\nJ!x!\r\n", std::nullopt},
      {"A!N!\r\nJ!x!", std::nullopt},
      {"A!N!\r\nS!GND!\r\n", failed + "0 S records"},
      {"A!N!\r\n\rJ!x!\r\nS!a\r\n", std::nullopt},
      {"A!NET_NAME!\nJ!x!\nS!GND!\n", failed + "0 S records"},
      {"J!x!\r\nS!a!\r\n", std::nullopt},
      {"", failed + "0 S records"},
  };
  for (const auto& [text, message] : cases) {
    veltest::WriteFile(path, text);
    ExtractaViewData whole;
    const std::string expected = MessageOf([&] { readViewFile(path, whole); });
    EXPECT_EQ(expected, message.value_or(expected)) << text;
    EXPECT_TRUE(&text != &cases[0].text ||
                whole.sRecords().at(0) == (ExtractaViewData::Row{"\0\xff\r"s, ""}));
    for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, text.size() + 1}) {
      SCOPED_TRACE(::testing::Message() << text << " in pieces of " << piece);
      ExtractaViewData::Rows rows;
      ViewFileScanner scanner(path, [&](const ExtractaViewData::Row& row) { rows.push_back(row); });
      EXPECT_EQ(MessageOf([&] {
                  for (std::size_t at = 0; at < text.size(); at += piece)
                    scanner.feed(text.data() + at, std::min(piece, text.size() - at));
                  scanner.finish();
                }),
                expected);
      if (!expected.empty()) continue;
      EXPECT_EQ(rows, whole.sRecords());
      EXPECT_EQ(scanner.records(), rows.size());
      EXPECT_EQ(scanner.header().columns(), whole.columns());
      EXPECT_EQ(scanner.header().jRecord(), whole.jRecord());
    }
  }
  // A record is handed over as soon as the byte after its line end shows it
  // ended, also when that byte begins the next piece.
  ViewFileScanner prompt(path, nullptr);
  prompt.feed("A!N!\r\nJ!x!\r\nS!a!\r\n", 18);
  prompt.feed("S", 1);
  EXPECT_EQ(prompt.records(), 1u);
  ExtractaViewData data;
  // The system's reason follows the path, for the whole-file reader and the
  // record-by-record one alike.
  for (const std::string& path : {dir / "missing.txt", dir.path()}) {
    const std::string cannotOpen = "Could not open file: " + path + " (";
    EXPECT_THAT(MessageOf([&] { readViewFile(path, data); }), StartsWith(cannotOpen));
    ViewFileScanner scanner(path, nullptr);
    EXPECT_THAT(MessageOf([&] { scanViewFile(path, scanner); }), StartsWith(cannotOpen));
  }
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
