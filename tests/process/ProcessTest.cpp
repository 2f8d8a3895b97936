// Child processes through the core library: what a child gets (argv, working
// directory, streams, descriptors, process group), how a program is found,
// exit codes and reaping, and ending a whole tree.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/Pipe.h"
#include "core/Process.h"
#include "tests/process/ChildProcesses.h"
#include "tests/support/TestSupport.h"

namespace {

using ::testing::ElementsAre;
using Args = std::vector<std::string>;

// Starts `program` with the arguments as the generator does: its own group,
// the pipe on standard output and standard error.
int Start(const std::string& program, const Args& arguments, VeltProcessHandle& handle,
          const std::string& workingDirectory, const CPipe& pipe, bool inheritHandles = false) {
  std::vector<AString> argv{AString(program)};
  for (const std::string& argument : arguments) argv.emplace_back(argument);
  return VeltCreateProcess(AString(), argv.data(), static_cast<int>(argv.size()), handle,
                           AString(workingDirectory), nullptr, nullptr, pipe.WriteHandle(), 0,
                           inheritHandles, true, true, nullptr);
}

std::vector<int> Descriptors(const std::string& list) {
  std::vector<int> fds;
  for (const AString& fd : AString(list).TokenizeString(AString(","), false))
    fds.push_back(std::stoi(VEL_ANSI(fd)));
  return fds;
}

// Polls until the child has ended, collecting its output; its exit code.
int WaitForExit(VeltProcessHandle handle, const CPipe& pipe, AString& output) {
  int code = kVeltStillActive;
  veltest::PollUntil(
      [&] {
        drainPipe(pipe.ReadHandle(), output);
        return VeltGetProcessExitCode(handle, code) == 0 || code != kVeltStillActive;
      },
      60);
  drainPipe(pipe.ReadHandle(), output);
  return code;
}

TEST(CommandLineSplit, FollowsTheWindowsRuntimeRules) {
  EXPECT_THAT(VeltSplitCommandLine(R"(-k -c "a b/c.mcm" "d")"),
              ElementsAre("-k", "-c", "a b/c.mcm", "d"));
  EXPECT_THAT(VeltSplitCommandLine(" \tone \t two\t "), ElementsAre("one", "two"));
  EXPECT_THAT(VeltSplitCommandLine(R"(a"b c"d)"), ElementsAre("ab cd"));
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
  EXPECT_TRUE(VeltSplitCommandLine("  \t ").empty());
}

TEST(ChildProcess, GetsItsArgumentsDirectoryStreamsAndNothingElse) {
  veltest::TempDir temp;
  const std::string work = temp / "wörk dir";
  ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
  const std::string records = temp / "records";
  veltest::ScopedEnv actions("VEL_TEST_CHILD", "record=" + records + ";say=to out;warn=|to err");
  // A descriptor without close-on-exec, as a careless library might leave one.
  const int stray = open("/dev/null", O_RDONLY);
  ASSERT_GE(stray, 3);

  CPipe pipe;
  ASSERT_TRUE(pipe.CreatePipe());
  VeltProcessHandle handle = nullptr;
  ASSERT_EQ(Start(veltest::ChildProgram(),
                  {"-k", R"("/data/my design ü.mcm")", "plain", R"("")", "two words"}, handle,
                  work + "/", pipe),
            0);
  AString output;
  EXPECT_EQ(WaitForExit(handle, pipe, output), 0);
  EXPECT_EQ(VEL_ANSI(output), "to out|to err");

  std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 1u);
  const veltest::ChildRecord& child = started[0];
  EXPECT_THAT(child.args, ElementsAre(veltest::ChildProgram(), "-k", "/data/my design ü.mcm",
                                      "plain", "", "two", "words"));
  EXPECT_EQ(child.cwd, work);
  EXPECT_EQ(child.stdinTarget, "/dev/null");
  EXPECT_EQ(child.fds, "0,1,2");
  EXPECT_EQ(child.pgid, child.pid);
  EXPECT_EQ(VeltProcessId(handle), child.pid);
  EXPECT_FALSE(veltest::ProcessExists(child.pid)) << "an ended child is reaped";
  EXPECT_TRUE(VeltCloseProcessHandle(handle));

  // Asked to, the child keeps the descriptors that lack close-on-exec; the
  // pipe's own ends never reach it.
  ASSERT_EQ(Start(veltest::ChildProgram(), {}, handle, work, pipe, true), 0);
  EXPECT_EQ(WaitForExit(handle, pipe, output), 0);
  VeltCloseProcessHandle(handle);
  started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 2u);
  EXPECT_THAT(Descriptors(started[1].fds), ::testing::Contains(stray));
  close(stray);

  // A given environment replaces the caller's; a given input file replaces
  // /dev/null.
  const std::string input = temp / "input";
  veltest::WriteFile(input, "in");
  const std::string ownRecords = temp / "own records";
  const std::string variable = "VEL_TEST_CHILD=record=" + ownRecords;
  const char* const environment[] = {variable.c_str(), nullptr};
  AString argv0(veltest::ChildProgram());
  ASSERT_EQ(VeltCreateProcess(AString(), &argv0, 1, handle, AString(work), environment,
                              input.c_str(), pipe.WriteHandle(), 0, false, true, true, nullptr),
            0);
  EXPECT_EQ(WaitForExit(handle, pipe, output), 0);
  VeltCloseProcessHandle(handle);
  EXPECT_EQ(veltest::ReadChildRecords(records).size(), 2u);
  started = veltest::ReadChildRecords(ownRecords);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].stdinTarget, input);

  // A missing working directory is not a missing program (that is 2).
  EXPECT_EQ(Start(veltest::ChildProgram(), {}, handle, temp / "missing", pipe), ENOTDIR);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(VeltCreateProcess(AString(), &argv0, 1, handle, AString(), nullptr, nullptr,
                              kVeltNullPipeHandle, 1, false, true, true, nullptr),
            EINVAL)
      << "no creation flags exist here";
}

TEST(ChildProcess, TerminatingATreeEndsAndReapsGrandchildren) {
  veltest::TempDir temp;
  CPipe pipe;
  pipe.CreatePipe();
  VeltProcessHandle handle = nullptr;
  const std::string grandchild = temp / "grandchild";

  {
    veltest::ScopedEnv actions("VEL_TEST_CHILD", "grandchild=" + grandchild + ";sleep=60000");
    ASSERT_EQ(Start(veltest::ChildProgram(), {}, handle, temp.path(), pipe), 0);
  }
  const int group = VeltProcessId(handle);
  ASSERT_TRUE(veltest::PollUntil([&] { return veltest::PathExists(grandchild); }, 30));
  EXPECT_EQ(veltest::ProcessesInGroup(group).size(), 2u);
  EXPECT_FALSE(VeltCloseProcessHandle(handle)) << "a running child keeps its handle";
  EXPECT_NE(VeltTerminateProcessTree(handle), 0);
  EXPECT_TRUE(veltest::ProcessesInGroup(group).empty()) << "nothing left, not even a zombie";
  int code = 0;
  ASSERT_NE(VeltGetProcessExitCode(handle, code), 0);
  EXPECT_EQ(code, 128 + SIGKILL);
  EXPECT_TRUE(VeltCloseProcessHandle(handle));

  // A child that ended by itself may have left a grandchild running; ending
  // its tree still ends that one.
  unlink(grandchild.c_str());
  {
    veltest::ScopedEnv actions("VEL_TEST_CHILD", "grandchild=" + grandchild);
    ASSERT_EQ(Start(veltest::ChildProgram(), {}, handle, temp.path(), pipe), 0);
  }
  const int secondGroup = VeltProcessId(handle);
  AString output;
  EXPECT_EQ(WaitForExit(handle, pipe, output), 0);
  ASSERT_TRUE(veltest::PollUntil([&] { return veltest::PathExists(grandchild); }, 30));
  EXPECT_EQ(veltest::LiveProcessesInGroup(secondGroup).size(), 1u);
  VeltTerminateProcessTree(handle);
  EXPECT_TRUE(veltest::ProcessesInGroup(secondGroup).empty());
  VeltCloseProcessHandle(handle);
}

TEST(ChildProcess, ActivityWaitWakesWhenAChildEndsOrPrints) {
  using Clock = std::chrono::steady_clock;
  veltest::TempDir temp;
  CPipe pipe;
  pipe.CreatePipe();
  VeltProcessHandle handle = nullptr;
  {
    veltest::ScopedEnv actions("VEL_TEST_CHILD", "sleep=200");
    ASSERT_EQ(Start(veltest::ChildProgram(), {}, handle, temp.path(), pipe), 0);
  }
  // Bounds far beyond the child's life, only so a broken wake-up fails
  // instead of hanging: the wait ends because the child did.
  auto start = Clock::now();
  VeltWaitForChildActivity({handle}, {pipe.ReadHandle()}, 60000);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
  int code = kVeltStillActive;
  ASSERT_NE(VeltGetProcessExitCode(handle, code), 0);
  EXPECT_EQ(code, 0);

  // A reaped child is left out; output waiting in a pipe ends the wait.
  {
    veltest::ScopedEnv actions("VEL_TEST_CHILD", "sleep=300;say=done;sleep=60000");
    VeltProcessHandle printing = nullptr;
    ASSERT_EQ(Start(veltest::ChildProgram(), {}, printing, temp.path(), pipe), 0);
    start = Clock::now();
    VeltWaitForChildActivity({handle, printing}, {pipe.ReadHandle()}, 60000);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30));
    AString output;
    drainPipe(pipe.ReadHandle(), output);
    EXPECT_EQ(VEL_ANSI(output), "done");
    VeltTerminateProcessTree(printing);
    VeltCloseProcessHandle(printing);
  }
  VeltCloseProcessHandle(handle);
}

}  // namespace
