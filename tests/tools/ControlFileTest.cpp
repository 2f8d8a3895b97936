// The stand-in's control file reader: every form the program writes, the
// ways a damaged file is refused, and that no input makes it misbehave.

#include <gtest/gtest.h>

#include <random>

#include "tests/tools/ToolsTestSupport.h"
#include "tools/extracta_sim/ControlFile.h"

namespace {

using extracta_sim::ControlFileError;
using extracta_sim::ParseCondition;
using extracta_sim::ParseControlFile;
using extracta_sim::ViewRequest;
using veltest::ControlBlock;
using veltest::CrLf;

std::string AllStandardBlocks() {
  std::string text;
  for (const veltest::ViewDefinition& view : veltest::StandardViews()) text += ControlBlock(view);
  return text;
}

TEST(ControlFile, ReadsEveryStandardViewBlockAsWritten) {
  const std::vector<veltest::ViewDefinition> views = veltest::StandardViews();
  for (const std::string& text : {CrLf(AllStandardBlocks()), AllStandardBlocks()}) {
    const std::vector<ViewRequest> requests = ParseControlFile(text);
    ASSERT_EQ(requests.size(), views.size());
    for (std::size_t i = 0; i < views.size(); ++i) {
      SCOPED_TRACE(views[i].name);
      EXPECT_EQ(requests[i].keyword, views[i].keyword);
      EXPECT_EQ(requests[i].fields, views[i].fields);
      // Each alternative carries all the view's conditions after its own.
      const std::size_t expectedAlternatives = views[i].alternatives.empty()
                                                   ? (views[i].conditions.empty() ? 0 : 1)
                                                   : views[i].alternatives.size();
      ASSERT_EQ(requests[i].alternatives.size(), expectedAlternatives);
      for (std::size_t a = 0; a < requests[i].alternatives.size(); ++a) {
        const auto& got = requests[i].alternatives[a];
        std::vector<veltest::Cond> want;
        if (!views[i].alternatives.empty()) want.push_back(views[i].alternatives[a]);
        want.insert(want.end(), views[i].conditions.begin(), views[i].conditions.end());
        ASSERT_EQ(got.size(), want.size());
        for (std::size_t c = 0; c < want.size(); ++c) {
          EXPECT_EQ(got[c].field, want[c].field);
          EXPECT_EQ(got[c].equal, want[c].equal);
          EXPECT_EQ(got[c].value, want[c].value) << want[c].text;
        }
      }
    }
  }
}

TEST(ControlFile, DegenerateBlocks) {
  // Neither filter nor fields: keyword, empty line, a lone tab, END.
  auto requests = ParseControlFile("PAD_DEF\r\n\r\n\t\r\nEND\r\n\r\n");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].keyword, "PAD_DEF");
  EXPECT_TRUE(requests[0].fields.empty());
  EXPECT_TRUE(requests[0].alternatives.empty());

  // A filter and no fields: the field part is the lone tab line.
  requests = ParseControlFile("NET\n\n\tNET_NAME != ''\n\n\t\nEND\n\n");
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_TRUE(requests[0].fields.empty());
  ASSERT_EQ(requests[0].alternatives.size(), 1u);
  EXPECT_FALSE(requests[0].alternatives[0][0].equal);

  // Alternatives without conditions: each followed by a lone tab line.
  requests = ParseControlFile(
      "COMPOSITE_PAD\n\n\tDRILL_ARRAY_ROWS != ''\n\t\n\tOR\n\tBACKDRILL_TOP_LAYER != ''\n\t\n\n"
      "\tPAD_STACK_NAME\n\nEND\n\n");
  ASSERT_EQ(requests[0].alternatives.size(), 2u);
  EXPECT_EQ(requests[0].alternatives[1].size(), 1u);
  EXPECT_EQ(requests[0].alternatives[1][0].field, "BACKDRILL_TOP_LAYER");
  EXPECT_EQ(requests[0].fields, std::vector<std::string>{"PAD_STACK_NAME"});

  // An empty file asks for nothing; a file without its last empty line is whole.
  EXPECT_TRUE(ParseControlFile("").empty());
  EXPECT_EQ(ParseControlFile("LAYER\n\n\tLAYER_SORT\n\nEND").size(), 1u);
}

TEST(ControlFile, ConditionForms) {
  auto c = ParseCondition("NET_NAME ='GND'", 1);
  EXPECT_EQ(c.field, "NET_NAME");
  EXPECT_TRUE(c.equal);
  EXPECT_EQ(c.value, "GND");

  c = ParseCondition("NET_NAME !='VDD 1V8'", 1);
  EXPECT_FALSE(c.equal);
  EXPECT_EQ(c.value, "VDD 1V8");

  // A bare value is the rest of the line, blanks included.
  c = ParseCondition("CLASS = VIA CLASS", 1);
  EXPECT_TRUE(c.equal);
  EXPECT_EQ(c.value, "VIA CLASS");

  c = ParseCondition("RAT_CONNECTED != ''", 1);
  EXPECT_FALSE(c.equal);
  EXPECT_EQ(c.value, "");

  c = ParseCondition("CLASS=ETCH", 1);
  EXPECT_EQ(c.field, "CLASS");
  EXPECT_EQ(c.value, "ETCH");

  // Quotes inside a name are not escaped: the value runs to the last quote.
  c = ParseCondition("NET_NAME ='A'B'", 1);
  EXPECT_EQ(c.value, "A'B");
  c = ParseCondition("NET_NAME = 'X=Y'", 1);
  EXPECT_EQ(c.field, "NET_NAME");
  EXPECT_EQ(c.value, "X=Y");
}

TEST(ControlFile, RefusesDamagedFiles) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"LAYER\n\n\tLAYER_SORT\n\n", "not closed by END"},
      {"LAYER\n\tLAYER_SORT\n\nEND\n\n", "line 2: expected an empty line after the view keyword"},
      {"LAYER\n\n\tLAYER_SORT\nEND\n\n", "expected an empty line before END"},
      {"CONNECTIVITY\n\n\tCLASS = ETCH\n\tNET_NAME\n\nEND\n\n", "in the field list"},
      {"NET\n\n\tNET_NAME ='GND\n\n\tNET_NAME\n\nEND\n\n", "line 3: filter line"},
      {"NET\n\n\tNET_NAME 'GND'\n\n\tNET_NAME\n\nEND\n\n", "has no '=' or '!='"},
      {"NET\n\n\tNET_NAME ='GND' X\n\n\tNET_NAME\n\nEND\n\n", "after its closing quote"},
      {"NET\n\n\t= 'GND'\n\n\tNET_NAME\n\nEND\n\n", "names no field"},
      {"NET\n\n\tOR\n\tNET_NAME ='A'\n\n\tNET_NAME\n\nEND\n\n", "alternative without conditions"},
      {"NET\n\n\tA = B\n\n\tB = C\n\n\tNET_NAME\n\nEND\n\n", "more than a filter part"},
      {"NET\n\n\tNET_NAME\n\n\nEND\n\n", "two empty lines in a row"},
      {"NET\n\n\tNET_NAME\n\nEND\nLAYER\n", "expected an empty line after END"},
      {"\tNET_NAME\n", "expected a view keyword"},
      {"END\n\n", "END without a view block"},
      {"NET\n\nNET_NAME\n\nEND\n\n", "unexpected line 'NET_NAME'"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    try {
      ParseControlFile(c.text);
      ADD_FAILURE() << "accepted";
    } catch (const ControlFileError& error) {
      EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
    }
  }
}

// The reader is fed whatever lies in a working directory; damaged input must
// end in ControlFileError, never in a crash or a read outside the text (the
// sanitizer build checks the latter).
TEST(ControlFile, MutatedInputOnlyEverThrows) {
  const std::string original = CrLf(AllStandardBlocks());
  std::mt19937 random(20261121);
  const std::string alphabet = "\t\r\n =!'ORENDA_";
  for (int round = 0; round < 3000; ++round) {
    std::string text = original;
    const int edits = 1 + static_cast<int>(random() % 6);
    for (int e = 0; e < edits; ++e) {
      const std::size_t at = random() % (text.size() + 1);
      switch (random() % 3) {
        case 0:
          text.insert(at, 1, alphabet[random() % alphabet.size()]);
          break;
        case 1:
          if (at < text.size()) text.erase(at, 1 + random() % 8);
          break;
        default:
          text.resize(at);
      }
    }
    try {
      for (const ViewRequest& request : ParseControlFile(text)) {
        EXPECT_FALSE(request.keyword.empty());
        for (const auto& alternative : request.alternatives) EXPECT_FALSE(alternative.empty());
      }
    } catch (const ControlFileError&) {
    }
  }
}

}  // namespace
