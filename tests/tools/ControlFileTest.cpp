// The stand-in's control file reader: the ways a damaged file is refused.
// What the filters keep is shown by extraction (ExtractaSimTest.cpp); that any
// file it reads is read whole is the control file fuzz target's check, run on
// its seeds in every suite (tests/replay).

#include <gtest/gtest.h>

#include "tools/extracta_sim/ControlFile.h"

namespace {

using extracta_sim::ControlFileError;
using extracta_sim::ParseControlFile;

TEST(ControlFile, RefusesDamagedFiles) {
  const struct {
    const char* text;
    const char* message;
  } cases[] = {
      {"LAYER\n\n\tLAYER_SORT\n\n", "not closed by END"},
      {"LAYER\n\tLAYER_SORT\n\nEND\n\n", "line 2: expected an empty line after the view keyword"},
      {"LAYER\n\n\tLAYER_SORT\nEND\n\n", "expected an empty line before END"},
      {"CONNECTIVITY\n\n\tCLASS = ETCH\n\tNET_NAME\n\nEND\n\n", "in the field list"},
      {"NET\n\n\tNET_NAME ='GND\n\n\tNET_NAME\n\nEND\n\n",
       "line 3: filter line 'NET_NAME ='GND' has an unclosed quote"},
      {"NET\n\n\tNET_NAME 'GND'\n\n\tNET_NAME\n\nEND\n\n", "has no '=' or '!='"},
      {"NET\n\n\tOR\n\tNET_NAME ='A'\n\n\tNET_NAME\n\nEND\n\n", "alternative without conditions"},
      {"NET\n\n\tA = B\n\n\tB = C\n\n\tNET_NAME\n\nEND\n\n", "more than a filter part"},
      {"NET\n\n\tNET_NAME\n\n\nEND\n\n", "two empty lines in a row"},
      {"NET\n\n\tNET_NAME\n\nEND\nLAYER\n", "expected an empty line after END"},
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

}  // namespace
