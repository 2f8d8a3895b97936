// The fault matrix, file system faults: directories the program may not
// write, output paths it cannot deliver to, a disk that fills up while the
// program itself writes, and paths it cannot add or look at. "Not writable"
// needs an unprivileged user: when the tests run as root, the program runs as
// "nobody" for these rows (see RunOptions::unprivileged), and the directories
// it must write are opened to everybody.

#include "tests/faults/FaultMatrix.h"

using namespace veltest;

// Row: the base directory (beside the design) is not writable
// Outcome: exit 1, "view creation failed (1).": the working directory cannot
//   be created, no extracta starts, and the archive already at the output
//   path is left as it was.
// Proof: tests/faults/FileSystemTest.cpp FileSystemFaults.UnwritableDirectories
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
    RunOptions unprivileged;
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
// Proof: tests/faults/FileSystemTest.cpp FileSystemFaults.DiskFillsUpDuringTheMergeOrTheZipping
// Row: the disk fills up while the archive is written
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive is assembled in a temporary file beside the output path,
//   which is removed when a write fails, so the earlier archive there is
//   left as it was; the working directory is removed.
TEST_F(FileSystemFaults, DiskFillsUpDuringTheMergeOrTheZipping) {
  VEL_SKIP_ON_WINDOWS("file size limits are a POSIX resource limit");
  // The disk is full halfway through the merged connectivity file, or halfway
  // through the cell run's archive.
  ProgramRun measure({"-z", "-cell", design(), dir / "measured.vlx"});
  ASSERT_EQ(measure.Wait().exitCode, 0);
  const struct {
    std::vector<std::string> args;
    std::size_t full;
    const char* line;
  } rows[] = {
      {{"-z", design(), archive()},
       PlainConnectivity(design(), dir.path()).size() / 2,
       kViewCreationFailed},
      {{"-z", "-cell", design(), archive()},
       ReadFile(dir / "measured.vlx").size() / 2,
       kPackagingFailed},
  };
  // Above the largest control file the program writes itself, the cell run's.
  const std::size_t control =
      ReadFile(std::string(VEL_SOURCE_DIR) + "/tests/views/golden/cell.txt").size();
  for (const auto& row : rows) {
    ASSERT_GT(row.full, control);
    ProgramRun run(row.args, DiskFullAt(static_cast<long long>(row.full)));
    ExpectCleanFailure(run, row.line, row.line == std::string(kPackagingFailed));
  }
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
  const RunOptions full = DiskFullAt(64 << 10);
  const std::string cannotAdd = "cannot add a file to the working directory: ";
  const struct {
    std::vector<std::string> args;
    std::string line;
    RunOptions options;
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
