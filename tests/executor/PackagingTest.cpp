#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <gtest/gtest.h>
#include <boost/filesystem.hpp>

#include "core/VelAssert.h"
#include "executor/ExtractaExecutor.h"
#include "tests/support/TestSupport.h"

namespace {

using veltest::ListDir;
using veltest::PathExists;
using veltest::ReadFile;
using veltest::ScopedEnv;
using veltest::TempDir;
using veltest::WriteFile;

// Entry names of an archive, sorted; throws when the file is not an archive.
std::vector<std::string> ArchiveNames(const std::string& path) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
  if (!archive) throw std::runtime_error("not an archive: " + path);
  std::vector<std::string> names;
  for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i)
    names.push_back(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
  zip_close(archive);
  std::sort(names.begin(), names.end());
  return names;
}

// An executor whose working directory holds what a run leaves behind: view
// files, the control file, a file with an upper-case extension, one without
// extension and a subdirectory.
class PackagingTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(executor_.createWorkingDir(AString(base_.path())));
    work_ = VEL_ANSI(executor_.getWorkingDir().FilePath());
    WriteFile(work_ + "layer.txt", "S!layer!\r\n");
    WriteFile(work_ + "conn.txt", "S!conn!\r\n");
    WriteFile(work_ + "extracta_control.txt", "LAYER\r\n");
    WriteFile(work_ + "notes.TXT", "kept back");
    WriteFile(work_ + "README", "no extension");
    ::mkdir((work_ + "extra").c_str(), 0777);
    WriteFile(work_ + "extra/inside.txt", "not packed");
  }

  // The entry name of a file of the working directory.
  std::string Entry(const std::string& name) const { return (work_ + name).substr(1); }

  ScopedEnv debug_{"VELTAR_EXTRACTA_DEBUG", std::nullopt};
  TempDir base_;
  TempDir out_;
  ExtractaExecutor executor_;
  std::string work_;
};

TEST_F(PackagingTest, ZipPacksTheTopLevelFilesThatCarryTheExactExtension) {
  ScopedAssertCapture capture;
  const std::string vlx = out_ / "design.vlx";
  ASSERT_TRUE(executor_.zipActiveViews(AString(vlx), AString(".txt")));
  EXPECT_EQ(ArchiveNames(vlx),
            (std::vector<std::string>{Entry("conn.txt"), Entry("extracta_control.txt"),
                                      Entry("layer.txt")}));
  EXPECT_TRUE(capture.reports().empty());
  // The working directory is left as it was; its owner removes it.
  EXPECT_EQ(ListDir(work_).size(), 6u);

  // Without a filter everything on the top level goes, the subdirectory as an
  // entry of its own without its contents.
  ASSERT_TRUE(executor_.zipActiveViews(AString(vlx), AString()));
  EXPECT_EQ(ArchiveNames(vlx),
            (std::vector<std::string>{Entry("README"), Entry("conn.txt"), Entry("extra/"),
                                      Entry("extracta_control.txt"), Entry("layer.txt"),
                                      Entry("notes.TXT")}));
}

TEST_F(PackagingTest, ZipFailuresAreReportedAndLeaveNoArchive) {
  {
    ScopedAssertCapture capture;
    EXPECT_FALSE(executor_.zipActiveViews(AString(out_.path()), AString(".txt")));
    EXPECT_TRUE(capture.Saw("ExtractaExecutor", "!fs::is_directory(outpath)"));
    EXPECT_TRUE(capture.Saw("ExtractaExecutor", "!\"open archive failed\""));
    EXPECT_TRUE(ListDir(out_.path()).empty());
  }
  {
    // A view file that cannot be read: the archive is abandoned.
    ::symlink((work_ + "missing").c_str(), (work_ + "broken.txt").c_str());
    ScopedAssertCapture capture;
    EXPECT_FALSE(executor_.zipActiveViews(AString(out_ / "design.vlx"), AString(".txt")));
    EXPECT_TRUE(capture.Saw("ExtractaExecutor",
                            "!\"ExtractaExecutor::zipActiveViews, error with boost::filesystem\""));
    EXPECT_TRUE(ListDir(out_.path()).empty());
  }
}

TEST_F(PackagingTest, WithoutAWorkingDirectoryThereIsNothingToPack) {
  ExtractaExecutor fresh;
  const std::string vlx = out_ / "empty.vlx";
  EXPECT_TRUE(fresh.zipActiveViews(AString(vlx), AString(".txt")));
  EXPECT_TRUE(ArchiveNames(vlx).empty());
  EXPECT_TRUE(fresh.moveActiveViews(AString(out_.path()), AString(".txt")));
  EXPECT_EQ(ListDir(out_.path()), std::vector<std::string>{"empty.vlx"});
  EXPECT_FALSE(fresh.addFilesToWorkingDir({AString(vlx)}));

  // The same once the directory has gone.
  ASSERT_TRUE(executor_.deleteWorkingDir());
  EXPECT_TRUE(executor_.zipActiveViews(AString(vlx), AString(".txt")));
  EXPECT_TRUE(ArchiveNames(vlx).empty());
  EXPECT_TRUE(executor_.moveActiveViews(AString(out_.path()), AString()));
  EXPECT_FALSE(executor_.addFilesToWorkingDir({AString(vlx)}));
}

TEST_F(PackagingTest, MoveReplacesFilesOfTheSameNameAndLeavesFilteredOnesBehind) {
  WriteFile(out_ / "conn.txt", "S!older!\r\n");
  WriteFile(out_ / "other.txt", "untouched");
  ScopedAssertCapture capture;
  ASSERT_TRUE(executor_.moveActiveViews(AString(out_.path()), AString(".txt")));
  EXPECT_TRUE(capture.reports().empty());
  EXPECT_EQ(ListDir(out_.path()), (std::vector<std::string>{"conn.txt", "extracta_control.txt",
                                                            "layer.txt", "other.txt"}));
  EXPECT_EQ(ReadFile(out_ / "conn.txt"), "S!conn!\r\n");
  EXPECT_EQ(ReadFile(out_ / "other.txt"), "untouched");
  EXPECT_EQ(ListDir(work_), (std::vector<std::string>{"README", "extra", "notes.TXT"}));

  // Without a filter the rest follows, the subdirectory with its contents.
  ASSERT_TRUE(executor_.moveActiveViews(AString(out_.path()), AString()));
  EXPECT_TRUE(ListDir(work_).empty());
  EXPECT_EQ(ReadFile(out_ / "extra/inside.txt"), "not packed");
}

TEST_F(PackagingTest, MoveFailuresAreReportedAndKeepWhatWasMoved) {
  {
    ScopedAssertCapture capture;
    EXPECT_FALSE(executor_.moveActiveViews(AString(out_ / "missing"), AString(".txt")));
    EXPECT_TRUE(capture.Saw("ExtractaExecutor", "fs::is_directory(outpath)"));
    EXPECT_TRUE(
        capture.Saw("ExtractaExecutor",
                    "!\"ExtractaExecutor::moveActiveViews, error with boost::filesystem\""));
    EXPECT_EQ(ListDir(work_).size(), 6u);
  }
  {
    // A directory in the way of one view file cannot be replaced by it.
    ::mkdir((out_ / "layer.txt").c_str(), 0777);
    WriteFile(out_ / "layer.txt/keep", "");
    ScopedAssertCapture capture;
    EXPECT_FALSE(executor_.moveActiveViews(AString(out_.path()), AString(".txt")));
    EXPECT_TRUE(
        capture.Saw("ExtractaExecutor",
                    "!\"ExtractaExecutor::moveActiveViews, error with boost::filesystem\""));
    EXPECT_TRUE(PathExists(work_ + "layer.txt"));
    EXPECT_TRUE(PathExists(out_ / "layer.txt/keep"));
  }
}

TEST_F(PackagingTest, AddedFilesAreCopiedInOrderAndMissingOnesSkipped) {
  WriteFile(out_ / "stackup.csv", "1,2,3");
  WriteFile(out_ / "layer.txt", "an added view");
  ScopedAssertCapture capture;
  EXPECT_TRUE(executor_.addFilesToWorkingDir(
      {AString(out_ / "stackup.csv"), AString(out_ / "nothing.here")}));
  EXPECT_TRUE(capture.reports().empty());
  EXPECT_EQ(ReadFile(work_ + "stackup.csv"), "1,2,3");
  EXPECT_FALSE(PathExists(work_ + "nothing.here"));

  // A name the run has produced already is never overwritten: the copy throws
  // after copying what came before it.
  WriteFile(out_ / "first.dat", "copied before the clash");
  EXPECT_THROW(
      executor_.addFilesToWorkingDir({AString(out_ / "first.dat"), AString(out_ / "layer.txt"),
                                      AString(out_ / "stackup.csv")}),
      boost::filesystem::filesystem_error);
  EXPECT_EQ(ReadFile(work_ + "layer.txt"), "S!layer!\r\n");
  EXPECT_EQ(ReadFile(work_ + "first.dat"), "copied before the clash");
}

}  // namespace
