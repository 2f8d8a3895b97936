#include "executor/ExtractaExecutor.h"

#include <sys/stat.h>

#include <ctime>
#include <optional>

#include <gtest/gtest.h>

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

// The single "extract<number>" entry of a directory, or "" when there is none.
std::string OnlyWorkingDir(const std::string& base) {
  std::string found;
  for (const auto& name : ListDir(base))
    if (name.rfind("extract", 0) == 0) {
      if (!found.empty()) return "";
      found = name;
    }
  return found;
}

// Sets the time zone of this process while it lives.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const std::string& zone) : env_(std::in_place, "TZ", zone) { tzset(); }
  ~ScopedTimeZone() {
    env_.reset();
    tzset();
  }

 private:
  std::optional<ScopedEnv> env_;
};

long RunNumberOf(const std::string& directoryName) {
  return std::stol(directoryName.substr(std::string("extract").size()));
}

// A stand-in for extracta: records its directory and arguments in `log`,
// writes a small view file for every output argument (the arguments after the
// switches, the design file and the control file) and exits with `exitCode`
// after printing `message`.
std::string WriteFakeExtracta(const TempDir& dir, const std::string& log, int exitCode = 0,
                              const std::string& message = "") {
  const std::string path = dir / "fake-extracta";
  WriteFile(path,
            "#!/bin/sh\n"
            "{ pwd; for a in \"$@\"; do echo \"$a\"; done; } > '" +
                log +
                "'\n"
                "shift 5\n"
                "for f in \"$@\"; do printf 'A!X!\\r\\n' > \"$f\"; done\n"
                "printf '%s' '" +
                message + "'\nexit " + std::to_string(exitCode) + "\n");
  ::chmod(path.c_str(), 0755);
  return path;
}

TEST(ExtractaExecutorTest, AFreshExecutorOwnsNothingAndRemovesNothing) {
  TempDir base;
  {
    ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
    ExtractaExecutor executor;
    EXPECT_FALSE(executor.getWorkingDir().IsInitialized());
    EXPECT_TRUE(executor.getErrorMessage().empty());
    EXPECT_TRUE(executor.deleteWorkingDir());
  }
  EXPECT_TRUE(ListDir(base.path()).empty());
  EXPECT_TRUE(PathExists(base.path()));
}

TEST(ExtractaExecutorTest, WorkingDirIsNamedByLocalWallClockSecondsUnderTheBase) {
  TempDir base;
  ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
  // Five hours east of UTC: the run number is ahead of the UTC seconds by that much.
  ScopedTimeZone zone("XST-5");
  const long before = LocalSecondsNow();
  const long utc = static_cast<long>(std::time(nullptr));
  {
    ExtractaExecutor executor;
    ASSERT_TRUE(executor.createWorkingDir(AString(base.path() + "/")));
    const long after = LocalSecondsNow();
    const std::string name = OnlyWorkingDir(base.path());
    ASSERT_FALSE(name.empty());
    EXPECT_GE(RunNumberOf(name), before);
    EXPECT_LE(RunNumberOf(name), after);
    EXPECT_GE(RunNumberOf(name) - utc, 5 * 3600);
    EXPECT_LE(RunNumberOf(name) - utc, 5 * 3600 + 5);
    // No doubled separator between the base and "extract".
    EXPECT_EQ(VEL_ANSI(executor.getWorkingDir().FilePath()), base.path() + "/" + name + "/");
  }
  EXPECT_TRUE(ListDir(base.path()).empty());
}

TEST(ExtractaExecutorTest, ANewWorkingDirReplacesTheExecutorsPreviousOne) {
  TempDir first, second;
  ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
  ExtractaExecutor executor;
  ASSERT_TRUE(executor.createWorkingDir(AString(first.path())));
  const std::string firstName = OnlyWorkingDir(first.path());
  ASSERT_FALSE(firstName.empty());
  WriteFile(first / firstName + "/layer.txt", "S!1!\r\n");

  // Debug mode keeps a run's directory at its end, not when it makes a new one.
  ScopedEnv keep("VELTAR_EXTRACTA_DEBUG", "");
  ASSERT_TRUE(executor.createWorkingDir(AString(second.path())));
  EXPECT_TRUE(ListDir(first.path()).empty());
  EXPECT_FALSE(OnlyWorkingDir(second.path()).empty());
}

TEST(ExtractaExecutorTest, ABaseThatIsNotADirectoryIsReported) {
  TempDir dir;
  WriteFile(dir / "design.mcm", "J!\r\n");
  for (const std::string& base : {dir / "missing", dir / "design.mcm"}) {
    ScopedAssertCapture capture;
    ExtractaExecutor executor;
    std::vector<ActiveView> views;
    EXPECT_FALSE(executor.createExtractaViews(AString(dir / "design.mcm"), AString(base),
                                              kCellViews, {}, views));
    EXPECT_TRUE(capture.Saw("ExtractaExecutor",
                            "!\"VelLinkServer::createWorkingDir, can't find workingdirpath\""));
    EXPECT_EQ(VEL_ANSI(executor.getErrorMessage()),
              "Could not find working directory at \"" + base + "\"");
    EXPECT_FALSE(executor.getWorkingDir().IsInitialized());
    EXPECT_TRUE(views.empty());
  }
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"design.mcm"});
}

// Two runs on one base in one second compute the same name. The later one
// fails, and neither it nor its destructor touches the earlier run's files.
TEST(ExtractaExecutorTest, AClashingRunNeverRemovesTheDirectoryItDidNotCreate) {
  TempDir base;
  ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
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
    ASSERT_TRUE(executor.getWorkingDir().IsInitialized());
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

TEST(ExtractaExecutorTest, TheDebugVariableIsReadWhenTheExecutorIsDestroyed) {
  TempDir base;
  std::string kept;
  {
    ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
    ExtractaExecutor executor;
    ASSERT_TRUE(executor.createWorkingDir(AString(base.path())));
    kept = VEL_ANSI(executor.getWorkingDir().FilePath());
    setenv("VELTAR_EXTRACTA_DEBUG", "", 1);  // defined, even empty, keeps it
  }
  EXPECT_TRUE(PathExists(kept));
  ::rmdir(kept.c_str());

  {
    ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", "1");
    ExtractaExecutor executor;
    ASSERT_TRUE(executor.createWorkingDir(AString(base.path())));
    WriteFile(VEL_ANSI(executor.getWorkingDir().FilePath()) + "conn.txt", "S!1!\r\n");
    unsetenv("VELTAR_EXTRACTA_DEBUG");
  }
  EXPECT_TRUE(ListDir(base.path()).empty());
}

TEST(ExtractaExecutorTest, TheCellSetRunsOneExtractaOnOneControlFile) {
  TempDir dir, tools;
  ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
  const std::string log = tools / "log";
  ScopedEnv extracta("VELTAR_EXTRACTA_PATHOVERRIDE", WriteFakeExtracta(tools, log));
  WriteFile(dir / "design.mcm", "J!\r\n");

  ExtractaExecutor executor;
  std::vector<ActiveView> views = {{kNet, AString("earlier")}};
  ASSERT_TRUE(executor.createExtractaViews(AString(dir / "design.mcm"), AString(dir.path()),
                                           kCellViews, {AString("VDD")}, views))
      << VEL_ANSI(executor.getErrorMessage());
  const std::string work = VEL_ANSI(executor.getWorkingDir().FilePath());

  EXPECT_EQ(ListDir(work), (std::vector<std::string>{"cconn.txt", "cfullgeo.txt", "diestack.txt",
                                                     "extracta_control.txt", "layer.txt"}));
  const std::string control = ReadFile(work + "extracta_control.txt");
  EXPECT_EQ(control.rfind("LAYER\r\n", 0), 0u);
  EXPECT_NE(control.find("NET_NAME ='VDD'"), std::string::npos);

  // The child ran in the working directory, with the output files in block order.
  EXPECT_EQ(ReadFile(log), work.substr(0, work.size() - 1) + "\n-k\n-c\n-m\n" + dir.path() +
                               "/design.mcm\n" + work + "extracta_control.txt\n" + work +
                               "layer.txt\n" + work + "cfullgeo.txt\n" + work + "cconn.txt\n" +
                               work + "diestack.txt\n");

  // The new views go in front of what the list held.
  ASSERT_EQ(views.size(), 5u);
  EXPECT_EQ(views[0], (ActiveView{kLayer, AString(work + "layer.txt")}));
  EXPECT_EQ(views[3], (ActiveView{kDieStack, AString(work + "diestack.txt")}));
  EXPECT_EQ(views[4], (ActiveView{kNet, AString("earlier")}));
}

TEST(ExtractaExecutorTest, AFailingExtractaIsReportedWithWhatItPrinted) {
  TempDir dir, tools;
  ScopedEnv debug("VELTAR_EXTRACTA_DEBUG", std::nullopt);
  WriteFile(dir / "design.mcm", "J!\r\n");
  const std::string fake = WriteFakeExtracta(tools, tools / "log", 3, "ERROR: bad view");

  struct Case {
    std::string extracta;
    std::string message;
  } cases[] = {
      {fake, "extracta run failed: " + fake + " exited with non-zero exit code 3: ERROR: bad view"},
      {tools / "missing",
       "extracta run failed: CreateProcess failed with error 2: Could not find application " +
           tools / "missing"},
  };
  for (const Case& c : cases) {
    ScopedEnv extracta("VELTAR_EXTRACTA_PATHOVERRIDE", c.extracta);
    std::vector<ActiveView> views;
    {
      ExtractaExecutor executor;
      EXPECT_FALSE(executor.createExtractaViews(AString(dir / "design.mcm"), AString(dir.path()),
                                                kCellViews, {}, views));
      EXPECT_EQ(VEL_ANSI(executor.getErrorMessage()), c.message);
      EXPECT_TRUE(views.empty());
      EXPECT_TRUE(LFN_IsExistingDirectory(executor.getWorkingDir()));
    }
    EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"design.mcm"});
  }
}

}  // namespace
