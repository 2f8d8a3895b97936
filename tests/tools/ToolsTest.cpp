// The stand-in extractor and the design generator: the ways extracta-sim's
// control file reader refuses a damaged file (that any file it reads is read
// whole is the control file fuzz target's check, run on its seeds in every
// suite: tests/replay); extracta-sim run as the program runs it, on small
// hand-written designs: what the filters keep, the view file it writes and how
// it fails (its EXTRACTA_SIM_* injections are proven where the fault matrix
// relies on them); and make-design's snapshots: the same bytes for the same
// seed and size, and the options it refuses.

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
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

using List = std::vector<std::string>;
using veltest::ReadFile;
using veltest::WriteFile;

const char kJob[] =
    "J!hand.mcm!Mon Jan 05 08:00:00 2026!-10.00!-10.00!10.00!10.00!0.01!um!HAND TEST!0.010000 "
    "um!2!UP TO DATE!\r\n";

// Records, in table order: NET_NAME, CLASS, RAT_CONNECTED, REFDES. The NET
// table gives the byte count of its records, CONNECTIVITY leaves it out.
const char kDesignTables[] =
    "T!NET!9!\r\n"
    "A!NET_NAME!NET_BUS_NAME!\r\n"
    "S!GND!!\r\n"
    "T!CONNECTIVITY!\r\n"
    "A!NET_NAME!CLASS!RAT_CONNECTED!REFDES!\r\n"
    "S!GND!ETCH!!U1!\r\n"
    "S!GND!PIN!YES!U1!\r\n"
    "S!VDD 1V8!VIA CLASS!!U2!\r\n"
    "S!!ETCH!!!\r\n"
    "S!SIG'1!PIN!NO!C1!\r\n"
    "\r\n"
    "S!GND!VIA CLASS!!C2!\r\n"
    "S!VDD 1V8!CONDUCTOR!!R1!\r\n"
    "S!CLK!BONDING WIRE!!U2!\r\n";

class ExtractaSim : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = dir.path() + "/design dir";
    ASSERT_TRUE(veltest::MakeDirectory(dir_));
    design = dir_ + "/hand.mcm";
    WriteFile(design, std::string(kJob) + kDesignTables);
    control = dir_ + "/extracta_control_connGND.txt";
  }

  // Writes the control text with CR LF line ends and runs extracta-sim as the
  // program does (quoted paths), one output per name, in the design's directory.
  veltest::RunResult Run(const std::string& text, const List& outputs, veltest::EnvMap env = {}) {
    std::string crlf;
    for (const char c : text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
    WriteFile(control, crlf);
    List argv = {veltest::BinPath("extracta-sim"), "-k", "-c", "-m"};
    for (const std::string& path : List{design, control}) argv.push_back("\"" + path + "\"");
    for (const std::string& name : outputs) argv.push_back("\"" + dir_ + "/" + name + "\"");
    env["EXTRACTA_SIM_DATE"] = "Sat Nov 21 10:02:11 2026";
    return veltest::RunProgram(argv, {"", env});
  }

  veltest::TempDir dir;
  std::string dir_, design, control;
};

// The bytes of the view files, for the filter forms the sample design's views
// do not use and for the ways fields can be asked.
TEST_F(ExtractaSim, WritesTheAskedFieldsOfTheRecordsItsFiltersKeep) {
  const struct {
    const char* block;
    std::string header;   // the A! line
    std::string records;  // the S! lines
  } cases[] = {
      // Asked fields in asked order; a bare value with a blank.
      {"CONNECTIVITY\n\n\tCLASS = VIA CLASS\n\n\tREFDES\n\tNET_NAME\n\tCLASS\n\nEND\n\n",
       "A!REFDES!NET_NAME!CLASS!\r\n", "S!U2!VDD 1V8!VIA CLASS!\r\nS!C2!GND!VIA CLASS!\r\n"},
      // No field lines: every field of the table, in table order; also after
      // a filter.
      {"NET\n\n\t\nEND\n\n", "A!NET_NAME!NET_BUS_NAME!\r\n", "S!GND!!\r\n"},
      {"CONNECTIVITY\n\n\tNET_NAME = 'CLK'\n\n\t\nEND\n\n",
       "A!NET_NAME!CLASS!RAT_CONNECTED!REFDES!\r\n", "S!CLK!BONDING WIRE!!U2!\r\n"},
      // Columns that skip one, and a column asked twice.
      {"CONNECTIVITY\n\n\tREFDES = 'U1'\n\n\tNET_NAME\n\tRAT_CONNECTED\n\tREFDES\n\tREFDES\n\n"
       "END\n\n",
       "A!NET_NAME!RAT_CONNECTED!REFDES!REFDES!\r\n", "S!GND!!U1!U1!\r\nS!GND!YES!U1!U1!\r\n"},
      // AND within an alternative, OR across them.
      {"CONNECTIVITY\n\n\tCLASS = ETCH\n\tRAT_CONNECTED != 'YES'\n\tNET_NAME != ''\n\tOR\n"
       "\tCLASS = PIN\n\tRAT_CONNECTED != 'YES'\n\tNET_NAME != ''\n\n\tREFDES\n\nEND\n\n",
       "A!REFDES!\r\n", "S!U1!\r\nS!C1!\r\n"},
      // = against the empty value; a quoted value holding a quote.
      {"CONNECTIVITY\n\n\tRAT_CONNECTED = ''\n\tREFDES != ''\n\n\tREFDES\n\nEND\n\n",
       "A!REFDES!\r\n", "S!U1!\r\nS!U2!\r\nS!C2!\r\nS!R1!\r\nS!U2!\r\n"},
      {"CONNECTIVITY\n\n\tNET_NAME ='SIG'1'\n\n\tREFDES\n\nEND\n\n", "A!REFDES!\r\n", "S!C1!\r\n"},
  };
  std::string text;
  List outputs;
  for (const auto& c : cases) {
    text += c.block;
    outputs.push_back("out" + std::to_string(outputs.size()) + ".txt");
  }
  const auto result = Run(text, outputs);
  ASSERT_EQ(result.exitCode, 0) << result.out;
  EXPECT_EQ(result.out, "");
  // The design file's name and the extraction date replace the first two
  // fields of the design's job record.
  const std::string job =
      "J!hand.mcm!Sat Nov 21 10:02:11 2026!-10.00!-10.00!10.00!10.00!0.01!um!HAND TEST!0.010000 "
      "um!2!UP TO DATE!\r\n";
  for (std::size_t i = 0; i < outputs.size(); ++i) {
    EXPECT_EQ(ReadFile(dir_ + "/" + outputs[i]), cases[i].header + job + cases[i].records)
        << cases[i].block;
  }
}

TEST_F(ExtractaSim, FailsLikeTheRealTool) {
  const List one = {"out0.txt"}, two = {"out0.txt", "out1.txt"};
  const char *net = "NET\n\n\tNET_NAME\n\nEND\n\n", *conn = "CONNECTIVITY\n\n\tNET_NAME\n\nEND\n\n";
  const std::string hand = kJob + std::string(kDesignTables);
  const struct {
    const char* control;
    List outputs;
    const char* message;
    std::string design = "";  // in place of the hand-written one
  } cases[] = {
      // A field the table lacks, in the field list or in a filter, is named.
      {"NET\n\n\tNET_NAME\n\nEND\n\nCONNECTIVITY\n\n\tNET_NAME\n\tPIN_X\n\nEND\n\n", two, "PIN_X"},
      {"CONNECTIVITY\n\n\tLAYER_SORT = 'x'\n\n\tNET_NAME\n\nEND\n\n", one, "LAYER_SORT"},
      {"CONNECTIVTY\n\n\tNET_NAME\n\nEND\n\n", one, "unknown view keyword CONNECTIVTY"},
      {"LAYER\n\n\tLAYER_SORT\n\nEND\n\n", one, "holds no LAYER table"},
      {"NET\n\n\tNET_NAME\nEND\n\n", one, "control file line 4"},
      {net, two, "1 view blocks but 2 output files"},
      // A damaged design, reported with where it is: a byte count of a table
      // stepped over that does not end at the next table line, a short record, no job record.
      {conn, one, "does not hold the 8 bytes",
       kJob + std::string("T!NET!8!") + hand.substr(hand.find("\r\nA!NET_NAME!NET_BUS"))},
      {conn, one, "must have 4 fields", hand + "S!GND!ETCH!!\r\n"},
      {conn, one, "job record", "T!NET!\r\n"},
  };
  for (const auto& c : cases) {
    if (!c.design.empty()) WriteFile(design, c.design);
    const auto result = Run(c.control, c.outputs);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out.compare(0, 7, "ERROR: "), 0) << result.out;
    EXPECT_NE(result.out.find(c.message), std::string::npos) << result.out;
    // Nothing is written, not even for a block before the failing one (the
    // design is read while extracting).
    EXPECT_TRUE(!c.design.empty() || !veltest::PathExists(dir_ + "/out0.txt")) << c.message;
  }
  // An injected failure ends with its own exit code.
  EXPECT_EQ(Run(net, one, {{"EXTRACTA_SIM_FAIL", "7:ERROR: no license"}}).exitCode, 7);
}

using namespace veltest;

TEST(GeneratedDesign, RefusesBadOptions) {
  TempDir dir;
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--nets", "3"},
                                              {"--layers", "1"},
                                              {"--seed", "x"},
                                              {"--bogus", "1"},
                                              {"--name", "a!b"}}) {
    std::vector<std::string> argv = {BinPath("make-design"), "-o", dir / "bad.mcm"};
    argv.insert(argv.end(), bad.begin(), bad.end());
    const RunResult result = RunProgram(argv);
    EXPECT_EQ(result.exitCode, 2) << bad[0];
    EXPECT_NE(result.err.find("usage: make-design"), std::string::npos);
  }
  EXPECT_FALSE(PathExists(dir / "bad.mcm"));
}

}  // namespace
