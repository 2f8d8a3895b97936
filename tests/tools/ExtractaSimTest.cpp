// extracta-sim run as the program runs it, on small hand-written designs:
// what the filters keep, the view file it writes, how it fails, and the
// EXTRACTA_SIM_* injections the program's tests and benchmarks rely on:
// failures, deaths, hangs, chatter, cost, stray grandchildren, damaged output
// and the run log, which every run here writes.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "tests/tools/ToolsTestSupport.h"

namespace {

using List = std::vector<std::string>;
using Env = std::map<std::string, std::optional<std::string>>;
using veltest::CrLf;
using veltest::ReadFile;
using veltest::RunSim;
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
    ASSERT_EQ(::mkdir(dir_.c_str(), 0755), 0);
    design = dir_ + "/hand.mcm";
    WriteFile(design, std::string(kJob) + kDesignTables);
    control = dir_ + "/extracta_control_connGND.txt";
    output = dir_ + "/out0.txt";
  }

  // Writes the control text with CR LF line ends and runs one output per
  // name, in the design's directory.
  veltest::RunResult Run(const std::string& text, const List& outputs, Env env = {}) {
    WriteFile(control, CrLf(text));
    List paths;
    for (const std::string& name : outputs) paths.push_back(dir_ + "/" + name);
    env.emplace("EXTRACTA_SIM_LOG", dir_ + "/runs.log");
    return RunSim(design, control, paths, env);
  }
  // One view of the connectivity records' NET_NAME and CLASS, to out0.txt.
  veltest::RunResult Inject(Env env) {
    return Run("CONNECTIVITY\n\n\tNET_NAME\n\tCLASS\n\nEND\n\n", {"out0.txt"}, std::move(env));
  }

  // The process ids of the logged runs, after checking each line's times and
  // control file name.
  std::vector<pid_t> LoggedRuns() {
    std::istringstream lines(ReadFile(dir_ + "/runs.log"));
    std::vector<pid_t> pids;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream fields(line);
      unsigned long long start = 0, end = 0;
      std::string name;
      fields >> start >> end >> pids.emplace_back() >> name;
      EXPECT_TRUE(start > 1700000000000000000ull && start <= end && pids.back() > 0) << line;
      EXPECT_EQ(name, "extracta_control_connGND.txt");
    }
    return pids;
  }

  veltest::TempDir dir;
  std::string dir_, design, control, output;
};
using Injection = ExtractaSim;

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

  // A missing design, an output in a missing directory, and arguments
  // without an option letter (they are not optional); paths without quotes
  // are taken.
  WriteFile(design, hand);
  const std::string sim = veltest::BinPath("extracta-sim");
  for (const auto& [argv, message] :
       {std::pair{List{sim, "-k", "-c", "-m", dir_ + "/missing.mcm", control, dir_ + "/o"},
                  "missing.mcm"},
        {List{sim, "-k", "-c", "-m", design, control, dir_ + "/no such dir/o.txt"},
         "no such dir/o.txt"},
        {List{sim, "-k", "-c", design, control, dir_ + "/o"}, "missing -m"},
        {List{sim, "-k", "-m", design, control, dir_ + "/plain.txt"}, ""}}) {
    const auto result = veltest::RunProgram(argv);
    EXPECT_EQ(result.exitCode, *message ? 1 : 0) << result.out;
    EXPECT_NE(result.out.find(message), std::string::npos) << result.out;
  }
  EXPECT_EQ(ReadFile(dir_ + "/plain.txt").substr(0, 13), "A!NET_NAME!\r\n");
}

// The pattern is matched against the control file's base name only.
TEST_F(Injection, FailsOnlyRunsWhoseControlFileMatches) {
  auto result = Inject(
      {{"EXTRACTA_SIM_FAIL", "3:ERROR: bad view"}, {"EXTRACTA_SIM_MATCH", "extracta_*GND*"}});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "ERROR: bad view");
  EXPECT_FALSE(veltest::PathExists(output));

  result = Inject({{"EXTRACTA_SIM_FAIL", "3:ERROR: bad view"}, {"EXTRACTA_SIM_MATCH", "*VDD*"}});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(veltest::PathExists(output));

  // Chatter first, then the failure: the program must collect both.
  result = Inject({{"EXTRACTA_SIM_FAIL", "2:"}, {"EXTRACTA_SIM_PRINT_BYTES", "100000"}});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out.size(), 100000u);

  EXPECT_EQ(LoggedRuns().size(), 3u);  // failed runs too

  result = Inject({{"EXTRACTA_SIM_FAIL", "nonsense"}});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("EXTRACTA_SIM_FAIL"), std::string::npos);
}

TEST_F(Injection, DiesHangsAndSpendsTimeWhenAsked) {
  EXPECT_EQ(Inject({{"EXTRACTA_SIM_SIGNAL", "9"}}).exitCode, 128 + 9);
  EXPECT_EQ(Inject({{"EXTRACTA_SIM_SIGNAL", "15"}}).exitCode, 128 + 15);
  EXPECT_EQ(LoggedRuns().size(), 2u);  // killed runs too

  // A sleep, and CPU time per record read: 8 records at 62.5 ms each are
  // half a second of work, where the bare run takes a few milliseconds.
  for (const auto& [name, value] : {std::pair{"EXTRACTA_SIM_SLEEP_MS", "500"},
                                    std::pair{"EXTRACTA_SIM_NS_PER_RECORD", "62500000"}}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Inject({{name, value}}).exitCode, 0) << name;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(500)) << name;
    EXPECT_LT(elapsed, std::chrono::seconds(20)) << name;
  }
}

TEST_F(Injection, LeavesAGrandchildInItsProcessGroup) {
  const std::string pidFile = dir_ + "/grandchild.pid";
  const auto result = Inject(
      {{"EXTRACTA_SIM_GRANDCHILD_SECONDS", "30"}, {"EXTRACTA_SIM_GRANDCHILD_PIDFILE", pidFile}});
  ASSERT_EQ(result.exitCode, 0);
  const pid_t grandchild = std::stoi(ReadFile(pidFile));
  const pid_t child = LoggedRuns().at(0);
  ASSERT_GT(grandchild, 0);
  // Still there after its parent ended, in the group its parent led, so
  // ending the child's group ends it too.
  EXPECT_EQ(::kill(grandchild, 0), 0);
  EXPECT_EQ(::getpgid(grandchild), child);
  ::kill(grandchild, SIGKILL);

  // Holding on to standard output keeps a reader that waits for the end of
  // the output waiting until the grandchild is gone.
  const auto before = std::chrono::steady_clock::now();
  ASSERT_EQ(Inject({{"EXTRACTA_SIM_GRANDCHILD_SECONDS", "1"},
                    {"EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT", "1"}})
                .exitCode,
            0);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
}

TEST_F(Injection, DamagesOutputOnRequest) {
  ASSERT_EQ(Inject({}).exitCode, 0);
  const std::string whole = ReadFile(output);

  ASSERT_EQ(::unlink(output.c_str()), 0);
  ASSERT_EQ(Inject({{"EXTRACTA_SIM_OUTPUT", "none"}}).exitCode, 0);
  EXPECT_FALSE(veltest::PathExists(output));

  ASSERT_EQ(Inject({{"EXTRACTA_SIM_OUTPUT", "truncate"}}).exitCode, 0);
  EXPECT_EQ(ReadFile(output), whole.substr(0, whole.size() / 2));

  ASSERT_EQ(Inject({{"EXTRACTA_SIM_OUTPUT", "lf,drop-field:NET_NAME"}}).exitCode, 0);
  const std::string damaged = ReadFile(output);
  EXPECT_EQ(damaged.find('\r'), std::string::npos);
  EXPECT_EQ(damaged.substr(0, 8), "A!CLASS!");
  EXPECT_NE(damaged.find("\nS!ETCH!\n"), std::string::npos);

  EXPECT_EQ(Inject({{"EXTRACTA_SIM_OUTPUT", "shred"}}).exitCode, 1);
}

}  // namespace
