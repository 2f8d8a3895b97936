#include "core/ZipArchive.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using veltest::ListDir;
using veltest::ReadFile;
using veltest::TempDir;
using veltest::WriteFile;

struct Entry {
  std::string data;
  zip_uint16_t method;
};

// Every entry of an archive, read back through the library, by name.
std::map<std::string, Entry> ReadArchive(const std::string& path) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY | ZIP_CHECKCONS, &error);
  if (!archive) throw std::runtime_error("not an archive: " + path);
  std::map<std::string, Entry> entries;
  for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i) {
    zip_stat_t st;
    zip_stat_index(archive, static_cast<zip_uint64_t>(i), 0, &st);
    std::string data(st.size, '\0');
    zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(i), 0);
    if (st.size > 0) zip_fread(file, data.data(), st.size);
    zip_fclose(file);
    entries[st.name] = {data, st.comp_method};
  }
  zip_close(archive);
  return entries;
}

std::string RandomBytes(std::size_t size) {
  std::mt19937 generator(7);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator());
  return bytes;
}

// The entry name of an absolute path: the path without its leading "/".
std::string Unrooted(const std::string& absolute) { return absolute.substr(1); }

class CurrentDirectory {
 public:
  explicit CurrentDirectory(const std::string& path) {
    // getcwd allocates the text it returns when given no buffer.
    char* current = getcwd(nullptr, 0);
    if (!current) throw std::runtime_error("getcwd");
    previous_ = current;
    std::free(current);
    if (chdir(path.c_str()) != 0) throw std::runtime_error("chdir " + path);
  }
  ~CurrentDirectory() {
    if (chdir(previous_.c_str()) != 0) std::abort();
  }

 private:
  std::string previous_;
};

TEST(ZipArchiveTest, EntriesAreNamedByTheirAbsoluteNormalisedPathWithoutRoot) {
  TempDir dir;
  ::mkdir((dir / "run").c_str(), 0777);
  ::mkdir((dir / "run/sub").c_str(), 0777);
  WriteFile(dir / "run/layer.txt", "A!LAYER_SORT!\r\nS!1!\r\n");
  WriteFile(dir / "run/sub/inside.txt", "not packed with its directory");
  const std::string noise = RandomBytes(100000);
  WriteFile(dir / "run/noise.bin", noise);

  const std::string out = dir / "out.zip";
  {
    CurrentDirectory here(dir / "run/sub");
    CZipArchive archive;
    archive.Open(out, CZipArchive::kCreate, 0);
    archive.AddNewFile("../layer.txt", CZipArchive::kDefaultLevel, true, 7, 65536);
    archive.AddNewFile(dir / "run/./sub/../noise.bin", CZipArchive::kDefaultLevel, true);
    archive.AddNewFile(dir / "run/sub/", CZipArchive::kDefaultLevel, true);
    archive.AddNewFile(dir / "run/sub/inside.txt", 0, false);
    archive.Close(0, false);
  }

  const auto entries = ReadArchive(out);
  ASSERT_EQ(entries.size(), 4u);
  const Entry& layer = entries.at(Unrooted(dir / "run/layer.txt"));
  EXPECT_EQ(layer.data, "A!LAYER_SORT!\r\nS!1!\r\n");
  EXPECT_EQ(layer.method, ZIP_CM_DEFLATE);
  // Incompressible data is still deflated: the level is the default, not "store if larger".
  EXPECT_EQ(entries.at(Unrooted(dir / "run/noise.bin")).data, noise);
  EXPECT_EQ(entries.at(Unrooted(dir / "run/noise.bin")).method, ZIP_CM_DEFLATE);
  EXPECT_EQ(entries.at(Unrooted(dir / "run/sub/")).data, "");
  EXPECT_EQ(entries.at("inside.txt").method, ZIP_CM_STORE);
  for (const auto& [name, entry] : entries) {
    EXPECT_NE(name[0], '/') << name;
    EXPECT_EQ(name.find(".."), std::string::npos) << name;
    EXPECT_EQ(name.find("./"), std::string::npos) << name;
  }

  // ".." never climbs above the root.
  EXPECT_EQ(ZipEntryName("/../../a//b/./c.txt"), "a/b/c.txt");
}

TEST(ZipArchiveTest, ANewArchiveReplacesAnExistingFileOnlyWhenClosed) {
  TempDir dir;
  WriteFile(dir / "view.txt", "S!new!\r\n");
  const std::string out = dir / "out.vlx";
  WriteFile(out, "an older archive");

  CZipArchive archive;
  archive.Open(out, CZipArchive::kCreate, 0);
  archive.AddNewFile(dir / "view.txt", CZipArchive::kDefaultLevel, true);
  EXPECT_EQ(ReadFile(out), "an older archive");
  archive.Close();

  const auto entries = ReadArchive(out);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries.begin()->second.data, "S!new!\r\n");
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"out.vlx", "view.txt"}));
}

TEST(ZipArchiveTest, AnArchiveWithoutEntriesIsStillWritten) {
  TempDir dir;
  const std::string out = dir / "empty.zip";
  WriteFile(out, "to be replaced");
  CZipArchive archive;
  archive.Open(out, CZipArchive::kCreate, 0);
  archive.Close(0, false);
  EXPECT_TRUE(ReadArchive(out).empty());
  struct stat st;
  ASSERT_EQ(stat(out.c_str(), &st), 0);
  const mode_t mask = umask(0);
  umask(mask);
  EXPECT_EQ(st.st_mode & 0777, 0666 & ~mask);
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"empty.zip"});
}

TEST(ZipArchiveTest, OpenRefusesWhatCannotBecomeAnArchive) {
  TempDir dir;
  CZipArchive archive;
  EXPECT_THROW(archive.Open(dir.path(), CZipArchive::kCreate, 0), CZipException);
  EXPECT_THROW(archive.Open(dir / "missing/out.zip", CZipArchive::kCreate, 0), CZipException);
  EXPECT_THROW(archive.Open(dir / "out.zip", 0, 0), CZipException);
  EXPECT_THROW(archive.Open(dir / "out.zip", CZipArchive::kCreate, 1 << 20), CZipException);
  EXPECT_FALSE(archive.IsOpen());
  EXPECT_THROW(archive.AddNewFile(dir / "x", -1, true), CZipException);
  EXPECT_THROW(archive.Close(), CZipException);
  EXPECT_TRUE(ListDir(dir.path()).empty());
}

TEST(ZipArchiveTest, AnAbandonedArchiveLeavesTheOutputPathAsItWas) {
  TempDir dir;
  WriteFile(dir / "view.txt", "S!1!\r\n");
  const std::string out = dir / "out.zip";
  {
    CZipArchive archive;
    archive.Open(out, CZipArchive::kCreate, 0);
    archive.AddNewFile(dir / "view.txt", -1, true);
    EXPECT_THROW(archive.AddNewFile(dir / "missing.txt", -1, true), CZipException);
    EXPECT_THROW(archive.AddNewFile(dir / "view.txt", 10, true), CZipException);
    EXPECT_THROW(archive.AddNewFile(dir / "view.txt", -1, true), CZipException);  // same name
  }
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"view.txt"});

  WriteFile(out, "kept");
  CZipArchive archive;
  archive.Open(out, CZipArchive::kCreate, 0);
  archive.AddNewFile(dir / "view.txt", -1, true);
  archive.Close(1, false);
  EXPECT_FALSE(archive.IsOpen());
  EXPECT_EQ(ReadFile(out), "kept");
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"out.zip", "view.txt"}));
}

TEST(ZipArchiveTest, AFailedWriteFailsTheCloseAndLeavesNoFileBehind) {
  TempDir dir;
  WriteFile(dir / "big.bin", RandomBytes(1 << 20));
  WriteFile(dir / "going.txt", "S!1!\r\n");
  const std::string out = dir / "out.zip";

  // A file that went away before the archive was written.
  {
    CZipArchive archive;
    archive.Open(out, CZipArchive::kCreate, 0);
    archive.AddNewFile(dir / "going.txt", -1, true);
    ::unlink((dir / "going.txt").c_str());
    EXPECT_THROW(archive.Close(), CZipException);
    EXPECT_FALSE(archive.IsOpen());
  }
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"big.bin"});

  // A full disk, as a file size limit in a child process: writes past it fail.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {64 * 1024, 64 * 1024};
    setrlimit(RLIMIT_FSIZE, &limit);
    CZipArchive archive;
    archive.Open(out, CZipArchive::kCreate, 0);
    archive.AddNewFile(dir / "big.bin", -1, true);
    try {
      archive.Close();
    } catch (const CZipException&) {
      _exit(0);
    }
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0) << "Close did not report the failed write";
  EXPECT_EQ(ListDir(dir.path()), std::vector<std::string>{"big.bin"});
}

}  // namespace
