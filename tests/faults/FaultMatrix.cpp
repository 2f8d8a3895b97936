#include "tests/faults/FaultMatrix.h"

#include <sys/stat.h>

namespace faults {

void FaultMatrix::SetUp() {
  veltest::WriteFile(design(), veltest::ReadFile(SampleDesign()));
  ASSERT_EQ(mkdir(outDir().c_str(), 0777), 0);
  veltest::WriteFile(archive(), "the archive of an earlier run");
  veltest::WriteFile(dir / "out/notes.txt", "the user's own notes");
  outBefore = Snapshot(outDir());
}

void FaultMatrix::ExpectCleanFailure(ProgramRun& run, const std::string& failureLine,
                                     bool packagingFailed) {
  const veltest::RunResult& result = run.Wait();
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.exitCode, 1);
  if (packagingFailed)
    EXPECT_TRUE(IsPointerLine(result.out, "VLX file written: ")) << result.out;
  else
    EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, failureLine);
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
  EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
  EXPECT_EQ(Snapshot(outDir()), outBefore);
}

void FaultMatrix::ExpectCleanSuccess(ProgramRun& run) {
  const veltest::RunResult& result = run.Wait();
  EXPECT_FALSE(result.timedOut);
  EXPECT_EQ(result.exitCode, 0) << result.err;
  EXPECT_TRUE(IsPointerLine(result.out, "VLX file written: ")) << result.out;
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(run.Survivors(), std::vector<std::string>{});
  EXPECT_EQ(WorkingDirs(dir.path()), std::vector<std::string>{});
}

}  // namespace faults
