// extracta-sim run as the program runs it, on small hand-written designs:
// what the filters keep, the view file it writes, and how it fails.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "tests/tools/ToolsTestSupport.h"

namespace {

using veltest::CrLf;
using veltest::ReadFile;
using veltest::RunSim;
using veltest::WriteFile;

const char kJob[] =
    "J!hand.mcm!Mon Jan 05 08:00:00 2026!-10.00!-10.00!10.00!10.00!0.01!um!HAND TEST!0.010000 "
    "um!2!UP TO DATE!\r\n";

// Records, in table order: NET_NAME, CLASS, RAT_CONNECTED, REFDES.
const char kDesignTables[] =
    "T!NET!\r\n"
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
    ASSERT_EQ(::mkdir(dir_.c_str(), 0755), 0);
    design = dir_ + "/hand.mcm";
    WriteFile(design, std::string(kJob) + kDesignTables);
  }

  // Runs one block (LF in the text, written with CR LF) and returns the REFDES
  // column of the view file, or the failure output.
  std::vector<std::string> Refdes(const std::string& block) {
    WriteFile(dir_ + "/control.txt", CrLf(block));
    const auto result = RunSim(design, dir_ + "/control.txt", {dir_ + "/out.txt"});
    EXPECT_EQ(result.exitCode, 0) << result.out;
    const veltest::ViewFile view = veltest::ParseViewFile(ReadFile(dir_ + "/out.txt"));
    const auto column = std::find(view.header.begin(), view.header.end(), "REFDES");
    EXPECT_NE(column, view.header.end());
    std::vector<std::string> refdes;
    for (const auto& record : view.records)
      refdes.push_back(record.at(column - view.header.begin()));
    return refdes;
  }

  veltest::RunResult Fails(const std::string& controlText, std::size_t outputs = 1) {
    WriteFile(dir_ + "/control.txt", CrLf(controlText));
    std::vector<std::string> files;
    for (std::size_t i = 0; i < outputs; ++i) files.push_back(dir_ + "/out" + std::to_string(i));
    auto result = RunSim(design, dir_ + "/control.txt", files);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out.compare(0, 7, "ERROR: "), 0) << result.out;
    return result;
  }

  veltest::TempDir dir;
  std::string dir_;
  std::string design;
};

using List = std::vector<std::string>;

TEST_F(ExtractaSim, FilterSemantics) {
  // AND within an alternative, OR across them, a bare value with a blank.
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n"
                   "\tCLASS = ETCH\n\tRAT_CONNECTED != 'YES'\n\tRAT_CONNECTED != 'NO'\n"
                   "\tNET_NAME != ''\n\tOR\n"
                   "\tCLASS = VIA CLASS\n\tRAT_CONNECTED != 'YES'\n\tRAT_CONNECTED != 'NO'\n"
                   "\tNET_NAME != ''\n\n\tREFDES\n\nEND\n\n"),
            (List{"U1", "U2", "C2"}));
  // Net alternatives as the program writes them (no blank before the quote).
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tNET_NAME ='GND'\n\tRAT_CONNECTED != 'YES'\n\tOR\n"
                   "\tNET_NAME ='VDD 1V8'\n\tRAT_CONNECTED != 'YES'\n\n\tREFDES\n\nEND\n\n"),
            (List{"U1", "U2", "C2", "R1"}));
  // != against the empty value, and = against it.
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tNET_NAME != ''\n\n\tREFDES\n\nEND\n\n"),
            (List{"U1", "U1", "U2", "C1", "C2", "R1", "U2"}));
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tRAT_CONNECTED = ''\n\tREFDES != ''\n\n\tREFDES\n\nEND\n\n"),
            (List{"U1", "U2", "C2", "R1", "U2"}));
  // A quoted value holding a quote; a quoted value holding blanks.
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tNET_NAME ='SIG'1'\n\n\tREFDES\n\nEND\n\n"), List{"C1"});
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tCLASS = 'BONDING WIRE'\n\n\tREFDES\n\nEND\n\n"), List{"U2"});
  // Alternatives without conditions, each followed by a lone tab line.
  EXPECT_EQ(Refdes("CONNECTIVITY\n\n\tCLASS = 'CONDUCTOR'\n\t\n\tOR\n\tRAT_CONNECTED != ''\n\t\n\n"
                   "\tREFDES\n\nEND\n\n"),
            (List{"U1", "C1", "R1"}));
  // LF line ends are read as well as CR LF.
  WriteFile(dir_ + "/lf.txt", "CONNECTIVITY\n\n\tCLASS = PIN\n\n\tREFDES\n\nEND\n\n");
  ASSERT_EQ(RunSim(design, dir_ + "/lf.txt", {dir_ + "/lf-out.txt"}).exitCode, 0);
  EXPECT_EQ(veltest::ParseViewFile(ReadFile(dir_ + "/lf-out.txt")).records.size(), 2u);
}

TEST_F(ExtractaSim, WritesAskedFieldsInAskedOrderAsTheToolDoes) {
  WriteFile(
      dir_ + "/control.txt",
      CrLf("CONNECTIVITY\n\n\tCLASS = VIA CLASS\n\n\tREFDES\n\tNET_NAME\n\tCLASS\n\nEND\n\n"
           "NET\n\n\t\nEND\n\n"
           "CONNECTIVITY\n\n\tREFDES = 'U1'\n\n\tNET_NAME\n\tRAT_CONNECTED\n\tREFDES\n\tREFDES\n"
           "\nEND\n\n"));
  const auto result = RunSim(design, dir_ + "/control.txt",
                             {dir_ + "/conn.txt", dir_ + "/net.txt", dir_ + "/skip.txt"});
  ASSERT_EQ(result.exitCode, 0) << result.out;
  EXPECT_EQ(result.out, "");
  const std::string job =
      "J!hand.mcm!Sat Nov 21 10:02:11 2026!-10.00!-10.00!10.00!10.00!0.01!um!HAND TEST!0.010000 "
      "um!2!UP TO DATE!\r\n";
  EXPECT_EQ(ReadFile(dir_ + "/conn.txt"), "A!REFDES!NET_NAME!CLASS!\r\n" + job +
                                              "S!U2!VDD 1V8!VIA CLASS!\r\n"
                                              "S!C2!GND!VIA CLASS!\r\n");
  // No field lines: every field of the table, in table order.
  EXPECT_EQ(ReadFile(dir_ + "/net.txt"), "A!NET_NAME!NET_BUS_NAME!\r\n" + job + "S!GND!!\r\n");
  // Columns that skip one, and a column asked twice.
  EXPECT_EQ(ReadFile(dir_ + "/skip.txt"), "A!NET_NAME!RAT_CONNECTED!REFDES!REFDES!\r\n" + job +
                                              "S!GND!!U1!U1!\r\nS!GND!YES!U1!U1!\r\n");
}

TEST_F(ExtractaSim, FailsLikeTheRealTool) {
  // A field the table lacks, in the field list or in a filter: named in the
  // message, and no output file is written, not even for an earlier block.
  auto result =
      Fails("NET\n\n\tNET_NAME\n\nEND\n\nCONNECTIVITY\n\n\tNET_NAME\n\tPIN_X\n\nEND\n\n", 2);
  EXPECT_NE(result.out.find("PIN_X"), std::string::npos) << result.out;
  EXPECT_FALSE(veltest::PathExists(dir_ + "/out0"));
  result = Fails("CONNECTIVITY\n\n\tLAYER_SORT = 'x'\n\n\tNET_NAME\n\nEND\n\n");
  EXPECT_NE(result.out.find("LAYER_SORT"), std::string::npos) << result.out;

  result = Fails("CONNECTIVTY\n\n\tNET_NAME\n\nEND\n\n");
  EXPECT_NE(result.out.find("unknown view keyword CONNECTIVTY"), std::string::npos);
  result = Fails("LAYER\n\n\tLAYER_SORT\n\nEND\n\n");
  EXPECT_NE(result.out.find("holds no LAYER table"), std::string::npos);
  result = Fails("NET\n\n\tNET_NAME\nEND\n\n");
  EXPECT_NE(result.out.find("control file line 4"), std::string::npos) << result.out;
  result = Fails("NET\n\n\tNET_NAME\n\nEND\n\n", 2);
  EXPECT_NE(result.out.find("1 view blocks but 2 output files"), std::string::npos);

  const std::string control = dir_ + "/control.txt";
  result = RunSim(dir_ + "/missing.mcm", control, {dir_ + "/o"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("missing.mcm"), std::string::npos);
  result = RunSim(design, control, {dir_ + "/no such dir/o.txt"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("no such dir/o.txt"), std::string::npos);

  // Wrong arguments: the option letters are not optional.
  result = veltest::RunProgram(
      {veltest::BinPath("extracta-sim"), "-k", "-c", design, control, dir_ + "/o"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("missing -m"), std::string::npos);
}

TEST_F(ExtractaSim, AcceptsPathsWithoutQuotesAndReportsDamagedDesigns) {
  WriteFile(dir_ + "/control.txt", CrLf("CONNECTIVITY\n\n\tNET_NAME\n\nEND\n\n"));
  auto result = veltest::RunProgram({veltest::BinPath("extracta-sim"), "-k", "-m", design,
                                     dir_ + "/control.txt", dir_ + "/plain.txt"});
  ASSERT_EQ(result.exitCode, 0) << result.out;
  EXPECT_EQ(veltest::ParseViewFile(ReadFile(dir_ + "/plain.txt")).records.size(), 8u);

  // A record with a field too few is reported with where it is.
  WriteFile(design, std::string(kJob) + kDesignTables + "S!GND!ETCH!!\r\n");
  result = RunSim(design, dir_ + "/control.txt", {dir_ + "/o.txt"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("must have 4 fields"), std::string::npos) << result.out;
  // A table line may give the byte count of its records; a count that does
  // not end at the next table line is refused.
  const std::string withLength = std::string(kJob) + "T!NET!9!\r\nA!NET_NAME!NET_BUS_NAME!\r\n" +
                                 (kDesignTables + std::string(kDesignTables).find("S!GND!!"));
  WriteFile(design, withLength);
  result = RunSim(design, dir_ + "/control.txt", {dir_ + "/o.txt"});
  EXPECT_EQ(result.exitCode, 0) << result.out;
  WriteFile(design, std::string(kJob) + "T!NET!8!\r\nA!NET_NAME!NET_BUS_NAME!\r\n" +
                        (kDesignTables + std::string(kDesignTables).find("S!GND!!")));
  result = RunSim(design, dir_ + "/control.txt", {dir_ + "/o.txt"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("does not hold the 8 bytes"), std::string::npos) << result.out;

  WriteFile(design, "T!NET!\r\n");
  result = RunSim(design, dir_ + "/control.txt", {dir_ + "/o.txt"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("job record"), std::string::npos) << result.out;
}

}  // namespace
