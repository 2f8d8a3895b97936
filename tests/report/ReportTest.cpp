// The run's report (VELTAR_EXTRACTA_REPORT): the trace held against the
// stand-in's own log of every child, after a success, a failure and an
// interrupt; the page rendered by a real browser; a report that cannot be
// written; and the program introducing itself.

#include <algorithm>
#include <cstdint>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/ReportFormats.h"
#include "process/RunObserver.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;
using Json = nlohmann::json;

// The trace's child events by their control file's name.
std::map<std::string, Json> ChildEvents(const Json& trace) {
  std::map<std::string, Json> children;
  for (const Json& event : trace.at("traceEvents"))
    if (event.at("ph") == "X" && event.at("cat") == "extracta")
      children[Leaf(event.at("args").at("control_file"))] = event;
  return children;
}

std::set<std::string> StepNames(const Json& trace) {
  std::set<std::string> names;
  for (const Json& event : trace.at("traceEvents"))
    if (event.at("ph") == "X" && event.at("cat") == "step") names.insert(event.at("name"));
  return names;
}

class ReportRun : public ::testing::Test {
 protected:
  Json Report(const std::vector<std::string>& args, RunOptions options, int exitCode) {
    options.env["VELTAR_EXTRACTA_REPORT"] = dir / "run.json";
    options.env["EXTRACTA_SIM_LOG"] = dir / "sim.log";
    ProgramRun run(args, options);
    EXPECT_EQ(run.Wait().exitCode, exitCode) << run.Wait().err;
    return Json::parse(ReadFile(dir / "run.json"));
  }

  TempDir dir;
  const std::string design = MakeDesign(dir.path(), 3, 2000);
};

// Starting or ending a process under wine takes up to a few hundred
// milliseconds.
constexpr double kProcessMicroseconds = kOnWindows ? 400000 : 50000;

// One event per child, its start and length those of the child's own log
// (within the launch and a look of the pool), its exit code, files, bytes
// and records; the run's own steps; the lanes named.
TEST_F(ReportRun, TraceHasEveryChildAsItsOwnLogSawIt) {
  RunOptions options;
  options.env = {{"VELTAR_EXTRACTA_SLOTS", "3"}, {"EXTRACTA_SIM_SLEEP_MS", "150"}};
  const Json trace = Report({"-z", design, dir / "out.vlx"}, options, 0);
  const std::vector<SimRun> sims = ReadSimLog(dir / "sim.log");
  const auto children = ChildEvents(trace);
  ASSERT_EQ(children.size(), sims.size());
  ASSERT_EQ(sims.size(), 23u);
  for (const SimRun& sim : sims) {
    SCOPED_TRACE(sim.control);
    ASSERT_TRUE(children.count(sim.control));
    const Json& event = children.at(sim.control);
    // The event holds the child's life as its own log has it: from its
    // start (less the time the start takes to return, the child may be
    // first) to its end and a look of the pool.
    const double start = event.at("ts").get<double>();
    const double end = start + event.at("dur").get<double>();
    EXPECT_LE(start, sim.startNs / 1000.0 + 10000);
    EXPECT_GE(start, sim.startNs / 1000.0 - kProcessMicroseconds);
    EXPECT_GE(end, sim.endNs / 1000.0 - 1000);
    EXPECT_LE(end, sim.endNs / 1000.0 + kProcessMicroseconds);
    EXPECT_EQ(event.at("args").at("exit_code").get<double>(), 0);
    const std::string output = event.at("args").at("output_file").get<std::string>();
    EXPECT_EQ(event.at("name").get<std::string>() + ".txt", Leaf(output));
    EXPECT_GT(event.at("args").at("bytes").get<double>(), 0);
    EXPECT_EQ(event.at("args").at("node").get<std::string>(), "");
  }
  // The survey lists every connectivity record; the cell of the archive
  // holds the same records.
  const Json& survey = children.at("extracta_control_connnets.txt");
  EXPECT_EQ(survey.at("args").at("records").get<double>(), 2000);
  EXPECT_EQ(StepNames(trace), (std::set<std::string>{"survey", "merge", "packing", "delivery"}));
  EXPECT_EQ(trace.at("otherData").at("outcome").get<std::string>(), "succeeded");
  EXPECT_EQ(trace.at("otherData").at("slots").get<double>(), 3);
  EXPECT_GT(trace.at("otherData").at("peak_memory_bytes").get<double>(), 0);
  int lanes = 0;
  for (const Json& event : trace.at("traceEvents"))
    lanes += event.at("ph").get<std::string>() == "M" &&
             event.at("name").get<std::string>() == "thread_name";
  EXPECT_EQ(lanes, 1 + 3);  // the run's own, three slots
}

// After a failure: the failing child's code, the others ended well or by the
// run; after an interrupt: the interrupt, every child ended by the run.
TEST_F(ReportRun, WrittenAfterAFailureAndAnInterrupt) {
  RunOptions failing;
  failing.env = {{"VELTAR_EXTRACTA_SLOTS", "2"},
                 {"EXTRACTA_SIM_MATCH", "extracta_control_paddef.txt"},
                 {"EXTRACTA_SIM_FAIL", "3:ERROR: bad view"},
                 {"EXTRACTA_SIM_SLEEP_MS", "300"}};
  const Json failed = Report({"-z", design, dir / "out.vlx"}, failing, 1);
  EXPECT_THAT(failed.at("otherData").at("outcome").get<std::string>(),
              ::testing::StartsWith("view creation failed (1)"));
  const auto children = ChildEvents(failed);
  ASSERT_TRUE(children.count("extracta_control_paddef.txt"));
  EXPECT_EQ((children.at("extracta_control_paddef.txt")).at("args").at("exit_code").get<double>(),
            3);
  for (const auto& [control, event] : children) {
    const Json& args = event.at("args");
    EXPECT_TRUE(args.at("exit_code").get<double>() == 0 || args.at("ended_by_run").get<bool>() ||
                control == "extracta_control_paddef.txt")
        << control;
  }

  if (kOnWindows)
    GTEST_SKIP() << "an interrupt reaches a console program under wine only from a terminal";
  RunOptions hung;
  hung.env = {{"EXTRACTA_SIM_SLEEP_MS", "600000"}, {"VELTAR_EXTRACTA_REPORT", dir / "run.json"}};
  ProgramRun run({"-z", design, dir / "out.vlx"}, hung);
  ASSERT_TRUE(PollUntil([&] { return run.Survivors().size() >= 2; }, 60));
  SendSignal(run.pid(), SIGINT);
  EXPECT_EQ(run.Wait().exitCode, 1);
  const Json interrupted = Json::parse(ReadFile(dir / "run.json"));
  EXPECT_EQ(interrupted.at("otherData").at("outcome").get<std::string>(),
            "interrupted by signal 2");
  for (const auto& [control, event] : ChildEvents(interrupted))
    EXPECT_TRUE(event.at("args").at("ended_by_run").get<bool>()) << control;
}

// The run's outcome, its lines and its output do not depend on the report.
TEST_F(ReportRun, UnwritableReportIsOneWarningLine) {
  RunOptions options;
  const std::string path = dir / "no such folder/run.json";
  options.env = {{"VELTAR_EXTRACTA_REPORT", path}};
  ProgramRun run({"-z", "-cell", design, dir / "out.vlx"}, options);
  const RunResult& result = run.Wait();
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_TRUE(IsPointerLine(result.out, "VLX file written: "));
  EXPECT_THAT(result.err, ::testing::StartsWith("warning: cannot write the report " + path + ": "));
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
  EXPECT_EQ(ArchiveLeaves(dir / "out.vlx"), kCellFiles);
}

// The page in a real browser: it names every child, draws a bar for each,
// and is no blank picture.
TEST_F(ReportRun, PageNamesEveryChildInARealBrowser) {
  RunOptions options;
  options.env = {{"VELTAR_EXTRACTA_REPORT", dir / "run.html"},
                 {"EXTRACTA_SIM_LOG", dir / "sim.log"},
                 {"VELTAR_EXTRACTA_SLOTS", "4"}};
  ProgramRun run({"-z", design, dir / "out.vlx"}, options);
  ExpectOutcome(run, 0, true, "");
  const std::string page = ReadFile(dir / "run.html");
  for (const char* remote : {"http:", "https:", "<script", "src=", "@import", "url(http"})
    EXPECT_EQ(page.find(remote), std::string::npos) << remote;
  if (kOnWindows) GTEST_SKIP() << "no browser under wine; the page is looked at on Linux";

  const std::string browser = "/usr/bin/chromium";
  ASSERT_TRUE(PathExists(browser)) << "chromium is not installed (scripts/deps.sh installs it)";
  std::vector<std::string> flags = {browser, "--user-data-dir=" + (dir / "profile")};
  for (const char* flag :
       {"--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
        "--disable-background-networking", "--disable-component-update", "--disable-sync",
        "--window-size=1400,900"})
    flags.push_back(flag);
  const std::string url = "file://" + dir / "run.html";
  std::vector<std::string> dump = flags;
  dump.insert(dump.end(), {"--dump-dom", url});
  RunOptions patient;
  patient.timeoutSeconds = 60;
  const RunResult dom = RunProgram(dump, patient);
  ASSERT_EQ(dom.exitCode, 0) << dom.err;
  for (const SimRun& sim : ReadSimLog(dir / "sim.log")) {
    const std::string label = sim.control.substr(17, sim.control.size() - 17 - 4);
    EXPECT_NE(dom.out.find(">" + label + "<"), std::string::npos) << label;
  }
  std::size_t bars = 0;
  for (std::size_t at = dom.out.find("<rect"); at != std::string::npos;
       at = dom.out.find("<rect", at + 1))
    ++bars;
  EXPECT_GE(bars, 23u) << "a bar for every child";

  // Drawn, it is no blank picture: beside an empty page's, its picture
  // takes many times the bytes.
  WriteFile(dir / "empty.html", "<!DOCTYPE html><html><body></body></html>");
  for (const char* page : {"run", "empty"}) {
    std::vector<std::string> shot = flags;
    shot.insert(shot.end(),
                {"--screenshot=" + (dir / page) + ".png", "file://" + (dir / page) + ".html"});
    const RunResult drawn = RunProgram(shot, patient);
    ASSERT_EQ(drawn.exitCode, 0) << drawn.err;
  }
  EXPECT_GT(ReadFile(dir / "run.png").size(), 10 * ReadFile(dir / "empty.png").size());
}

// The two forms from data: what a name or a path holds reaches the trace
// and the page escaped, and a failed child stands out.
TEST(ReportFormats, NamesAreEscapedAndAFailureStandsOut) {
  RunRecord run;
  run.design = "/d/a \"b\" <c>.mcm";
  run.outcome = "view creation failed (1): extracta exited with non-zero exit code 3";
  run.startUs = 1000000;
  run.endUs = 3000000;
  ReportChild child;
  child.label = "conn0_A<B>_PIN";
  child.controlFile = "/w/extracta_control_conn0_A_B__PIN.txt\n";
  child.startUs = 1100000;
  child.endUs = 2000000;
  child.ended = true;
  child.exitCode = 3;
  child.node = "n1";
  child.slot = 2;
  run.children = {child};
  const Json trace = Json::parse(TraceJson(run));
  EXPECT_EQ(trace.at("otherData").at("design").get<std::string>(), run.design);
  const auto children = ChildEvents(trace);
  ASSERT_EQ(children.size(), 1u);
  const Json& event = children.begin()->second;
  EXPECT_EQ(event.at("name").get<std::string>(), child.label);
  EXPECT_EQ(event.at("dur").get<double>(), 900000);
  EXPECT_EQ(event.at("args").at("exit_code").get<double>(), 3);
  EXPECT_EQ(LaneName(child), "n1 slot 2");
  const std::string page = ReportPage(run);
  EXPECT_NE(page.find("conn0_A&lt;B&gt;_PIN (exit 3)"), std::string::npos);
  EXPECT_NE(page.find("<tr class=\"failed\">"), std::string::npos);
  EXPECT_EQ(page.find("<c>"), std::string::npos);
}

TEST(CommandLineIntroduction, VersionHelpAndTheUsageLine) {
  ProgramRun version({"--version"});
  const RunResult& v = version.Wait();
  EXPECT_EQ(v.exitCode, 0);
  // std::regex: gtest's own regular expressions differ between the systems.
  EXPECT_TRUE(std::regex_match(v.out, std::regex("VelExtracta [0-9]+\\.[0-9]+\\.[0-9]+\n")))
      << v.out;
  ProgramRun help({"--help"});
  const RunResult& h = help.Wait();
  EXPECT_EQ(h.exitCode, 0);
  for (const char* variable :
       {"VELTAR_EXTRACTA_DEBUG", "VELTAR_EXTRACTA_PATHOVERRIDE", "VELTAR_EXTRACTA_LAUNCHER",
        "VELTAR_EXTRACTA_SLOTS", "VELTAR_EXTRACTA_REPORT", "-cell", "-add", "usage:"})
    EXPECT_NE(h.out.find(variable), std::string::npos) << variable;
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{}, std::vector<std::string>{"one.mcm"}}) {
    ProgramRun run(args);
    ExpectOutcome(run, 1, false,
                  "usage: VelExtracta [-z] [-cell] [-n NET,NET...] [-add FILE,FILE...] "
                  "DESIGN.mcm OUTPUT\n");
  }
}

}  // namespace
