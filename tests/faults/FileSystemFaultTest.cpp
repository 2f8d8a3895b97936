// The fault matrix, file system faults: directories the program may not
// write, output paths it cannot deliver to, a disk that fills up while the
// program itself writes, and paths it cannot add or look at.
//
// "Not writable" needs an unprivileged user: when the tests run as root, the
// program runs as "nobody" for these rows (see LaunchOptions::unprivileged),
// and the directories it must write are opened to everybody.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/faults/FaultMatrix.h"

namespace faults {
namespace {

using FileSystemFaults = FaultMatrix;

// Row: the base directory (beside the design) is not writable
// Outcome: exit 1, "view creation failed (1).": the working directory cannot
//   be created, no extracta starts, and the archive already at the output
//   path is left as it was.
// Proof: tests/faults/FileSystemFaultTest.cpp FileSystemFaults.UnwritableDirectories
// Row: the output directory is not writable
// Outcome: moving into it: exit 1, "view creation failed (1).", since the
//   working directory is made inside an output directory and cannot be;
//   its files stay as they were. Zipping into it: the views are created
//   beside the design, then exit 1 with the success line followed by
//   "view creation failed (2)."; the earlier archive there is left as it
//   was and the working directory is removed.
TEST_F(FileSystemFaults, UnwritableDirectories) {
  VEL_SKIP_ON_WINDOWS("directory mode bits and the user \"nobody\"");
  struct Row {
    mode_t designDirMode;
    mode_t outDirMode;
    std::vector<std::string> args;
    bool packagingFailed;
  };
  const std::vector<Row> rows = {
      {0555, 0777, {"-z", design(), archive()}, false},
      {0755, 0555, {"-cell", design(), outDir()}, false},
      {0777, 0555, {"-z", design(), archive()}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.args.back());
    ASSERT_EQ(chmod(dir.path().c_str(), row.designDirMode), 0);
    ASSERT_EQ(chmod(outDir().c_str(), row.outDirMode), 0);
    LaunchOptions unprivileged;
    unprivileged.unprivileged = true;
    ProgramRun run(row.args, unprivileged);
    ExpectCleanFailure(run, row.packagingFailed ? kPackagingFailed : kViewCreationFailed,
                       row.packagingFailed);
  }
}

// Row: the output path is in a directory that does not exist, is an existing
//   directory when zipping, or names no directory when moving
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive cannot be opened, or the views cannot be moved, and nothing
//   is created on the way (no directory, no partial archive); the working
//   directory, beside the design or in the output directory, is removed.
TEST_F(FileSystemFaults, OutputPathsThatCannotBeDeliveredTo) {
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"-z", design(), outDir() + "/missing/pkg.vlx"},
                                             {design(), outDir() + "/missing/views"},
                                             {"-cell", "-z", design(), outDir()},
                                             {"-cell", design(), dir / "none"}}) {
    SCOPED_TRACE(args.back());
    ProgramRun run(args);
    ExpectCleanFailure(run, kPackagingFailed, /*packagingFailed=*/true);
    EXPECT_FALSE(PathExists(dir / "none"));
  }
}

// Row: the disk fills up during the merge of the connectivity pieces
// Outcome: exit 1, "view creation failed (1).": the program ignores SIGXFSZ,
//   so the write that no longer fits fails (EFBIG) instead of killing the
//   program, and the failure path ends the children and removes the working
//   directory with the partial conn.txt.
TEST_F(FileSystemFaults, DiskFillsUpDuringTheMerge) {
  VEL_SKIP_ON_WINDOWS("file size limits are a POSIX resource limit");
  // The sizes of an undisturbed run decide the limit: above every control
  // file the program writes, below the merged connectivity file.
  LaunchOptions keep;
  keep.env["VELTAR_EXTRACTA_DEBUG"] = "";
  ProgramRun measure({"-z", design(), dir / "measured.vlx"}, keep);
  ASSERT_EQ(measure.Wait().exitCode, 0);
  const std::vector<std::string> kept = WorkingDirs(dir.path());
  ASSERT_EQ(kept.size(), 1u);
  long long merged = 0, controls = 0;
  for (const std::string& name : ListDir(dir / kept[0])) {
    const long long size = static_cast<long long>(ReadFile(dir / kept[0] + "/" + name).size());
    if (name == "conn.txt") merged = size;
    if (name.rfind("extracta_control", 0) == 0) controls = std::max(controls, size);
  }
  std::filesystem::remove_all(dir / kept[0]);
  ASSERT_LT(controls, merged / 2);

  LaunchOptions full;
  full.fileSizeLimit = merged / 2;
  full.env["VELTAR_EXTRACTA_PATHOVERRIDE"] =
      WrappedExtractor(dir.path(), "extracta-unlimited", "ulimit -f unlimited");
  ProgramRun run({"-z", design(), archive()}, full);
  ExpectCleanFailure(run, kViewCreationFailed);
}

// Row: the disk fills up while the archive is written
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive is assembled in a temporary file beside the output path,
//   which is removed when a write fails, so the earlier archive there is
//   left as it was; the working directory is removed.
TEST_F(FileSystemFaults, DiskFillsUpDuringZipping) {
  VEL_SKIP_ON_WINDOWS("file size limits are a POSIX resource limit");
  ProgramRun measure({"-z", "-cell", design(), dir / "measured.vlx"});
  ASSERT_EQ(measure.Wait().exitCode, 0);
  LaunchOptions full;
  full.fileSizeLimit = static_cast<long long>(ReadFile(dir / "measured.vlx").size()) / 2;
  full.env["VELTAR_EXTRACTA_PATHOVERRIDE"] =
      WrappedExtractor(dir.path(), "extracta-unlimited", "ulimit -f unlimited");
  ProgramRun run({"-z", "-cell", design(), archive()}, full);
  ExpectCleanFailure(run, kPackagingFailed, /*packagingFailed=*/true);
}

// Row: an added file whose name the working directory already holds (a view
//   file's), an added directory, an added file that does not fit on the disk,
//   or a design path whose status cannot be read (a loop of symbolic links)
// Outcome: exit 1 and one line on standard error that names the path and the
//   system's reason, nothing on standard output; the children are ended, the
//   working directory is removed, nothing is packed or moved, and the design
//   and the added files are left as they were.
TEST_F(FileSystemFaults, PathsThatCannotBeAddedOrLookedAt) {
  VEL_SKIP_ON_WINDOWS(
      "the reasons are the C library's texts; file size limits, symbolic link loops");
  const std::string extra = dir / "extra", loop = dir / "loop.mcm";
  ASSERT_TRUE(MakeDirectory(extra));
  WriteFile(extra + "/layer.txt", "a layer view of the user's own");
  WriteFile(extra + "/big.bin", std::string(256 << 10, 'x'));
  std::filesystem::create_symlink(loop, loop);
  const auto extraBefore = Snapshot(extra);
  LaunchOptions full;
  full.fileSizeLimit = 64 << 10;
  full.env["VELTAR_EXTRACTA_PATHOVERRIDE"] =
      WrappedExtractor(dir.path(), "extracta-unlimited", "ulimit -f unlimited");
  const std::string cannotAdd = "cannot add a file to the working directory: ";
  const struct {
    std::vector<std::string> args;
    std::string line;
    LaunchOptions options;
  } rows[] = {
      {{"-cell", "-z", "-add", extra + "/layer.txt", design(), archive()},
       cannotAdd + "File exists: \"" + extra + "/layer.txt\"\n",
       {}},
      {{"-add", extra, design(), outDir()}, cannotAdd + "Is a directory: \"" + extra + "\"\n", {}},
      {{"-cell", "-z", "-add", extra + "/big.bin", design(), archive()},
       cannotAdd + "File too large: \"" + extra + "/big.bin\"\n",
       full},
      {{"-cell", "-z", loop, archive()},
       "cannot read the status of a path: Too many levels of symbolic links: \"" + loop + "\"\n",
       {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    ProgramRun run(row.args, row.options);
    ExpectCleanFailure(run, row.line);
    EXPECT_EQ(ReadFile(design()), ReadFile(SampleDesign()));
    EXPECT_EQ(Snapshot(extra), extraBefore);
  }
}

}  // namespace
}  // namespace faults
