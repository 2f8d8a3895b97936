// ExtractaExecutor: the working directory's replacement and removal, and a
// clash with another run's. The one-process run and its failures are shown
// end to end (tests/e2e, tests/faults).

#include "executor/ExtractaExecutor.h"

#include <ctime>
#include <filesystem>
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
  tm utc = *std::gmtime(&now);
  utc.tm_isdst = -1;  // the local offset at that moment, summer time included
  return static_cast<long>(now + (now - std::mktime(&utc)));
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
// then, whatever its value, it keeps the directory.
TEST_F(ExecutorTest, WorkingDirIsReplacedAndRemovedUnlessDebugging) {
  for (const bool debug : {true, false}) {
    {
      std::optional<ScopedEnv> keep;
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
      if (debug) keep.emplace("VELTAR_EXTRACTA_DEBUG", "0");
    }
    EXPECT_EQ(ListDir(base.path()).size(), debug ? 1u : 0u);
    std::filesystem::remove_all(base.path() + "/");
    veltest::MakeDirectory(base.path());
  }
}

// Two runs on one base in one second compute the same name. The later one
// fails, and neither it nor its destructor touches the earlier run's files.
TEST_F(ExecutorTest, AClashingRunKeepsTheEarlierDirectory) {
  // The earlier run's directories for every second this test may take.
  const long now = LocalSecondsNow();
  for (long n = now - 1; n <= now + 30; ++n) {
    const std::string dir = base / ("extract" + std::to_string(n));
    veltest::MakeDirectory(dir);
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

}  // namespace
