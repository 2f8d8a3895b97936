// A farm job's CPU allocation: the processors of its affinity mask and its
// control groups' CPU quotas bound the threads the run counts on, and so how
// many extracta processes run at once.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/UsableThreads.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

TEST(UsableThreads, QuotasCapTheProcessors) {
  struct Row {
    unsigned processors;
    const char* cpuMax;
    const char* cfsQuota;
    const char* cfsPeriod;
    unsigned expected;
  };
  const std::vector<Row> rows = {
      {8, "", "", "", 8},
      {0, "", "", "", 1},  // a count the system could not tell
      {8, "max 100000\n", "", "", 8},
      {8, "200000 100000\n", "", "", 2},
      {8, "150000 100000", "", "", 2},  // rounded up
      {8, "5000 100000", "", "", 1},    // a slice of one processor is still one
      {2, "800000 100000", "", "", 2},  // the mask is the tighter bound
      {8, "", "-1\n", "100000\n", 8},
      {8, "", "300001\n", "100000\n", 4},
      {8, "300000 100000", "100000", "100000", 1},  // the tightest quota counts
      // Not a quota: left alone.
      {8, "200000 0", "", "", 8},
      {8, "200000 100000 7", "", "", 8},
      {8, "2e5 100000", "0", "100000", 8},
      {8, "", "200000", "", 8},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.processors) + " [" + row.cpuMax + "] [" + row.cfsQuota + "] [" +
                 row.cfsPeriod + "]");
    EXPECT_EQ(UsableThreads(row.processors, row.cpuMax, row.cfsQuota, row.cfsPeriod), row.expected);
  }
}

// A job pinned to one processor runs one extracta at a time, however many
// processors the machine has.
TEST(CpuAllocation, PinnedToOneProcessorRunsOneExtractaAtATime) {
  VEL_SKIP_ON_WINDOWS("taskset");
  TempDir dir;
  const std::string design = MakeDesign(dir.path(), 5, 200);
  RunOptions pinned;
  pinned.wrapper = {"/usr/bin/taskset", "-c", "0"};
  pinned.env["EXTRACTA_SIM_SLEEP_MS"] = "30";  // long enough to overlap if allowed to
  const KeptRun run = RunKeeping(dir.path(), {"-z", design, dir / "out.vlx"}, pinned);
  ASSERT_GT(run.runs.size(), 5u);
  EXPECT_EQ(MostAtOnce(run.runs), 1);
}

}  // namespace
