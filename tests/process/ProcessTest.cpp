// The process layer with real children (vel-test-child standing in for
// extracta): how a command line is split, the activity wait, the pipe reader,
// and ExtractaViewGenerator: control and view file names, the command line
// the child gets, finding the program, failures and their messages, and the
// pool's order. Interrupts of a whole run are rows of the fault matrix.

#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#else
#include <windows.h>
#endif

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "core/Interrupt.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "core/VelAssert.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/support/TestSupport.h"
#include "views/ExtractaViewControl.h"

namespace {

using namespace veltest;
using ::testing::ElementsAre;
using Clock = std::chrono::steady_clock;
using Generator = std::unique_ptr<ExtractaViewGenerator>;

std::string ChildProgram() { return BinPath("vel-test-child"); }

// One child's record, as vel-test-child writes it.
struct ChildRecord {
  long long pid = 0, start = 0, end = 0;  // steady clock ns; end 0: never got there
  std::string cwd, stdinTarget, fds;
  std::vector<std::string> args;  // argv[0] first
};

// The records of a file in the order the children started; none when the
// file does not exist.
std::vector<ChildRecord> ReadChildRecords(const std::string& file) {
  std::vector<ChildRecord> records;
  std::istringstream lines(PathExists(file) ? ReadFile(file) : "");
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> f;
    std::istringstream fields(line);
    for (std::string field; std::getline(fields, field, '\t');) f.push_back(field);
    if (f.size() == 3 && f[0] == "end") {
      for (ChildRecord& record : records)
        if (record.pid == std::stoll(f[1])) record.end = std::stoll(f[2]);
    } else if (f.size() >= 7 && f[0] == "start") {
      records.push_back({std::stoll(f[1]), std::stoll(f[2]), 0, f[3], f[4], f[5],
                         std::vector<std::string>(f.begin() + 6, f.end())});
    }
  }
  std::stable_sort(records.begin(), records.end(),
                   [](const ChildRecord& a, const ChildRecord& b) { return a.start < b.start; });
  return records;
}

#ifdef _WIN32
bool WriteToPipe(VeltPipeHandle pipe, const std::string& bytes) {
  DWORD written = 0;
  return ::WriteFile(reinterpret_cast<HANDLE>(pipe), bytes.data(), static_cast<DWORD>(bytes.size()),
                     &written, nullptr) &&
         written == bytes.size();
}
#else
bool WriteToPipe(VeltPipeHandle pipe, const std::string& bytes) {
  return write(static_cast<int>(pipe), bytes.data(), bytes.size()) ==
         static_cast<ssize_t>(bytes.size());
}
#endif

// Makes the child program startable as `name` (on Windows as `name`.exe,
// which is found under `name`).
bool InstallChild(const std::string& name) {
  std::error_code error;
  std::filesystem::copy_file(std::filesystem::u8path(ChildProgram()),
                             std::filesystem::u8path(name + (kOnWindows ? ".exe" : "")), error);
  return !error;
}

// Starts vel-test-child in a group of its own with both its output streams
// on the pipe, doing `actions`.
int Start(const std::string& actions, VeltProcessHandle& handle, const CPipe& pipe) {
  veltest::ScopedEnv does("VEL_TEST_CHILD", actions);
  const AString argv0(ChildProgram());
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
  // Sent from another thread 100 ms into the wait, as a Ctrl-C arrives.
  auto interrupt = std::async(std::launch::async, [&] {
    PollUntil([&] { return blocked.load(); }, 30);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const auto sent = Clock::now();
    kill(getpid(), SIGTERM);
    return sent;
  });
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
  ASSERT_TRUE(WriteToPipe(pipe.WriteHandle(), bytes));
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(drainPipe(pipe.ReadHandle(), output), 0);
  EXPECT_EQ(VEL_ANSI(output), bytes);
  EXPECT_TRUE(asserts.reports().empty());
  EXPECT_NE(drainPipe(kVeltNullPipeHandle, output), 0);
}

// The message of the exception that `action` throws ("" when none).
std::string FailureOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const ExtractaParserException& failure) {
    return failure.what();
  }
  return "";
}

class GeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InstallInterruptHandlers();
    ClearInterruptRequest();
    // Blanks and non-ASCII in every path the child gets, the program's too.
    work = temp / "extract 17 ü/";
    ASSERT_TRUE(veltest::MakeDirectory(work));
    design = temp / "pkg design ü.mcm";
    veltest::WriteFile(design, "design");
    ASSERT_TRUE(veltest::MakeDirectory(temp / "my tools"));
    program = temp / "my tools/extracta sim";
    ASSERT_TRUE(InstallChild(program));
    veltest::SetEnv("VELTAR_EXTRACTA_PATHOVERRIDE", program);
  }

  void TearDown() override {
    ClearInterruptRequest();
    ExtractaViewGenerator::maxConcurrentExtractas = savedLimit;
  }

  // What the next children started will do (see vel-test-child).
  void ChildDoes(const std::string& actions) { veltest::SetEnv("VEL_TEST_CHILD", actions); }

  static LongFileName Long(const std::string& path) { return LongFileName(AString(path)); }
  Generator Make(ViewType type, const std::string& name = "") {
    return std::make_unique<ExtractaViewGenerator>(Long(design), ExtractaViewDef(type, {}, false),
                                                   Long(work), true, AString(name));
  }
  void RunExtracta(bool generatorOption, const std::vector<ActiveView>& views = {}) {
    ExtractaViewGenerator::runExtracta(Long(design), Long(work + "extracta_control.txt"),
                                       generatorOption, views, Long(work));
  }

  std::vector<ChildRecord> Started() const { return ReadChildRecords(records); }

  veltest::TempDir temp;
  std::string work;  // ends in "/"
  std::string design, program, records = temp / "records";
  veltest::ScopedEnv keepOverride{"VELTAR_EXTRACTA_PATHOVERRIDE", std::nullopt};
  veltest::ScopedEnv keepActions{"VEL_TEST_CHILD", std::nullopt};
  uint32_t savedLimit = ExtractaViewGenerator::maxConcurrentExtractas;
};

TEST_F(GeneratorTest, ChildGetsTheArgumentListWithoutPathQuotesAndNothingElse) {
#ifndef _WIN32
  // A descriptor without close-on-exec, as a careless library might leave one.
  const int stray = open("/dev/null", O_RDONLY);
#endif
  ChildDoes("record=" + records);
  // The name goes into the file names: anything but letters, digits, "-" and
  // "_" becomes one "_", a non-ASCII letter too.
  Generator generator = Make(kFullGeo, "a.b/c:ü-d");
#ifndef _WIN32
  close(stray);
#endif
  const ActiveView view = generator->waitForViewFile();

  const std::string control = work + "extracta_control_fullgeoa_b_c__-d.txt";
  const std::string output = work + "fullgeoa_b_c__-d.txt";
  EXPECT_EQ(view, (ActiveView{kFullGeo, AString(output)}));
  std::vector<ChildRecord> started = Started();
  ASSERT_EQ(started.size(), 1u);
  EXPECT_THAT(started[0].args, ElementsAre(program, "-k", "-c", "-m", design, control, output));
  // Compared as paths: Windows reports it with its own separators.
  EXPECT_EQ((std::filesystem::u8path(started[0].cwd) / "").lexically_normal(),
            std::filesystem::u8path(work).lexically_normal());
#ifdef _WIN32
  EXPECT_EQ(started[0].stdinTarget, "NUL");
#else
  EXPECT_EQ(started[0].stdinTarget, "/dev/null");
  EXPECT_EQ(started[0].fds, "0,1,2");
#endif
  std::ostringstream block;
  WriteViewBlock(ExtractaViewDef(kFullGeo, {}, false), block);
  EXPECT_EQ(veltest::ReadFile(control), block.str());

  // runExtracta: no "-c" without the generator option, one output per view.
  RunExtracta(false, {{kLayer, AString(work + "layer.txt")}, {kNet, AString(work + "net.txt")}});
  started = Started();
  ASSERT_EQ(started.size(), 2u);
  EXPECT_THAT(started[1].args,
              ElementsAre(program, "-k", "-m", design, work + "extracta_control.txt",
                          work + "layer.txt", work + "net.txt"));
}

TEST_F(GeneratorTest, StartFailuresNameTheirCauseAndLeaveNoQueueEntry) {
  veltest::SetEnv("VELTAR_EXTRACTA_PATHOVERRIDE", std::nullopt);
  const std::string bin = temp / "bin";
  ASSERT_TRUE(veltest::MakeDirectory(bin));
  veltest::ScopedEnv path("PATH", bin);
  ChildDoes("record=" + records + ";say=ERROR: bad view;exit=3");

  const std::string notFound =
      "CreateProcess failed with error 2: Could not find application extracta.exe";
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }), notFound);
  EXPECT_EQ(FailureOf([&] { RunExtracta(true); }), notFound);

  // "extracta.exe" finds "extracta" on PATH; runExtracta names the program
  // as it was asked for.
  ASSERT_TRUE(InstallChild(bin + "/extracta"));
  EXPECT_EQ(FailureOf([&] { RunExtracta(true); }),
            "extracta.exe exited with non-zero exit code 3: ERROR: bad view");
  ASSERT_EQ(Started().size(), 1u);
  EXPECT_EQ(Started()[0].args.at(0), "extracta.exe");

  // Any other start failure carries the system's text.
  const std::string plainFile = temp / "not a program";
  veltest::WriteFile(plainFile, "data");
  veltest::SetEnv("VELTAR_EXTRACTA_PATHOVERRIDE", plainFile);
#ifdef _WIN32
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }),
            "CreateProcess failed with error 193: " + VeltFormatSystemMessage(193));
#else
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }),
            "CreateProcess failed with error 13: Permission denied");
  // So does one that only the started child meets, when it cannot execute.
  ASSERT_EQ(chmod(plainFile.c_str(), 0755), 0);
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }),
            "CreateProcess failed with error 8: Exec format error");
#endif

  // A control file that cannot be written names the working directory.
  veltest::SetEnv("VELTAR_EXTRACTA_PATHOVERRIDE", program);
  work = temp / "missing/";
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }), "ExtractaViewGenerator failed to write file " + work);
  EXPECT_EQ(ExtractaViewGenerator::runningCount() + ExtractaViewGenerator::waitingCount(), 0u);
  EXPECT_EQ(Started().size(), 1u) << "no child was started";
}

TEST_F(GeneratorTest, FailingChildrenReportEverythingTheyPrinted) {
  struct Case {
    std::string actions;
    std::function<void(int pid)> meddle;
    std::string message;
  };
  const std::string prefix = "extracta exited with non-zero exit code ";
  const std::vector<Case> cases = {
      {"say=ERROR: bad view;exit=3", nullptr, prefix + "3: ERROR: bad view"},
      {"exit=3", nullptr, prefix + "3"},
      // A crash reads as 128 + the signal.
      {"sleep=60000", veltest::KillProcess, prefix + "137"},
  };
  for (const Case& c : cases) {
    ChildDoes(c.actions);
    Generator failing = Make(kNet);
    if (c.meddle) c.meddle(VeltProcessId(failing->childProcess()));
    EXPECT_EQ(FailureOf([&] { failing->waitForViewFile(); }), c.message);
    // A failed generator keeps failing with the whole message.
    EXPECT_EQ(FailureOf([&] { failing->waitForViewFile(); }), c.message);
  }

  // Another generator's failing child ends a wait for one that still runs.
  ExtractaViewGenerator::maxConcurrentExtractas = 2;
  ChildDoes("sleep=60000");
  Generator slow = Make(kFullGeo);
  ChildDoes("say=ERROR: bad view;exit=3");
  Generator failing = Make(kNet);
  EXPECT_EQ(FailureOf([&] { slow->waitForViewFile(); }), prefix + "3: ERROR: bad view");
  int code = 0;
  ASSERT_NE(VeltGetProcessExitCode(slow->childProcess(), code), 0);
  EXPECT_EQ(code, kVeltStillActive) << "the waited-for child still runs";
}

TEST_F(GeneratorTest, QueuedChildrenStartInCreationOrderOneAtATime) {
  ExtractaViewGenerator::maxConcurrentExtractas = 1;
  ChildDoes("record=" + records + ";sleep=150");
  std::vector<Generator> generators;
  for (const char* name : {"a", "b", "c", "d"}) generators.push_back(Make(kFullGeo, name));
  EXPECT_EQ(ExtractaViewGenerator::runningCount(), 1u);
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 3u);
  EXPECT_EQ(generators[1]->childProcess(), nullptr);

  // Dropping a queued generator starts no process.
  generators[1].reset();
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 2u);

  // Waiting for the last drives the pool through the others.
  generators[3]->waitForViewFile();
  const std::vector<ChildRecord> started = Started();
  ASSERT_EQ(started.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(started[i].args.back(), work + "fullgeo" + "acd"[i] + ".txt");
    EXPECT_NE(started[i].end, 0);
    EXPECT_GE(started[i].start, i > 0 ? started[i - 1].end : 0) << "one child at a time";
  }
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 0u);
}

TEST(GeneratorPool, ConcurrencyLimitIsHalfTheHardwareThreadsAndAtLeastOne) {
  for (const auto& [threads, limit] : std::vector<std::pair<unsigned, uint32_t>>{{1, 1}, {17, 8}})
    EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(threads), limit) << threads;
}

}  // namespace
