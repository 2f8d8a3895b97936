// ExtractaViewGenerator with real children (vel-test-child standing in for
// extracta): control and view file names, the command line the child gets,
// finding the program, failures and their messages, the pool's order and
// ending children when generators go.

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "core/VelDebug.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/process/ChildProcesses.h"
#include "tests/support/TestSupport.h"
#include "views/ExtractaViewControl.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using Generator = std::unique_ptr<ExtractaViewGenerator>;

// The message of the exception that `action` throws ("" when none).
template <typename Action>
std::string FailureOf(Action&& action) {
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
    // Blanks and non-ASCII in every path the child gets, the program's too.
    work = temp / "extract 17 ü/";
    ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
    design = temp / "pkg design ü.mcm";
    veltest::WriteFile(design, "design");
    ASSERT_EQ(mkdir((temp / "my tools").c_str(), 0755), 0);
    program = temp / "my tools/extracta sim";
    ASSERT_EQ(symlink(veltest::ChildProgram().c_str(), program.c_str()), 0);
    setenv("VELTAR_EXTRACTA_PATHOVERRIDE", program.c_str(), 1);
    records = temp / "records";
  }

  void TearDown() override { ExtractaViewGenerator::maxConcurrentExtractas = savedLimit; }

  // What the next children started will do (see vel-test-child).
  void ChildDoes(const std::string& actions) { setenv("VEL_TEST_CHILD", actions.c_str(), 1); }

  Generator Make(ViewType type, const std::string& name, bool generatorOption = true) {
    return std::make_unique<ExtractaViewGenerator>(LongFileName(AString(design)),
                                                   ExtractaViewDef(type, {}, false), WorkingDir(),
                                                   generatorOption, AString(name));
  }

  LongFileName WorkingDir() const { return LongFileName(AString(work)); }

  veltest::TempDir temp;
  std::string work;  // ends in "/"
  std::string design;
  std::string program;
  std::string records;
  veltest::ScopedEnv keepOverride{"VELTAR_EXTRACTA_PATHOVERRIDE", std::nullopt};
  veltest::ScopedEnv keepActions{"VEL_TEST_CHILD", std::nullopt};
  uint32_t savedLimit = ExtractaViewGenerator::maxConcurrentExtractas;
};

TEST_F(GeneratorTest, ChildGetsTheArgumentListWithoutPathQuotes) {
  std::vector<std::pair<int, std::string>> traces;
  const TraceSink previous = SetTraceSink_G(
      [&](int level, const std::wstring& line) { traces.emplace_back(level, NarrowText(line)); });
  ChildDoes("record=" + records);
  Generator generator = Make(kFullGeo, "");
  const ActiveView view = generator->waitForViewFile();
  SetTraceSink_G(previous);

  const std::string control = work + "extracta_control_fullgeo.txt";
  EXPECT_EQ(view, (ActiveView{kFullGeo, AString(work + "fullgeo.txt")}));
  std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_THAT(started[0].args,
              ElementsAre(program, "-k", "-c", "-m", design, control, work + "fullgeo.txt"));
  EXPECT_EQ(started[0].cwd + "/", work);
  std::ostringstream block;
  WriteViewBlock(ExtractaViewDef(kFullGeo, {}, false), block);
  EXPECT_EQ(veltest::ReadFile(control), block.str());

  const std::string commandLine =
      program + " -k -c -m \"" + design + "\" \"" + control + "\" \"" + work + "fullgeo.txt\"";
  EXPECT_THAT(traces, ElementsAre(Pair(2, "*ExtractaViewGenerator: extractaname " + program + "\n"),
                                  Pair(1, "*StartChildProcess: " + commandLine + " \n"),
                                  Pair(1, "Extracta fullgeo finished \n")));

  // Reaped already: a second wait returns at once, without another child.
  EXPECT_EQ(generator->waitForViewFile(), view);
  EXPECT_EQ(ExtractaViewGenerator::runningCount(), 0u);

  // runExtracta: no "-c" without the generator option, one output per view.
  const std::vector<ActiveView> views{{kLayer, AString(work + "layer.txt")},
                                      {kNet, AString(work + "net.txt")}};
  ExtractaViewGenerator::runExtracta(LongFileName(AString(design)),
                                     LongFileName(AString(work + "extracta_control.txt")), false,
                                     views, WorkingDir());
  started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 2u);
  EXPECT_THAT(started[1].args,
              ElementsAre(program, "-k", "-m", design, work + "extracta_control.txt",
                          work + "layer.txt", work + "net.txt"));
}

TEST_F(GeneratorTest, NamesAreSanitisedIntoTheFileNames) {
  ChildDoes("");
  const std::vector<std::pair<std::string, std::string>> cases{
      {"0_GND_VIA CLASS", "conn0_GND_VIA_CLASS"},
      {"remainder", "connremainder"},
      {"a.b/c:ü-d", "conna_b_c__-d"},
  };
  for (const auto& [name, base] : cases) {
    Generator generator = Make(kConn, name);
    EXPECT_TRUE(veltest::PathExists(work + "extracta_control_" + base + ".txt")) << name;
    EXPECT_EQ(VEL_ANSI(generator->waitForViewFile().path), work + base + ".txt");
  }
}

TEST_F(GeneratorTest, ProgramIsFoundOnPathOrNamedByTheOverride) {
  unsetenv("VELTAR_EXTRACTA_PATHOVERRIDE");
  const std::string bin = temp / "bin";
  ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
  veltest::ScopedEnv path("PATH", bin);
  ChildDoes("record=" + records + ";say=ERROR: bad view;exit=3");

  const std::string notFound =
      "CreateProcess failed with error 2: Could not find application extracta.exe";
  std::vector<std::pair<int, std::string>> traces;
  const TraceSink previous = SetTraceSink_G(
      [&](int level, const std::wstring& line) { traces.emplace_back(level, NarrowText(line)); });
  EXPECT_EQ(FailureOf([&] { Make(kLayer, ""); }), notFound);
  SetTraceSink_G(previous);
  EXPECT_THAT(traces,
              ::testing::Contains(Pair(1, "*StartChildProcess: VelCreateProcess result = 2 \n")));
  EXPECT_EQ(ExtractaViewGenerator::runningCount() + ExtractaViewGenerator::waitingCount(), 0u)
      << "a failed start leaves the generator in neither queue";
  EXPECT_EQ(FailureOf([&] {
              ExtractaViewGenerator::runExtracta(LongFileName(AString(design)),
                                                 LongFileName(AString(work + "c.txt")), true, {},
                                                 WorkingDir());
            }),
            notFound);

  // "extracta.exe" finds "extracta" on PATH; runExtracta names the program
  // as it was resolved.
  ASSERT_EQ(symlink(veltest::ChildProgram().c_str(), (bin + "/extracta").c_str()), 0);
  EXPECT_EQ(FailureOf([&] {
              ExtractaViewGenerator::runExtracta(LongFileName(AString(design)),
                                                 LongFileName(AString(work + "c.txt")), true, {},
                                                 WorkingDir());
            }),
            "extracta.exe exited with non-zero exit code 3: ERROR: bad view");
  const std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].args.at(0), "extracta.exe");

  // Any other start failure carries the system's text.
  const std::string plainFile = temp / "not a program";
  veltest::WriteFile(plainFile, "data");
  setenv("VELTAR_EXTRACTA_PATHOVERRIDE", plainFile.c_str(), 1);
  EXPECT_EQ(FailureOf([&] { Make(kLayer, ""); }),
            "CreateProcess failed with error 13: Permission denied");
}

TEST_F(GeneratorTest, FailingChildrenReportEverythingTheyPrinted) {
  ChildDoes("say=ERROR: bad view;exit=3");
  Generator failing = Make(kNet, "");
  EXPECT_EQ(FailureOf([&] { failing->waitForViewFile(); }),
            "extracta exited with non-zero exit code 3: ERROR: bad view");
  // A failed generator keeps failing with the whole message.
  EXPECT_EQ(FailureOf([&] { failing->waitForViewFile(); }),
            "extracta exited with non-zero exit code 3: ERROR: bad view");
  failing.reset();

  ChildDoes("exit=3");
  Generator silent = Make(kNet, "");
  EXPECT_EQ(FailureOf([&] { silent->waitForViewFile(); }),
            "extracta exited with non-zero exit code 3");
  silent.reset();

  // Far more than a pipe holds: the child is never stalled while the wait
  // polls, and the message has all of it, standard error included.
  const long long size = 3 * 512 * 1024;
  ChildDoes("print=" + std::to_string(size) + ";warn=<END>;exit=1");
  Generator loud = Make(kNet, "");
  const std::string message = FailureOf([&] { loud->waitForViewFile(); });
  const std::string prefix = "extracta exited with non-zero exit code 1: ";
  EXPECT_EQ(message.size(), prefix.size() + size + 5);
  EXPECT_EQ(message.substr(0, prefix.size() + 28), prefix + "line 0 of the child's output");
  EXPECT_EQ(message.substr(message.size() - 5), "<END>");
}

TEST_F(GeneratorTest, QueuedChildrenStartInCreationOrderOneAtATime) {
  ExtractaViewGenerator::maxConcurrentExtractas = 1;
  ChildDoes("record=" + records + ";sleep=150");
  std::vector<Generator> generators;
  for (const char* name : {"a", "b", "c"}) generators.push_back(Make(kFullGeo, name));
  EXPECT_EQ(ExtractaViewGenerator::runningCount(), 1u);
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 2u);
  EXPECT_EQ(generators[1]->childProcess(), nullptr);

  // Waiting for the last drives the pool through all three.
  generators[2]->waitForViewFile();
  const std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(started[i].args.back(), work + "fullgeo" + std::string(1, 'a' + i) + ".txt");
    EXPECT_NE(started[i].end, 0);
    if (i > 0) {
      EXPECT_GE(started[i].start, started[i - 1].end) << "one child at a time";
    }
  }
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 0u);
}

TEST_F(GeneratorTest, FailingChildOfAnotherGeneratorEndsTheWait) {
  ExtractaViewGenerator::maxConcurrentExtractas = 2;
  ChildDoes("record=" + records + ";sleep=60000");
  Generator slow = Make(kFullGeo, "");
  ChildDoes("say=ERROR: bad view;exit=3");
  Generator failing = Make(kNet, "");
  EXPECT_EQ(FailureOf([&] { slow->waitForViewFile(); }),
            "extracta exited with non-zero exit code 3: ERROR: bad view");
  int code = 0;
  ASSERT_NE(VeltGetProcessExitCode(slow->childProcess(), code), 0);
  EXPECT_EQ(code, kVeltStillActive) << "the waited-for child still runs";
  const int group = VeltProcessId(slow->childProcess());
  slow.reset();
  failing.reset();
  EXPECT_TRUE(veltest::ProcessesInGroup(group).empty());
}

TEST_F(GeneratorTest, DestroyingAGeneratorEndsItsWholeTree) {
  const std::string grandchild = temp / "grandchild";
  ChildDoes("grandchild=" + grandchild + ";sleep=60000");
  Generator generator = Make(kComponent, "");
  const int group = VeltProcessId(generator->childProcess());
  ASSERT_TRUE(veltest::PollUntil([&] { return veltest::PathExists(grandchild); }, 30));
  const int grandchildPid = std::stoi(veltest::ReadFile(grandchild));
  EXPECT_EQ(veltest::ProcessesInGroup(group).size(), 2u);

  std::vector<std::pair<int, std::string>> traces;
  const TraceSink previous = SetTraceSink_G(
      [&](int level, const std::wstring& line) { traces.emplace_back(level, NarrowText(line)); });
  generator.reset();
  SetTraceSink_G(previous);
  EXPECT_THAT(traces, ElementsAre(Pair(
                          1, "*ExtractaViewGenerator destructor: VeltTerminateProcessTree\n")));
  EXPECT_TRUE(veltest::ProcessesInGroup(group).empty()) << "no process and no zombie is left";
  EXPECT_FALSE(veltest::ProcessExists(grandchildPid));
  EXPECT_EQ(ExtractaViewGenerator::runningCount(), 0u);
}

TEST_F(GeneratorTest, DestroyingAQueuedGeneratorTouchesNoProcess) {
  ExtractaViewGenerator::maxConcurrentExtractas = 1;
  ChildDoes("record=" + records + ";sleep=100");
  Generator first = Make(kLayer, "");
  Generator queued = Make(kNet, "");
  ASSERT_EQ(ExtractaViewGenerator::waitingCount(), 1u);

  std::vector<std::pair<int, std::string>> traces;
  const TraceSink previous = SetTraceSink_G(
      [&](int level, const std::wstring& line) { traces.emplace_back(level, NarrowText(line)); });
  queued.reset();
  SetTraceSink_G(previous);
  EXPECT_TRUE(traces.empty()) << "neither a start nor a termination";
  EXPECT_EQ(ExtractaViewGenerator::waitingCount(), 0u);

  first->waitForViewFile();
  const std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_EQ(started[0].args.back(), work + "layer.txt");
}

TEST_F(GeneratorTest, UnwritableControlFileNamesTheWorkingDirectory) {
  ChildDoes("record=" + records);
  const std::string missing = temp / "missing/";
  EXPECT_EQ(FailureOf([&] {
              ExtractaViewGenerator generator(LongFileName(AString(design)),
                                              ExtractaViewDef(kLayer, {}, false),
                                              LongFileName(AString(missing)), true, AString());
            }),
            "ExtractaViewGenerator failed to write file " + missing);
  EXPECT_EQ(ExtractaViewGenerator::runningCount() + ExtractaViewGenerator::waitingCount(), 0u);
  EXPECT_FALSE(veltest::PathExists(records)) << "no child was started";
}

TEST_F(GeneratorTest, ChildReapedBehindTheGeneratorsBackFailsTheWait) {
  ChildDoes("");
  Generator generator = Make(kOutline, "");
  waitpid(VeltProcessId(generator->childProcess()), nullptr, 0);
  EXPECT_EQ(FailureOf([&] { generator->waitForViewFile(); }),
            "ExtractaViewGenerator ProcessRunning check failed, VeltGetProcessExitCode returned "
            "zero for extracta process");
}

TEST(GeneratorPool, ConcurrencyLimitIsHalfTheHardwareThreadsAndAtLeastOne) {
  EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(0), 1u);
  EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(1), 1u);
  EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(3), 1u);
  EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(4), 2u);
  EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(17), 8u);
}

}  // namespace
