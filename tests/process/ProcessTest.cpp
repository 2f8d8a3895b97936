// The process primitives below the generator: how a command line is split,
// the activity wait, and the pipe reader. What every extracta child gets is shown through the
// generator (ExtractaViewGeneratorTest.cpp).

#ifndef _WIN32
#include <signal.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/Interrupt.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "core/VelAssert.h"
#include "tests/process/ChildProcesses.h"

namespace {

using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;

// Starts vel-test-child in a group of its own with both its output streams
// on the pipe, doing `actions`.
int Start(const std::string& actions, VeltProcessHandle& handle, const CPipe& pipe) {
  veltest::ScopedEnv does("VEL_TEST_CHILD", actions);
  const AString argv0(veltest::ChildProgram());
  return VeltCreateProcess(AString(), &argv0, 1, handle, AString(), nullptr, nullptr,
                           pipe.WriteHandle(), 0, false, true, true, nullptr);
}

// How long the activity wait sleeps, with a bound far beyond any wake-up in
// these tests, so that a broken wake-up fails instead of hanging.
Clock::duration TimeAsleep(const std::vector<VeltProcessHandle>& children, const CPipe& pipe) {
  const auto start = Clock::now();
  VeltWaitForChildActivity(children, {pipe.ReadHandle()}, 60000);
  return Clock::now() - start;
}

TEST(CommandLineSplit, FollowsTheWindowsRuntimeRules) {
  EXPECT_THAT(VeltSplitCommandLine(R"(-k -c "a b/c.mcm" "d")"),
              ElementsAre("-k", "-c", "a b/c.mcm", "d"));
  EXPECT_THAT(VeltSplitCommandLine(" a\"b c\"d\te "), ElementsAre("ab cd", "e"));
  EXPECT_THAT(VeltSplitCommandLine(R"("" x "")"), ElementsAre("", "x", ""));
  EXPECT_THAT(VeltSplitCommandLine(R"(C:\dir\file \\server\share)"),
              ElementsAre(R"(C:\dir\file)", R"(\\server\share)"));
  // 2n+1 backslashes before a quote: n backslashes and a literal quote.
  EXPECT_THAT(VeltSplitCommandLine(R"(a\"b a\\\"b)"), ElementsAre(R"(a"b)", R"(a\"b)"));
  // 2n backslashes before a quote: n backslashes, and the quote groups.
  EXPECT_THAT(VeltSplitCommandLine(R"(a\\"b c" "d\\")"), ElementsAre(R"(a\b c)", R"(d\)"));
  // Two quotes inside a quoted part give one quote and the part goes on.
  EXPECT_THAT(VeltSplitCommandLine(R"("ab""c d" e)"), ElementsAre(R"(ab"c d)", "e"));
  EXPECT_THAT(VeltSplitCommandLine(R"("unclosed to the end)"), ElementsAre("unclosed to the end"));
}

TEST(ChildProcess, ActivityWaitWakesWhenAChildEndsPrintsOrAnInterruptArrives) {
  CPipe pipe;
  ASSERT_TRUE(pipe.CreatePipe());
  VeltProcessHandle ended = nullptr, printing = nullptr;
  ASSERT_EQ(Start("sleep=200", ended, pipe), 0);
  EXPECT_LT(TimeAsleep({ended}, pipe), std::chrono::seconds(30));
  int code = kVeltStillActive;
  ASSERT_NE(VeltGetProcessExitCode(ended, code), 0);
  EXPECT_EQ(code, 0);

  // A reaped child is left out; output waiting in a pipe ends the wait.
  ASSERT_EQ(Start("sleep=300;say=done;sleep=60000", printing, pipe), 0);
  EXPECT_LT(TimeAsleep({ended, printing}, pipe), std::chrono::seconds(30));
  AString output;
  drainPipe(pipe.ReadHandle(), output);
  EXPECT_EQ(VEL_ANSI(output), "done");
  VeltTerminateProcessTree(printing);
  VeltCloseProcessHandle(printing);
  VeltCloseProcessHandle(ended);

#ifndef _WIN32
  // An interrupt wakes a wait on a quiet pipe. The signal lands on the
  // sending thread (this one blocks it), so only the handler's wake-up can
  // end the wait.
  InstallInterruptHandlers();
  ClearInterruptRequest();
  std::atomic<bool> blocked{false};
  auto interrupt = veltest::SignalWhen(SIGTERM, [&] { return blocked.load(); });
  sigset_t terminate, previous;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &terminate, &previous);
  blocked = true;
  VeltWaitForChildActivity({}, {pipe.ReadHandle()}, 60000);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  EXPECT_LT(Clock::now() - interrupt.get(), std::chrono::seconds(30));
  EXPECT_TRUE(InterruptRequested());
  // Once the request is cleared, waits sleep again.
  ClearInterruptRequest();
  const auto start = Clock::now();
  VeltWaitForChildActivity({}, {pipe.ReadHandle()}, 50);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
#endif
}

TEST(Pipe, DrainTakesEverythingWaitingAndNeverWaits) {
  CPipe pipe;
  ASSERT_TRUE(pipe.CreatePipe());
  ScopedAssertCapture asserts;
  AString output;
  // Nothing waiting while the write end is open: returns at once, empty.
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_TRUE(output.empty());
  // More than one 14096-byte piece, with a two-byte character across the
  // boundary of the first piece: the bytes come out as they went in.
  std::string bytes(50000, 'x');
  bytes.replace(14095, 2, "ü");
  bytes[49999] = '\xff';  // not UTF-8 at all
  ASSERT_TRUE(veltest::WriteToPipe(pipe.WriteHandle(), bytes));
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(VEL_ANSI(output), bytes);
  EXPECT_TRUE(asserts.reports().empty());
  EXPECT_NE(drainPipe(kVeltNullPipeHandle, output), 0);
}

}  // namespace
