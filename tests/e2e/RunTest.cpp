// The built program run as a user runs it: no design,
// what a run delivers, and where it works. How options are scanned is held
// to the rules on the command line fuzz target's seeds (tests/replay). Failures of the extractor
// and of delivery are rows of the fault matrix (tests/faults).

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

TEST(CommandLineRunTest, AMissingDesignIsReportedBeforeAnythingIsCreated) {
  TempDir dir;
  ProgramRun missing({"-z", "-cell", dir / "absent.mcm", dir / "out.vlx"});
  EXPECT_EQ(missing.Wait().exitCode, 1);
  EXPECT_EQ(missing.Wait().out, "");
  EXPECT_TRUE(IsPointerLine(missing.Wait().err, "mcm file does not exist: ")) << missing.Wait().err;
  EXPECT_TRUE(ListDir(dir.path()).empty());
  // The cause is traced; the line stays as it is.
  RunOptions debug;
  debug.env["VELTAR_EXTRACTA_DEBUG"] = "";
  ProgramRun traced({"-z", "-cell", dir / "absent.mcm", dir / "out.vlx"}, debug);
  EXPECT_NE(traced.Wait().err.find(": No such file or directory\n"), std::string::npos);

  // Any existing object passes the check, a directory too; extracta then
  // refuses it.
  MakeDirectory(dir / "folder.mcm");
  ProgramRun folder({"-z", "-cell", dir / "folder.mcm", dir / "out.vlx"});
  ExpectOutcome(folder, 1, false, "view creation failed (1).\n");
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"folder.mcm"});
}

}  // namespace

// On a terminal, standard error carries one status line rewritten in place
// and erased before any other line; with the debug variable set, nothing of
// it. (On a pipe there is none either: every other run checks standard error
// whole.)
TEST(TerminalRunTest, AStatusLineShowsOnATerminalOnly) {
  VEL_SKIP_ON_WINDOWS("pseudo-terminals; wine gives a console program none");
  TempDir dir;
  const std::string design = MakeDesign(dir.path(), 11, 60000);
  struct Case {
    int columns;
    bool outputOnTerminal;
    EnvMap env;
    int exitCode;
    std::string lastLine;  // after the last erase; "VLX": the pointer line; "": no status
  };
  const std::vector<Case> cases = {
      {30, true, {}, 0, "VLX"},
      {200,
       false,
       {{"EXTRACTA_SIM_MATCH", "*remainder*"}, {"EXTRACTA_SIM_FAIL", "3:no"}},
       1,
       "view creation failed (1).\n"},
      // Last: the working directory it keeps would clash with a later run's.
      {80, false, {{"VELTAR_EXTRACTA_DEBUG", ""}}, 0, ""},
  };
  const std::string erase = "\x1b[K";
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    // A pseudo-terminal of that width from script(1); what it showed is the
    // run's output, each line feed turned into CR LF on the way.
    RunOptions options;
    options.env = cases[i].env;
    options.wrapper = {"/bin/sh", "-c",
                       "exec script -qec \"stty cols $0 rows 24; exec $*" +
                           std::string(cases[i].outputOnTerminal ? "" : " >/dev/null") +
                           "\" /dev/null",
                       std::to_string(cases[i].columns)};
    ProgramRun run({"-z", design, dir / ("out" + std::to_string(i) + ".vlx")}, options);
    const std::string shown = WithoutCarriageReturns(run.Wait().out);
    EXPECT_EQ(run.Wait().exitCode, cases[i].exitCode) << shown;
    if (cases[i].lastLine.empty()) {
      EXPECT_EQ(shown.find_first_of("\r\x1b"), std::string::npos) << shown;
      continue;
    }
    // Every update is "\r[done/total] ..." erased to the end of the line; the
    // last erase leaves the outcome line standing alone.
    const std::string last = shown.substr(shown.rfind("\r" + erase) + 1 + erase.size());
    if (cases[i].lastLine == "VLX")
      EXPECT_TRUE(IsPointerLine(last, "VLX file written: ")) << shown;
    else
      EXPECT_EQ(last, cases[i].lastLine);
    std::vector<std::string> updates;
    for (std::size_t at = shown.find("\r["); at != std::string::npos;
         at = shown.find("\r[", at + 1)) {
      const std::string text = shown.substr(at + 1, shown.find(erase, at) - at - 1);
      unsigned done = 0, total = 0;
      ASSERT_EQ(std::sscanf(text.c_str(), "[%u/%u]", &done, &total), 2) << text;
      EXPECT_LE(done, total) << text;
      EXPECT_LT(text.length(), static_cast<std::size_t>(cases[i].columns)) << text;
      if (updates.empty() || updates.back() != text) updates.push_back(text);
    }
    EXPECT_GE(updates.size(), 3u) << shown;
  }
}
