// The process layer with real children (vel-test-child standing in for
// extracta): how a command line is split, the pipe reader, and
// ExtractaViewGenerator: control and view file names, the command line the
// child gets, finding the program, failures and their messages. The pool's
// limit and order on children that only count passes; interrupts are shown by
// whole runs (the fault matrix).

#include <algorithm>
#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "core/Pipe.h"
#include "core/Process.h"
#include "core/VelAssert.h"
#include "process/ChildPool.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/support/PlatformHelpers.h"
#include "tests/support/TestSupport.h"
#include "views/ExtractaViewControl.h"

namespace {

using namespace veltest;
using ::testing::ElementsAre;
using Generator = std::unique_ptr<ExtractaViewGenerator>;

// One child's record, as vel-test-child writes it.
struct ChildRecord {
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
    if (f.size() >= 4) records.push_back({f[0], f[1], f[2], {f.begin() + 3, f.end()}});
  }
  return records;
}

// Makes the child program startable as `name` (on Windows as `name`.exe,
// which is found under `name`).
bool InstallChild(const std::string& name) {
  std::error_code error;
  std::filesystem::copy_file(std::filesystem::u8path(BinPath("vel-test-child")),
                             std::filesystem::u8path(name + (kOnWindows ? ".exe" : "")), error);
  return !error;
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

  void TearDown() override { ExtractaViewGenerator::maxConcurrentExtractas = savedLimit; }

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
  const int stray = OpenStrayDescriptor();
  ChildDoes("record=" + records);
  // The name goes into the file names: anything but letters, digits, "-" and
  // "_" becomes one "_", a non-ASCII letter too.
  Generator generator = Make(kFullGeo, "a.b/c:ü-d");
  CloseStrayDescriptor(stray);
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
  EXPECT_EQ(started[0].stdinTarget, kOnWindows ? "NUL" : "/dev/null");
  EXPECT_EQ(started[0].fds, kOnWindows ? "-" : "0,1,2");
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
  EXPECT_EQ(FailureOf([&] { Make(kLayer); }),
            kOnWindows ? "CreateProcess failed with error 193: " + VeltFormatSystemMessage(193)
                       : "CreateProcess failed with error 13: Permission denied");
  // So does one that only the started child meets, when it cannot execute.
  if (MakeExecutable(plainFile)) {
    EXPECT_EQ(FailureOf([&] { Make(kLayer); }),
              "CreateProcess failed with error 8: Exec format error");
  }

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
      {"exit=1", nullptr, prefix + "1"},
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

// A child that runs for a number of the pool's looks at it; -1: its start fails.
struct CountedChild {
  int passes, id;
  std::vector<int>* started;
  std::vector<uint32_t>* slots;
  uint32_t held = 0;
  void start(uint32_t slot) {
    if (passes < 0) throw ExtractaParserException("start failed");
    started->push_back(id);
    slots->push_back(slot);
    held = slot;
  }
  uint32_t slot() const { return held; }
  bool checkFinished() { return passes-- > 0; }
};

// Waiting for the last child drives them all, started in arrival order within
// the limit, each on the lowest slot free, and reaps who ended; a failed start
// ends the wait, its child left in neither queue.
TEST(GeneratorPool, StartsInArrivalOrderWithinTheLimit) {
  const struct {
    uint32_t limit;
    std::vector<int> passes, started;
    std::vector<uint32_t> slots;
    std::size_t mostRunning, leftInQueues;
  } cases[] = {
      {1, {2, 0, 1}, {0, 1, 2}, {0, 0, 0}, 1, 0},
      {2, {3, 0, 0, 5, 0}, {0, 1, 2, 3, 4}, {0, 1, 1, 1, 0}, 2, 1},
      {3, {1, 1}, {0, 1}, {0, 1}, 2, 1},
      {3, {4, 0, 9, 0}, {0, 1, 2, 3}, {0, 1, 2, 1}, 3, 2},
      {1, {0, -1, 0}, {0}, {0}, 1, 1},
  };
  for (const auto& c : cases) {
    ChildPool<CountedChild>::Queue waiting, running;
    ChildPool<CountedChild> pool(waiting, running, c.limit);
    std::vector<int> started;
    std::vector<uint32_t> slots;
    std::vector<CountedChild> children;
    for (int passes : c.passes)
      children.push_back({passes, static_cast<int>(children.size()), &started, &slots});
    for (CountedChild& child : children) pool.startOrQueue(child);
    std::size_t most = running.size();
    const auto wait = [&] {
      pool.waitWhile([&] { return pool.busy(children.back()); },
                     [&](const auto& now) { most = std::max(most, now.size()); });
    };
    if (c.started.size() < c.passes.size())
      EXPECT_THROW(wait(), ExtractaParserException);
    else
      wait();
    EXPECT_EQ(started, c.started) << c.limit;
    EXPECT_EQ(slots, c.slots) << c.limit;
    EXPECT_EQ(most, c.mostRunning) << c.limit;
    EXPECT_EQ(waiting.size() + running.size(), c.leftInQueues) << c.limit;
  }
}

TEST(GeneratorPool, ConcurrencyLimitIsHalfTheHardwareThreadsAndAtLeastOne) {
  for (const auto& [threads, limit] : std::vector<std::pair<unsigned, uint32_t>>{{1, 1}, {17, 8}})
    EXPECT_EQ(ExtractaViewGenerator::ConcurrencyLimitFor(threads), limit) << threads;
}

}  // namespace
