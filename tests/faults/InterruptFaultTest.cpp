// The fault matrix, interrupts: the program is told to stop while a child
// hangs.

#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/faults/FaultMatrix.h"

namespace faults {
namespace {

using Clock = std::chrono::steady_clock;

// Polls every few milliseconds until the condition holds or the time is up.
template <typename Condition>
bool PollFor(double seconds, Condition condition) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    if (condition()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

using InterruptFaults = FaultMatrix;

// Row: a hung child, and SIGTERM, SIGINT or SIGHUP to the program mid-run
// Outcome: exit 1, "view creation failed (1).", nothing packed or moved. The
//   signal ends every running child's process tree at once (all of them gone
//   within a second, grandchildren included), queued children never start,
//   and the working directory is removed.
TEST_F(InterruptFaults, HungChildAndAnInterrupt) {
  struct Case {
    int signal;
    bool cell;  // the cell run's one extracta, outside the generator pool
  };
  for (const Case& c :
       {Case{SIGTERM, false}, Case{SIGINT, false}, Case{SIGHUP, false}, Case{SIGTERM, true}}) {
    SCOPED_TRACE(std::to_string(c.signal) + (c.cell ? " cell" : ""));
    LaunchOptions hung;
    hung.env = {{"EXTRACTA_SIM_SLEEP_MS", "600000"}, {"EXTRACTA_SIM_GRANDCHILD_SECONDS", "600"}};
    std::vector<std::string> args = {"-z", design(), archive()};
    if (c.cell) args.insert(args.begin(), "-cell");
    ProgramRun run(args, hung);
    // A child and the grandchild it left are running.
    ASSERT_TRUE(PollFor(60, [&] { return run.Survivors().size() >= 2; }));

    ASSERT_EQ(kill(run.pid(), c.signal), 0);
    const auto sent = Clock::now();
    const bool childrenGone = PollFor(1.0, [&] { return run.Survivors().empty(); });
    EXPECT_TRUE(childrenGone) << "still running a second after the signal: "
                              << ::testing::PrintToString(run.Survivors());
    ExpectCleanFailure(run, "view creation failed (1).\n");
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - sent).count(), 5.0);
  }
}

}  // namespace
}  // namespace faults
