// ExtractaViewGenerator with real children (vel-test-child standing in for
// extracta): control and view file names, the command line the child gets,
// finding the program, failures and their messages, the pool's order, ending
// children when generators go, and interrupts.

#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#endif

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "core/Interrupt.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/process/ChildProcesses.h"
#include "views/ExtractaViewControl.h"

namespace {

using ::testing::ElementsAre;
using Generator = std::unique_ptr<ExtractaViewGenerator>;

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
    ASSERT_TRUE(veltest::InstallProgram(veltest::ChildProgram(), program));
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

  // The processes left in a child's group. Any found are killed: they are
  // this test's own, and a failing test must not leave them running.
  static std::vector<int> LeftIn(int group) {
    const std::vector<int> left = veltest::ProcessesInGroup(group);
    for (int pid : left) veltest::KillProcess(pid);
    return left;
  }

  std::vector<veltest::ChildRecord> Started() const { return veltest::ReadChildRecords(records); }

  veltest::TempDir temp;
  std::string work;  // ends in "/"
  std::string design, program, records = temp / "records", grandchild = temp / "grandchild";
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
  std::vector<veltest::ChildRecord> started = Started();
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
  veltest::UnsetEnv("VELTAR_EXTRACTA_PATHOVERRIDE");
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
  ASSERT_TRUE(veltest::InstallProgram(veltest::ChildProgram(), bin + "/extracta"));
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
  const std::vector<veltest::ChildRecord> started = Started();
  ASSERT_EQ(started.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(started[i].args.back(), work + "fullgeo" + "acd"[i] + ".txt");
    EXPECT_NE(started[i].end, 0);
    EXPECT_GE(started[i].start, i > 0 ? started[i - 1].end : 0) << "one child at a time";
  }
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 0u);
}

TEST_F(GeneratorTest, InterruptFailsTheWaitAndNoChildOutlivesItByASecond) {
#ifdef _WIN32
  GTEST_SKIP() << "a console control event reaches every process of the console, the test "
                  "runner included";
#else
  ExtractaViewGenerator::maxConcurrentExtractas = 1;
  std::vector<Generator> generators;
  ChildDoes("");
  Generator done = Make(kOutline);
  done->waitForViewFile();
  ChildDoes("grandchild=" + grandchild + ";sleep=60000");
  generators.push_back(Make(kLayer));
  generators.push_back(Make(kNet));  // queued
  const int group = VeltProcessId(generators[0]->childProcess());
  auto terminate = veltest::SignalWhen(SIGTERM, [&] { return veltest::PathExists(grandchild); });
  EXPECT_EQ(FailureOf([&] { generators[1]->waitForViewFile(); }), "interrupted by signal 15");
  EXPECT_EQ(InterruptSignal(), SIGTERM);
  // The handler ended them: the generators have not been dropped yet.
  EXPECT_TRUE(
      veltest::PollUntil([&] { return veltest::ProcessesInGroup(group, true).empty(); }, 3));
  EXPECT_LT(std::chrono::steady_clock::now() - terminate.get(), std::chrono::seconds(1));
  EXPECT_EQ(generators[1]->childProcess(), nullptr) << "the queued one never started";
  // Every wait fails now, even for a view that was done before.
  EXPECT_EQ(FailureOf([&] { done->waitForViewFile(); }), "interrupted by signal 15");

  // Nothing new starts once interrupted, with room in the pool or not.
  ExtractaViewGenerator::maxConcurrentExtractas = 4;
  ChildDoes("record=" + records);
  EXPECT_EQ(FailureOf([&] { Make(kComponent); }), "interrupted by signal 15");
  generators.clear();
  EXPECT_EQ(LeftIn(group), std::vector<int>{});
  EXPECT_FALSE(veltest::PathExists(records));
  EXPECT_EQ(ExtractaViewGenerator::runningCount() + ExtractaViewGenerator::waitingCount(), 0u);
#endif
}

TEST(GeneratorPool, ConcurrencyLimitIsHalfTheHardwareThreadsAndAtLeastOne) {
  for (const auto& [threads, limit] : std::vector<std::pair<unsigned, uint32_t>>{{1, 1}, {17, 8}})
    EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(threads), limit) << threads;
}

}  // namespace
