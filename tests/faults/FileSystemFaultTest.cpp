// The fault matrix, file system faults: directories the program may not
// write, an output path whose directory is missing, and a disk that fills up
// while the program itself writes.
//
// "Not writable" needs an unprivileged user: when the tests run as root, the
// program runs as "nobody" for these rows (see LaunchOptions::unprivileged),
// and the directories it must write are opened to everybody.

#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "tests/faults/FaultMatrix.h"

namespace faults {
namespace {

const char kViewCreationFailed[] = "view creation failed (1).\n";
const char kPackagingFailed[] = "view creation failed (2).\n";

class FileSystemFaults : public FaultMatrix {
 protected:
  void SetUp() override {
    FaultMatrix::SetUp();
    // Another user must reach the test's files (mkdtemp gives 0700).
    chmod(dir.path().c_str(), 0755);
  }

  static void MakeWritable(const std::string& path) { ASSERT_EQ(chmod(path.c_str(), 0777), 0); }
  static void MakeReadOnly(const std::string& path) { ASSERT_EQ(chmod(path.c_str(), 0555), 0); }

  LaunchOptions Unprivileged() const {
    LaunchOptions options;
    options.unprivileged = true;
    return options;
  }

  // The size of the largest file of a kept working directory whose name
  // starts with `prefix`.
  static long long LargestFile(const std::string& workingDir, const std::string& prefix) {
    long long largest = 0;
    for (const std::string& name : veltest::ListDir(workingDir)) {
      if (name.rfind(prefix, 0) != 0) continue;
      largest = std::max<long long>(largest, veltest::ReadFile(workingDir + "/" + name).size());
    }
    return largest;
  }
};

// Row: the base directory (beside the design) is not writable
// Outcome: exit 1, "view creation failed (1).": the working directory cannot
//   be created, no extracta starts, and the archive already at the output
//   path is left as it was.
TEST_F(FileSystemFaults, BaseDirectoryNotWritable) {
  MakeWritable(outDir());
  MakeReadOnly(dir.path());
  ProgramRun run({"-z", design(), archive()}, Unprivileged());
  ExpectCleanFailure(run, kViewCreationFailed);
}

// Row: the output directory is not writable
// Outcome: moving into it: exit 1, "view creation failed (1).", since the
//   working directory is made inside an output directory and cannot be;
//   its files stay as they were. Zipping into it: the views are created
//   beside the design, then exit 1 with the success line followed by
//   "view creation failed (2)."; the earlier archive there is left as it
//   was and the working directory is removed.
TEST_F(FileSystemFaults, OutputDirectoryNotWritable) {
  MakeReadOnly(outDir());
  ProgramRun move({"-cell", design(), outDir()}, Unprivileged());
  ExpectCleanFailure(move, kViewCreationFailed);

  MakeWritable(dir.path());
  ProgramRun zip({"-z", design(), archive()}, Unprivileged());
  ExpectCleanFailure(zip, kPackagingFailed, /*packagingFailed=*/true);
}

// Row: the output path is in a directory that does not exist
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive cannot be opened, or the views cannot be moved, and nothing
//   is created on the way (no directory, no partial archive); the working
//   directory is removed.
TEST_F(FileSystemFaults, OutputPathInAMissingDirectory) {
  ProgramRun zip({"-z", design(), outDir() + "/missing/pkg.vlx"});
  ExpectCleanFailure(zip, kPackagingFailed, /*packagingFailed=*/true);

  ProgramRun move({design(), outDir() + "/missing/views"});
  ExpectCleanFailure(move, kPackagingFailed, /*packagingFailed=*/true);
}

// Row: the disk fills up during the merge of the connectivity pieces
// Outcome: exit 1, "view creation failed (1).": the program ignores SIGXFSZ,
//   so the write that no longer fits fails (EFBIG) instead of killing the
//   program, and the failure path ends the children and removes the working
//   directory with the partial conn.txt.
TEST_F(FileSystemFaults, DiskFillsUpDuringTheMerge) {
  // The sizes of an undisturbed run decide the limit: above every control
  // file the program writes, below the merged connectivity file.
  LaunchOptions keep;
  keep.env["VELTAR_EXTRACTA_DEBUG"] = "";
  ProgramRun measure({"-z", design(), dir / "measured.vlx"}, keep);
  ASSERT_EQ(measure.Wait().exitCode, 0);
  const std::vector<std::string> kept = WorkingDirs(dir.path());
  ASSERT_EQ(kept.size(), 1u);
  const long long merged = LargestFile(dir / kept[0], "conn.txt");
  const long long controls = LargestFile(dir / kept[0], "extracta_control");
  boost::filesystem::remove_all(dir / kept[0]);
  ASSERT_LT(controls, merged / 2);

  LaunchOptions full;
  full.fileSizeLimit = merged / 2;
  full.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = UnlimitedExtractor(dir.path());
  ProgramRun run({"-z", design(), archive()}, full);
  ExpectCleanFailure(run, kViewCreationFailed);
}

// Row: the disk fills up while the archive is written
// Outcome: exit 1, the success line followed by "view creation failed (2).":
//   the archive is assembled in a temporary file beside the output path,
//   which is removed when a write fails, so the earlier archive there is
//   left as it was; the working directory is removed.
TEST_F(FileSystemFaults, DiskFillsUpDuringZipping) {
  ProgramRun measure({"-z", "-cell", design(), dir / "measured.vlx"});
  ASSERT_EQ(measure.Wait().exitCode, 0);
  const long long archiveSize = veltest::ReadFile(dir / "measured.vlx").size();

  LaunchOptions full;
  full.fileSizeLimit = archiveSize / 2;
  full.env["VELTAR_EXTRACTA_PATHOVERRIDE"] = UnlimitedExtractor(dir.path());
  ProgramRun run({"-z", "-cell", design(), archive()}, full);
  ExpectCleanFailure(run, kPackagingFailed, /*packagingFailed=*/true);
}

}  // namespace
}  // namespace faults
