// The run's report (VELTAR_EXTRACTA_REPORT): the trace held against the
// stand-in's own log of every child, after a success, a failure and an
// interrupt; the page rendered by a real browser; a report that cannot be
// written; and the program introducing itself.

#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/ReportFormats.h"
#include "process/RunObserver.h"
#include "tests/report/Json.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

// The trace's child events by their control file's name.
std::map<std::string, const Json*> ChildEvents(const Json& trace) {
  std::map<std::string, const Json*> children;
  for (const Json& event : trace["traceEvents"].items)
    if (event["ph"].text == "X" && event["cat"].text == "extracta")
      children[Leaf(event["args"]["control_file"].text)] = &event;
  return children;
}

std::set<std::string> StepNames(const Json& trace) {
  std::set<std::string> names;
  for (const Json& event : trace["traceEvents"].items)
    if (event["ph"].text == "X" && event["cat"].text == "step") names.insert(event["name"].text);
  return names;
}

class ReportRun : public ::testing::Test {
 protected:
  Json Report(const std::vector<std::string>& args, RunOptions options, int exitCode) {
    options.env["VELTAR_EXTRACTA_REPORT"] = dir / "run.json";
    options.env["EXTRACTA_SIM_LOG"] = dir / "sim.log";
    ProgramRun run(args, options);
    EXPECT_EQ(run.Wait().exitCode, exitCode) << run.Wait().err;
    return ParseJson(ReadFile(dir / "run.json"));
  }

  TempDir dir;
  const std::string design = MakeDesign(dir.path(), 3, 2000);
};

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
    const Json& event = *children.at(sim.control);
    EXPECT_NEAR(event["ts"].number, sim.startNs / 1000.0, 50000);
    EXPECT_NEAR(event["dur"].number, (sim.endNs - sim.startNs) / 1000.0, 50000);
    EXPECT_EQ(event["args"]["exit_code"].number, 0);
    const std::string output = event["args"]["output_file"].text;
    EXPECT_EQ(event["name"].text + ".txt", Leaf(output));
    EXPECT_GT(event["args"]["bytes"].number, 0);
    EXPECT_EQ(event["args"]["node"].text, "");
  }
  // The survey lists every connectivity record; the cell of the archive
  // holds the same records.
  const Json& survey = *children.at("extracta_control_connnets.txt");
  EXPECT_EQ(survey["args"]["records"].number, 2000);
  EXPECT_EQ(StepNames(trace), (std::set<std::string>{"survey", "merge", "packing", "delivery"}));
  EXPECT_EQ(trace["otherData"]["outcome"].text, "succeeded");
  EXPECT_EQ(trace["otherData"]["slots"].number, 3);
  EXPECT_GT(trace["otherData"]["peak_memory_bytes"].number, 0);
  int lanes = 0;
  for (const Json& event : trace["traceEvents"].items)
    lanes += event["ph"].text == "M" && event["name"].text == "thread_name";
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
  EXPECT_THAT(failed["otherData"]["outcome"].text,
              ::testing::StartsWith("view creation failed (1)"));
  const auto children = ChildEvents(failed);
  ASSERT_TRUE(children.count("extracta_control_paddef.txt"));
  EXPECT_EQ((*children.at("extracta_control_paddef.txt"))["args"]["exit_code"].number, 3);
  for (const auto& [control, event] : children) {
    const Json& args = (*event)["args"];
    EXPECT_TRUE(args["exit_code"].number == 0 || args["ended_by_run"].boolean ||
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
  const Json interrupted = ParseJson(ReadFile(dir / "run.json"));
  EXPECT_EQ(interrupted["otherData"]["outcome"].text, "interrupted by signal 2");
  for (const auto& [control, event] : ChildEvents(interrupted))
    EXPECT_TRUE((*event)["args"]["ended_by_run"].boolean) << control;
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

// The pixels of a PNG that a browser wrote (8 bits per channel, RGB or
// RGBA, not interlaced): how many distinct colours it holds.
std::size_t DistinctColours(const std::string& png) {
  const auto number = [&](std::size_t at) {
    return (uint32_t(uint8_t(png[at])) << 24) | (uint32_t(uint8_t(png[at + 1])) << 16) |
           (uint32_t(uint8_t(png[at + 2])) << 8) | uint8_t(png[at + 3]);
  };
  uint32_t width = 0, height = 0, channels = 0;
  std::string compressed;
  for (std::size_t at = 8; at + 8 <= png.size();) {
    const uint32_t length = number(at);
    const std::string type = png.substr(at + 4, 4);
    if (type == "IHDR") {
      width = number(at + 8);
      height = number(at + 12);
      channels = png[at + 17] == 6 ? 4 : png[at + 17] == 2 ? 3 : 0;
    }
    if (type == "IDAT") compressed += png.substr(at + 8, length);
    at += 12 + length;
  }
  if (channels == 0) return 0;
  const std::size_t stride = width * channels;
  std::string raw((stride + 1) * height, '\0');
  uLongf size = static_cast<uLongf>(raw.size());
  if (uncompress(reinterpret_cast<Bytef*>(&raw[0]), &size,
                 reinterpret_cast<const Bytef*>(compressed.data()), compressed.size()) != Z_OK)
    return 0;
  std::vector<uint8_t> previous(stride, 0), row(stride);
  std::set<uint32_t> colours;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t filter = raw[y * (stride + 1)];
    for (std::size_t i = 0; i < stride; ++i) {
      const int a = i >= channels ? row[i - channels] : 0, b = previous[i];
      const int c = i >= channels ? previous[i - channels] : 0;
      const int p = a + b - c;
      const int predicted =
          filter == 1   ? a
          : filter == 2 ? b
          : filter == 3 ? (a + b) / 2
          : filter == 4 ? (std::abs(p - a) <= std::abs(p - b) && std::abs(p - a) <= std::abs(p - c))
                              ? a
                          : std::abs(p - b) <= std::abs(p - c) ? b
                                                               : c
                        : 0;
      row[i] = static_cast<uint8_t>(uint8_t(raw[y * (stride + 1) + 1 + i]) + predicted);
    }
    for (uint32_t x = 0; x < width; x += 3)
      colours.insert((uint32_t(row[x * channels]) << 16) | (row[x * channels + 1] << 8) |
                     row[x * channels + 2]);
    previous = row;
  }
  return colours.size();
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
  const std::vector<std::string> flags = {browser,
                                          "--headless",
                                          "--no-sandbox",
                                          "--disable-gpu",
                                          "--disable-quic",
                                          "--no-first-run",
                                          "--disable-background-networking",
                                          "--disable-component-update",
                                          "--disable-sync",
                                          "--user-data-dir=" + (dir / "profile"),
                                          "--window-size=1400,900"};
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

  std::vector<std::string> shot = flags;
  shot.insert(shot.end(), {"--screenshot=" + (dir / "page.png"), url});
  const RunResult drawn = RunProgram(shot, patient);
  ASSERT_EQ(drawn.exitCode, 0) << drawn.err;
  EXPECT_GT(DistinctColours(ReadFile(dir / "page.png")), 20u) << "a blank page";
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
  const Json trace = ParseJson(TraceJson(run));
  EXPECT_EQ(trace["otherData"]["design"].text, run.design);
  const auto children = ChildEvents(trace);
  ASSERT_EQ(children.size(), 1u);
  const Json& event = *children.begin()->second;
  EXPECT_EQ(event["name"].text, child.label);
  EXPECT_EQ(event["dur"].number, 900000);
  EXPECT_EQ(event["args"]["exit_code"].number, 3);
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
  EXPECT_THAT(v.out, ::testing::MatchesRegex("VelExtracta [0-9]+\\.[0-9]+\\.[0-9]+\n"));
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
