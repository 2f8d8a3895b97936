// ExtractaExecutor: the working directory's name, place and removal, and the
// one-process run with its failures. The local clock's time zone and two real
// runs clashing are shown end to end (tests/e2e/WorkingDirRunTest.cpp).

#include "executor/ExtractaExecutor.h"

#include <sys/stat.h>

#include <ctime>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "core/VelAssert.h"
#include "tests/support/TestSupport.h"

namespace {

using veltest::ListDir;
using veltest::PathExists;
using veltest::ReadFile;
using veltest::ScopedEnv;
using veltest::TempDir;
using veltest::WriteFile;

// Seconds since 1970 of the local wall clock now.
long LocalSecondsNow() {
  const time_t now = std::time(nullptr);
  tm local;
  localtime_r(&now, &local);
  return static_cast<long>(now) + local.tm_gmtoff;
}

// A stand-in for extracta: records its directory and arguments in `log`,
// writes a small view file for every output argument (those after the
// switches, the design file and the control file) unless told not to, and
// exits with `exitCode` after printing `message`.
std::string WriteFakeExtracta(const TempDir& dir, const std::string& log, int exitCode = 0,
                              const std::string& message = "", bool writesViews = true) {
  const std::string path =
      dir / ("extracta-" + std::to_string(exitCode) + (writesViews ? "" : "-n"));
  WriteFile(path,
            "#!/bin/sh\n{ pwd; for a in \"$@\"; do echo \"$a\"; done; } > '" + log +
                "'\nshift 5\n" +
                (writesViews ? "for f in \"$@\"; do printf 'A!X!\\r\\n' > \"$f\"; done\n" : "") +
                "printf '%s' '" + message + "'\nexit " + std::to_string(exitCode) + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

// Every test starts without the debug variable: the executor removes its
// working directory when destroyed.
class ExecutorTest : public ::testing::Test {
 protected:
  ScopedEnv debug{"VELTAR_EXTRACTA_DEBUG", std::nullopt};
  TempDir base;
};

// The local clock's number names the directory (end to end, with a time zone:
// tests/e2e). The debug variable is read when the executor goes: defined
// then, even empty, it keeps the directory.
TEST_F(ExecutorTest, WorkingDirIsReplacedAndRemovedUnlessDebugging) {
  for (const bool debug : {true, false}) {
    {
      ExtractaExecutor executor;
      EXPECT_TRUE(executor.deleteWorkingDir()) << "a fresh executor has nothing to remove";
      // With or without the base's separator, none is doubled; a new working
      // directory replaces the previous one.
      for (const char* separator : {"/", ""}) {
        ASSERT_TRUE(executor.createWorkingDir(AString(base.path() + separator)));
        const std::vector<std::string> names = ListDir(base.path());
        ASSERT_EQ(names.size(), 1u);
        EXPECT_EQ(VEL_ANSI(executor.getWorkingDir().FilePath()), base / names[0] + "/");
        WriteFile(base / names[0] + "/layer.txt", "S!1!\r\n");
      }
      if (debug) setenv("VELTAR_EXTRACTA_DEBUG", "", 1);
    }
    unsetenv("VELTAR_EXTRACTA_DEBUG");
    EXPECT_EQ(ListDir(base.path()).size(), debug ? 1u : 0u);
    boost::filesystem::remove_all(base.path() + "/");
    ::mkdir(base.path().c_str(), 0700);
  }
}

// Two runs on one base in one second compute the same name. The later one
// fails, and neither it nor its destructor touches the earlier run's files.
TEST_F(ExecutorTest, AClashingRunKeepsTheEarlierDirectory) {
  // The earlier run's directories for every second this test may take.
  const long now = LocalSecondsNow();
  for (long n = now - 1; n <= now + 30; ++n) {
    const std::string dir = base / ("extract" + std::to_string(n));
    ::mkdir(dir.c_str(), 0777);
    WriteFile(dir + "/layer.txt", "S!earlier!\r\n");
  }
  const auto earlier = ListDir(base.path());
  {
    ScopedAssertCapture capture;
    ExtractaExecutor executor;
    EXPECT_FALSE(executor.createWorkingDir(AString(base.path())));
    EXPECT_TRUE(
        capture.Saw("ExtractaExecutor",
                    "!\"VelLinkServer::createExtractaViews, could not create working directory\""));
    // The name that could not be created stays the executor's working directory.
    const std::string clash = VEL_ANSI(executor.getWorkingDir().FilePath());
    EXPECT_EQ(clash.rfind(base.path() + "/extract", 0), 0u) << clash;
    EXPECT_EQ(VEL_ANSI(executor.getErrorMessage()),
              "Could not create working directory at \"" + clash + "\"");
    EXPECT_TRUE(executor.deleteWorkingDir());
    EXPECT_EQ(ReadFile(clash + "layer.txt"), "S!earlier!\r\n");
  }
  EXPECT_EQ(ListDir(base.path()), earlier);
  for (const auto& name : earlier)
    EXPECT_EQ(ReadFile(base / name + "/layer.txt"), "S!earlier!\r\n");
}

TEST_F(ExecutorTest, TheCellSetRunsOneExtractaOnOneControlFile) {
  TempDir tools;
  const std::string log = tools / "log";
  ScopedEnv extracta("VELTAR_EXTRACTA_PATHOVERRIDE", WriteFakeExtracta(tools, log));
  WriteFile(base / "design.mcm", "J!\r\n");

  ExtractaExecutor executor;
  std::vector<ActiveView> views = {{kNet, AString("earlier")}};
  ASSERT_TRUE(executor.createExtractaViews(AString(base / "design.mcm"), AString(base.path()),
                                           kCellViews, {AString("VDD")}, views))
      << VEL_ANSI(executor.getErrorMessage());
  const std::string work = VEL_ANSI(executor.getWorkingDir().FilePath());

  EXPECT_NE(ReadFile(work + "extracta_control.txt").find("NET_NAME ='VDD'"), std::string::npos);

  // The child ran in the working directory, with the output files in block order.
  EXPECT_EQ(ReadFile(log), work.substr(0, work.size() - 1) + "\n-k\n-c\n-m\n" + base.path() +
                               "/design.mcm\n" + work + "extracta_control.txt\n" + work +
                               "layer.txt\n" + work + "cfullgeo.txt\n" + work + "cconn.txt\n" +
                               work + "diestack.txt\n");

  // The new views go in front of what the list held.
  ASSERT_EQ(views.size(), 5u);
  EXPECT_EQ(views[0], (ActiveView{kLayer, AString(work + "layer.txt")}));
  EXPECT_EQ(views[3], (ActiveView{kDieStack, AString(work + "diestack.txt")}));
  EXPECT_EQ(views[4], (ActiveView{kNet, AString("earlier")}));
}

TEST_F(ExecutorTest, FailuresAreReportedAndLeaveNothingBehind) {
  TempDir tools;
  WriteFile(base / "design.mcm", "J!\r\n");
  const std::string failing = WriteFakeExtracta(tools, tools / "log", 3, "ERROR: bad view");
  const std::string prefix = "extracta run failed: ";
  const std::string noBase = "!\"VelLinkServer::createWorkingDir, can't find workingdirpath\"";
  struct Case {
    std::string extracta, base, message, assertion;  // "@": the working directory
  } cases[] = {
      {failing, base.path(),
       prefix + failing + " exited with non-zero exit code 3: ERROR: bad view", ""},
      {tools / "missing", base.path(),
       prefix + "CreateProcess failed with error 2: Could not find application " +
           tools / "missing",
       ""},
      // A success without the view files is no success.
      {WriteFakeExtracta(tools, tools / "log", 0, "", false), base.path(),
       prefix + "extracta wrote no view file @layer.txt", ""},
      {failing, base / "missing",
       "Could not find working directory at \"" + base / "missing" + "\"", noBase},
      {failing, base / "design.mcm",
       "Could not find working directory at \"" + base / "design.mcm" + "\"", noBase},
  };
  for (const Case& c : cases) {
    ScopedEnv extracta("VELTAR_EXTRACTA_PATHOVERRIDE", c.extracta);
    ScopedAssertCapture capture;
    std::vector<ActiveView> views;
    {
      ExtractaExecutor executor;
      EXPECT_FALSE(executor.createExtractaViews(AString(base / "design.mcm"), AString(c.base),
                                                kCellViews, {}, views));
      std::string expected = c.message;
      if (expected.find('@') != std::string::npos)
        expected.replace(expected.find('@'), 1, VEL_ANSI(executor.getWorkingDir().FilePath()));
      EXPECT_EQ(VEL_ANSI(executor.getErrorMessage()), expected);
      EXPECT_TRUE(views.empty());
      // Without a base no working directory was made; otherwise it is there
      // until the executor goes.
      EXPECT_EQ(LFN_IsExistingDirectory(executor.getWorkingDir()), c.assertion.empty());
    }
    EXPECT_EQ(capture.reports().size(), c.assertion.empty() ? 0u : 1u);
    EXPECT_TRUE(c.assertion.empty() || capture.Saw("ExtractaExecutor", c.assertion));
    EXPECT_EQ(ListDir(base.path()), std::vector<std::string>{"design.mcm"});
  }
}

}  // namespace
