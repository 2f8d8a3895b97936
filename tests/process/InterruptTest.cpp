// Interrupts: the handler ends every child tree at once, and a wait that is
// polling turns the interrupt into a failure, so the caller's cleanup runs.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/ExtractaParserException.h"
#include "core/Interrupt.h"
#include "core/Process.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/process/ChildProcesses.h"
#include "tests/support/TestSupport.h"

namespace {

using Clock = std::chrono::steady_clock;

template <typename Action>
std::string FailureOf(Action&& action) {
  try {
    action();
  } catch (const ExtractaParserException& failure) {
    return failure.what();
  }
  return "";
}

// Sends a signal to this process from another thread once the children are
// under way, as a Ctrl-C or a supervisor's SIGTERM arrives in the middle of a
// wait.
class DelayedSignal {
 public:
  DelayedSignal(int signal, std::function<bool()> ready)
      : thread_([this, signal, ready] {
          veltest::PollUntil(ready, 30);
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          sent_ = Clock::now();
          kill(getpid(), signal);
        }) {}
  ~DelayedSignal() {
    if (thread_.joinable()) thread_.join();
  }
  Clock::time_point sent() {
    if (thread_.joinable()) thread_.join();
    return sent_;
  }

 private:
  Clock::time_point sent_;
  std::thread thread_;
};

class InterruptTest : public ::testing::Test {
 protected:
  void SetUp() override {
    InstallInterruptHandlers();
    ClearInterruptRequest();
    work = temp / "work/";
    ASSERT_EQ(mkdir(work.c_str(), 0755), 0);
    design = temp / "design.mcm";
    veltest::WriteFile(design, "design");
  }
  void TearDown() override {
    ClearInterruptRequest();
    ExtractaViewGenerator::maxConcurrentExtractas = savedLimit;
  }

  void ChildDoes(const std::string& actions) { setenv("VEL_TEST_CHILD", actions.c_str(), 1); }

  std::unique_ptr<ExtractaViewGenerator> Make(ViewType type) {
    return std::make_unique<ExtractaViewGenerator>(LongFileName(AString(design)),
                                                   ExtractaViewDef(type, {}, false),
                                                   LongFileName(AString(work)), true, AString());
  }

  veltest::TempDir temp;
  std::string work;
  std::string design;
  veltest::ScopedEnv program{"VELTAR_EXTRACTA_PATHOVERRIDE", veltest::ChildProgram()};
  veltest::ScopedEnv keepActions{"VEL_TEST_CHILD", std::nullopt};
  uint32_t savedLimit = ExtractaViewGenerator::maxConcurrentExtractas;
};

TEST_F(InterruptTest, WakesAWaitSleepingOnAQuietPipe) {
  CPipe pipe;
  pipe.CreatePipe();
  // The signal lands on the sending thread (this one blocks it), so nothing
  // interrupts the waiting thread's poll and no child ends: only the
  // handler's wake-up can end the wait.
  std::atomic<bool> blocked{false};
  DelayedSignal interrupt(SIGTERM, [&] { return blocked.load(); });
  sigset_t terminate, previous;
  sigemptyset(&terminate);
  sigaddset(&terminate, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &terminate, &previous);
  blocked = true;
  VeltWaitForChildActivity({}, {pipe.ReadHandle()}, 60000);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  EXPECT_LT(Clock::now() - interrupt.sent(), std::chrono::seconds(30));
  EXPECT_TRUE(InterruptRequested());

  // Once the request is cleared, waits sleep again.
  ClearInterruptRequest();
  const auto start = Clock::now();
  VeltWaitForChildActivity({}, {pipe.ReadHandle()}, 50);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
}

TEST_F(InterruptTest, WaitFailsAndNoChildOutlivesTheInterruptBySecond) {
  ExtractaViewGenerator::maxConcurrentExtractas = 1;
  std::vector<std::unique_ptr<ExtractaViewGenerator>> generators;
  ChildDoes("grandchild=" + temp / "grandchild" + ";sleep=60000");
  generators.push_back(Make(kLayer));
  generators.push_back(Make(kNet));  // queued
  const int group = VeltProcessId(generators[0]->childProcess());
  DelayedSignal terminate(SIGTERM, [&] { return veltest::PathExists(temp / "grandchild"); });
  EXPECT_EQ(FailureOf([&] { generators[1]->waitForViewFile(); }), "interrupted by signal 15");
  EXPECT_EQ(InterruptSignal(), SIGTERM);
  // The handler ended them: the generators have not been dropped yet.
  EXPECT_TRUE(
      veltest::PollUntil([&] { return veltest::LiveProcessesInGroup(group).empty(); }, 3.0));
  EXPECT_LT(Clock::now() - terminate.sent(), std::chrono::seconds(1));
  EXPECT_EQ(generators[1]->childProcess(), nullptr) << "the queued one never started";

  // Nothing new starts once interrupted, with room in the pool or not.
  ExtractaViewGenerator::maxConcurrentExtractas = 4;
  const std::string records = temp / "records";
  ChildDoes("record=" + records);
  EXPECT_EQ(FailureOf([&] { Make(kComponent); }), "interrupted by signal 15");
  generators.clear();
  EXPECT_TRUE(veltest::ProcessesInGroup(group).empty());
  EXPECT_FALSE(veltest::PathExists(records));
  EXPECT_EQ(ExtractaViewGenerator::runningCount() + ExtractaViewGenerator::waitingCount(), 0u);
}

TEST_F(InterruptTest, RunExtractaFailsAndReapsItsChild) {
  const std::string records = temp / "records";
  ChildDoes("record=" + records + ";sleep=60000");
  DelayedSignal interrupt(SIGINT, [&] { return veltest::PathExists(records); });
  EXPECT_EQ(FailureOf([&] {
              ExtractaViewGenerator::runExtracta(
                  LongFileName(AString(design)), LongFileName(AString(work + "control.txt")), true,
                  {{kLayer, AString(work + "layer.txt")}}, LongFileName(AString(work)));
            }),
            "interrupted by signal 2");
  const std::vector<veltest::ChildRecord> started = veltest::ReadChildRecords(records);
  ASSERT_EQ(started.size(), 1u);
  EXPECT_FALSE(veltest::ProcessExists(started[0].pid));
}

}  // namespace
