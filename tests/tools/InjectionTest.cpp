// The EXTRACTA_SIM_* injections that the program's tests and benchmarks rely
// on: failures, deaths, hangs, chatter, cost, stray grandchildren, damaged
// output and the run log, which every run here writes.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <sstream>

#include "tests/tools/ToolsTestSupport.h"

namespace {

using veltest::ReadFile;
using veltest::RunSim;
using veltest::WriteFile;

class Injection : public ::testing::Test {
 protected:
  void SetUp() override {
    design = dir / "d.mcm";
    std::string text =
        "J!d.mcm!Mon Jan 05 08:00:00 2026!0.00!0.00!1.00!1.00!0.01!um!T!0.010000 um!2!UP TO "
        "DATE!\r\nT!CONNECTIVITY!\r\nA!NET_NAME!CLASS!\r\n";
    for (int i = 0; i < 1000; ++i) text += i % 2 ? "S!GND!ETCH!\r\n" : "S!VDD!PIN!\r\n";
    WriteFile(design, text);
    control = dir / "extracta_control_connGND.txt";
    WriteFile(control, "CONNECTIVITY\r\n\r\n\tNET_NAME\r\n\tCLASS\r\n\r\nEND\r\n\r\n");
    output = dir / "conn.txt";
  }

  // Every run appends to the run log.
  veltest::RunResult Run(std::map<std::string, std::optional<std::string>> env) {
    env.emplace("EXTRACTA_SIM_LOG", dir / "runs.log");
    return RunSim(design, control, {output}, env);
  }

  // The process ids of the logged runs, after checking each line's times and
  // control file name.
  std::vector<pid_t> LoggedRuns() {
    std::istringstream lines(ReadFile(dir / "runs.log"));
    std::vector<pid_t> pids;
    for (std::string line; std::getline(lines, line);) {
      std::istringstream fields(line);
      unsigned long long start = 0, end = 0;
      std::string name;
      fields >> start >> end >> pids.emplace_back() >> name;
      EXPECT_GT(start, 1700000000000000000ull) << line;
      EXPECT_LE(start, end) << line;
      EXPECT_GT(pids.back(), 0) << line;
      EXPECT_EQ(name, "extracta_control_connGND.txt");
    }
    return pids;
  }

  veltest::TempDir dir;
  std::string design, control, output;
};

TEST_F(Injection, FailsOnlyRunsWhoseControlFileMatches) {
  auto result = Run({{"EXTRACTA_SIM_FAIL", "3:ERROR: bad view"}, {"EXTRACTA_SIM_MATCH", "*GND*"}});
  EXPECT_EQ(result.exitCode, 3);
  EXPECT_EQ(result.out, "ERROR: bad view");
  EXPECT_FALSE(veltest::PathExists(output));

  result = Run({{"EXTRACTA_SIM_FAIL", "3:ERROR: bad view"}, {"EXTRACTA_SIM_MATCH", "*VDD*"}});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(veltest::ParseViewFile(ReadFile(output)).records.size(), 1000u);

  // Chatter first, then the failure: the program must collect both.
  result = Run({{"EXTRACTA_SIM_FAIL", "2:"}, {"EXTRACTA_SIM_PRINT_BYTES", "100000"}});
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.out.size(), 100000u);

  EXPECT_EQ(LoggedRuns().size(), 3u);  // failed runs too

  result = Run({{"EXTRACTA_SIM_FAIL", "nonsense"}});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("EXTRACTA_SIM_FAIL"), std::string::npos);
}

TEST_F(Injection, DiesHangsAndSpendsTimeWhenAsked) {
  EXPECT_EQ(Run({{"EXTRACTA_SIM_SIGNAL", "9"}}).exitCode, 128 + 9);
  EXPECT_EQ(Run({{"EXTRACTA_SIM_SIGNAL", "15"}}).exitCode, 128 + 15);
  EXPECT_EQ(LoggedRuns().size(), 2u);  // killed runs too

  // A sleep, and CPU time per record read: 1000 records at 0.5 ms each are
  // half a second of work, where the bare run takes a few milliseconds.
  for (const auto& [name, value] : {std::pair{"EXTRACTA_SIM_SLEEP_MS", "500"},
                                    std::pair{"EXTRACTA_SIM_NS_PER_RECORD", "500000"}}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Run({{name, value}}).exitCode, 0) << name;
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(500)) << name;
    EXPECT_LT(elapsed, std::chrono::seconds(20)) << name;
  }
}

TEST_F(Injection, LeavesAGrandchildInItsProcessGroup) {
  const std::string pidFile = dir / "grandchild.pid";
  const auto result = Run(
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
  ASSERT_EQ(
      Run({{"EXTRACTA_SIM_GRANDCHILD_SECONDS", "1"}, {"EXTRACTA_SIM_GRANDCHILD_KEEP_OUTPUT", "1"}})
          .exitCode,
      0);
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(900));
}

TEST_F(Injection, DamagesOutputOnRequest) {
  ASSERT_EQ(Run({}).exitCode, 0);
  const std::string whole = ReadFile(output);

  ASSERT_EQ(::unlink(output.c_str()), 0);
  ASSERT_EQ(Run({{"EXTRACTA_SIM_OUTPUT", "none"}}).exitCode, 0);
  EXPECT_FALSE(veltest::PathExists(output));

  ASSERT_EQ(Run({{"EXTRACTA_SIM_OUTPUT", "truncate"}}).exitCode, 0);
  EXPECT_EQ(ReadFile(output), whole.substr(0, whole.size() / 2));

  ASSERT_EQ(Run({{"EXTRACTA_SIM_OUTPUT", "lf,drop-field:NET_NAME"}}).exitCode, 0);
  const std::string damaged = ReadFile(output);
  EXPECT_EQ(damaged.find('\r'), std::string::npos);
  EXPECT_EQ(damaged.substr(0, 8), "A!CLASS!");
  EXPECT_NE(damaged.find("\nS!ETCH!\n"), std::string::npos);

  EXPECT_EQ(Run({{"EXTRACTA_SIM_OUTPUT", "shred"}}).exitCode, 1);
}

}  // namespace
