// ExtractaExecutor: a clash of the working directory with another run's;
// packaging from the working directory's listing, the background packer, and
// the zip writer under it. The one-process run, packaging's failures, and a
// full disk while the archive is written, are shown end to end (tests/e2e,
// tests/faults).

#include <algorithm>
#include <csignal>
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <zip.h>

#include "core/Interrupt.h"
#include "core/ProcessStamp.h"
#include "core/VelAssert.h"
#include "core/ZipArchive.h"
#include "executor/BackgroundPacker.h"
#include "executor/ExtractaExecutor.h"
#include "executor/RunMarks.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

// Every test starts without the debug variable: the executor removes its
// working directory when destroyed. The clock is nine hours east of UTC, so
// that a run number taken from UTC instead of the local clock shows.
class ExecutorTest : public ::testing::Test {
 protected:
  ScopedEnv debug{"VELTAR_EXTRACTA_DEBUG", std::nullopt};
  ScopedEnv east{"TZ", "XST-9"};
  TempDir base;
};

// Runs on one base in one second compute the same name, the local clock's
// seconds. A run whose name is taken moves to the next number up, as far as a
// thousand numbers on; past that it fails. Either way the directories it did
// not make keep their files, and its own goes when it is destroyed.
TEST_F(ExecutorTest, TakenNamesMoveTheRunOn) {
  const struct {
    long taken;  // names taken from the second before the run on
    bool created;
  } rows[] = {{31, true}, {1040, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.taken);
    const TempDir runBase;
    const long now = LocalSecondsNow();
    for (long n = now - 1; n < now - 1 + row.taken; ++n) {
      const std::string dir = runBase / ("extract" + std::to_string(n));
      MakeDirectory(dir);
      WriteFile(dir + "/layer.txt", "S!earlier!\r\n");
    }
    const auto earlier = Snapshot(runBase.path());
    std::string own;
    {
      ScopedAssertCapture capture;
      ExtractaExecutor executor;
      EXPECT_EQ(executor.createWorkingDir(AString(runBase.path())), row.created);
      own = VEL_ANSI(executor.getWorkingDir().FilePath());
      EXPECT_EQ(own.rfind(runBase.path() + "/extract", 0), 0u) << own;
      const long number = std::stol(own.substr(runBase.path().size() + 8));
      if (row.created) {
        EXPECT_EQ(number, now - 1 + row.taken);
        EXPECT_EQ(ListDir(own), std::vector<std::string>{});
        EXPECT_TRUE(capture.reports().empty());
      } else {
        // The last name tried stays the executor's working directory.
        EXPECT_GE(number, now + 998);
        EXPECT_EQ(VEL_ANSI(executor.getErrorMessage()),
                  "Could not create working directory at \"" + own + "\"");
        EXPECT_TRUE(capture.Saw(
            "ExtractaExecutor",
            "!\"VelLinkServer::createExtractaViews, could not create working directory\""));
        EXPECT_TRUE(executor.deleteWorkingDir());
      }
    }
    EXPECT_EQ(Snapshot(runBase.path()), earlier);
  }
}

using Names = std::vector<std::string>;

// Packaging from the working directory's listing: the ".txt" filter lets
// through the top-level files whose extension is exactly ".txt" (not ".TXT",
// nor a file in a subdirectory), a move replaces a file of the same name and
// leaves the filtered ones behind, and an added file that does not exist is
// skipped.
TEST_F(ExecutorTest, PackagingTakesTheExactExtensionAndAMoveReplaces) {
  ExtractaExecutor executor;
  ASSERT_TRUE(executor.createWorkingDir(AString(base.path())));
  const std::string work = VEL_ANSI(executor.getWorkingDir().FilePath());
  for (const char* name : {"layer.txt", ".txt", "notes.TXT", "README"})
    WriteFile(work + name, name);
  MakeDirectory(work + "extra");
  WriteFile(work + "extra/inside.txt", "inside");
  const TempDir out;
  WriteFile(out / "added.csv", "added");
  EXPECT_TRUE(executor.addFilesToWorkingDir({AString(out / "added.csv"), AString(out / "no.csv")}));
  ASSERT_TRUE(executor.zipActiveViews(AString(out / "views.vlx"), AString(".txt")));
  EXPECT_EQ(
      ArchiveNames(out / "views.vlx"),
      (std::vector<std::string>{WithoutRoot(work + ".txt"), WithoutRoot(work + "layer.txt")}));
  WriteFile(out / "layer.txt", "an older view");
  ASSERT_TRUE(executor.moveActiveViews(AString(out.path()), AString(".txt")));
  EXPECT_EQ(ReadFile(out / "layer.txt"), "layer.txt");
  EXPECT_EQ(ListDir(work), (std::vector<std::string>{"README", "added.csv", "extra", "notes.TXT"}));
}

// A working directory is marked as its run's, beside it; what becomes of a
// marked directory when another run on the base looks at it (on a base:
// LaunchFaults.RunKilledWithItsWatchdogIsRemovedByTheNext).
TEST_F(ExecutorTest, RunMarksTellWhichDirectoriesAreADeadRunsOwn) {
  EXPECT_EQ(RunMarkPath("/d/base/extract1700000000/"), "/d/base/.extract1700000000.run");
  const VeltProcessStamp self = VeltThisProcess();
  EXPECT_FALSE(self.host.empty());
  EXPECT_TRUE(VeltProcessRuns(self.pid, self.started));
  EXPECT_FALSE(VeltProcessRuns(self.pid, self.started + "0"));

  const VeltProcessStamp dead{self.host, 4242, "boot:17"};
  const auto runs = [&](long long pid, const std::string& started) {
    return pid == self.pid && started == self.started;
  };
  const struct {
    std::string mark;
    RunDirectoryFate fate;
  } rows[] = {
      {RunMarkText(dead, false), RunDirectoryFate::kRemove},
      {RunMarkText(self, false), RunDirectoryFate::kStillRunning},
      {RunMarkText(dead, true), RunDirectoryFate::kKept},
      {RunMarkText({"elsewhere", 4242, "boot:17"}, false), RunDirectoryFate::kAnotherHost},
      {RunMarkText({"", 4242, "boot:17"}, false), RunDirectoryFate::kAnotherHost},
      {"", RunDirectoryFate::kNoRunMark},
      {"some other program's notes\nhost x\npid 1\nstarted 2\n", RunDirectoryFate::kNoRunMark},
      // Cut short while it was written: nothing to act on.
      {"VelExtracta run\nhost " + self.host + "\npid 4242\n", RunDirectoryFate::kNoRunMark},
      {"VelExtracta run\nhost " + self.host + "\npid 42x\nstarted 1\n",
       RunDirectoryFate::kNoRunMark},
  };
  for (const auto& row : rows) EXPECT_EQ(FateOf(row.mark, self.host, runs), row.fate) << row.mark;
}

// An interrupt before the last file is in place: every file goes back where
// it came from, and the files they replaced back in their places. Enough
// views that the move is under way when the interrupt comes, as the first
// file replaced is set aside.
TEST_F(ExecutorTest, InterruptedMoveDeliversNothing) {
  VEL_SKIP_ON_WINDOWS("the interrupt is raised as a signal");
  InstallInterruptHandlers();
  ExtractaExecutor executor;
  ASSERT_TRUE(executor.createWorkingDir(AString(base.path())));
  const std::string work = VEL_ANSI(executor.getWorkingDir().FilePath());
  const TempDir out;
  constexpr int kViews = 4000;
  for (int i = 0; i < kViews; ++i) {
    WriteFile(work + "v" + std::to_string(i) + ".txt", "new");
    WriteFile(out / ("v" + std::to_string(i) + ".txt"), "older");
  }
  std::thread interrupter([&] {
    PollUntil([&] { return PathExists(work + ".replaced"); }, 10);
    raise(SIGINT);
  });
  EXPECT_FALSE(executor.moveActiveViews(AString(out.path()), AString(".txt")));
  interrupter.join();
  ClearInterruptRequest();
  const auto holds = [](const std::string& folder, const std::string& bytes) {
    const std::vector<std::string> names = ListDir(folder);
    return std::count_if(names.begin(), names.end(), [&](const std::string& name) {
      return ReadFile(folder + "/" + name) == bytes;
    });
  };
  EXPECT_EQ(holds(out.path(), "older"), kViews);
  EXPECT_EQ(ListDir(out.path()).size(), std::size_t{kViews});
  EXPECT_EQ(holds(work, "new"), kViews);
}

// An entry's compressed bytes.
std::string RawEntry(const std::string& path, const std::string& name) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
  zip_stat_t st;
  zip_stat(archive, name.c_str(), 0, &st);
  std::string raw(st.comp_size, '\0');
  zip_file_t* file = zip_fopen(archive, name.c_str(), ZIP_FL_COMPRESSED);
  zip_fread(file, raw.data(), raw.size());
  zip_fclose(file);
  zip_close(archive);
  return raw;
}

// Whether an entry's data ends as joined segments end: a sync flush's empty
// stored block, then the final block. The zip writer's own deflate does not.
bool JoinedSegments(const std::string& path, const std::string& name) {
  const std::string raw = RawEntry(path, name);
  const std::string end("\0\0\xff\xff\x03\0", 6);
  return raw.size() >= end.size() && raw.compare(raw.size() - end.size(), end.size(), end) == 0;
}

TEST(BackgroundPackerTest, EveryFileReadsBackAsItIsWhetherDeflatedAheadOrNot) {
  // Pieces (one with a body of several segments, one of a single line) and
  // the combined file of their bodies are deflated ahead; a view changed after
  // it was handed over, and a file never handed over, are deflated by the zip
  // writer. Either way every entry holds the file's bytes, in memory or with
  // everything spilled to the temporary file. The large piece is deflated
  // while it is written, a few bytes first, and comes out as the same bytes
  // handed over finished do.
  std::string large = "A!NET_NAME!PIN!\r\nJ!pkg.mcm!x!\r\n";
  for (int i = 0; large.size() < 5 * BackgroundPacker::kSegmentBytes / 2; ++i)
    large += "S!GND!P" + std::to_string(i) + "!\r\n";
  const std::vector<std::pair<std::string, std::string>> pieces = {
      {"conn0_GND.txt", large},
      {"conn1_VDD.txt", "A!NET_NAME!PIN!\r\nJ!pkg.mcm!y!\r\nS!VDD!P1!\r\n"},
      {"connremainder.txt", "A!NET_NAME!PIN!\r\n"}};
  for (const std::size_t budget : {BackgroundPacker::kMemoryBudget, std::size_t(0)}) {
    SCOPED_TRACE(budget);
    TempDir dir;
    std::string combined = large.substr(0, large.find("S!"));
    std::vector<std::string> piecePaths;
    BackgroundPacker packer(2, budget);
    for (const auto& [name, bytes] : pieces) {
      if (name == "conn0_GND.txt") {
        packer.viewStarted(dir / name);
        std::ofstream growing(dir / name, std::ios::binary);
        for (std::size_t at = 0, step = 10; at < bytes.size(); at += step, step = 600 << 10) {
          growing << bytes.substr(at, step) << std::flush;
          packer.waiting();
        }
      } else {
        WriteFile(dir / name, bytes);
      }
      piecePaths.push_back(dir / name);
      packer.viewFinished(dir / name);
      const std::size_t second = bytes.find('\n', bytes.find('\n') + 1);
      if (second != std::string::npos) combined += bytes.substr(second + 1);
    }
    WriteFile(dir / "conn9_twin.txt", large);
    packer.viewFinished(dir / "conn9_twin.txt");
    WriteFile(dir / "conn.txt", combined);
    packer.combinedFrom(dir / "conn.txt", piecePaths);
    WriteFile(dir / "layer.txt", "A!LAYER!\r\nJ!pkg.mcm!x!\r\nS!TOP!\r\n");
    packer.viewFinished(dir / "layer.txt");
    WriteFile(dir / "extracta_control_layer.txt", "LAYER\r\n");
    ASSERT_TRUE(packer.finish());
    WriteFile(dir / "layer.txt", "A!LAYER!\r\nJ!pkg.mcm!x!\r\nS!BOTTOM!\r\n");

    const std::string out = dir / "out.vlx";
    CZipArchive archive;
    archive.Open(out, CZipArchive::kCreate, 0);
    const Names files = ListDir(dir.path());
    for (const std::string& name : files)
      if (name != "out.vlx" && !packer.addTo(archive, dir / name, true))
        archive.AddNewFile(dir / name, CZipArchive::kDefaultLevel, true);
    archive.Close();
    const auto entries = ReadArchive(out);
    for (const std::string& name : files) {
      if (name == "out.vlx") continue;
      const std::string entry = WithoutRoot(dir / name);
      EXPECT_EQ(entries.at(entry).data, ReadFile(dir / name)) << name;
      EXPECT_EQ(JoinedSegments(out, entry), name.rfind("conn", 0) == 0) << name;
    }
    EXPECT_EQ(RawEntry(out, WithoutRoot(dir / "conn0_GND.txt")),
              RawEntry(out, WithoutRoot(dir / "conn9_twin.txt")));
  }
}

TEST(ZipArchiveTest, EntriesAreNamedByTheirAbsolutePathAndDeflatedAtTheDefaultLevel) {
  TempDir dir;
  MakeDirectory(dir / "run");
  MakeDirectory(dir / "run/sub");
  WriteFile(dir / "run/layer.txt", "A!LAYER_SORT!\r\nS!1!\r\n");
  WriteFile(dir / "run/sub/inside.txt", "stored");
  const std::string out = dir / "out.zip";
  CZipArchive archive;
  archive.Open(out, CZipArchive::kCreate, 0);
  archive.AddNewFile(dir / "run/./sub/../layer.txt", CZipArchive::kDefaultLevel, true, 7, 65536);
  archive.AddNewFile(dir / "run/sub/", CZipArchive::kDefaultLevel, true);  // not its contents
  archive.AddNewFile(dir / "run/sub/inside.txt", 0, false);
  archive.Close(0, false);

  const auto entries = ReadArchive(out);
  const std::string run = WithoutRoot(dir / "run/");
  EXPECT_EQ(ArchiveNames(out), (Names{"inside.txt", run + "layer.txt", run + "sub/"}));
  EXPECT_EQ(entries.at(run + "layer.txt").data, "A!LAYER_SORT!\r\nS!1!\r\n");
  EXPECT_EQ(entries.at(run + "layer.txt").method, ZIP_CM_DEFLATE);
  EXPECT_EQ(entries.at("inside.txt").method, ZIP_CM_STORE);
  // The default level is deflate's own, 6, not the slowest: the first local
  // header's flag bits 1-2 say "normal" (9 would say "maximum").
  EXPECT_EQ(ReadFile(out).at(6) & 0x06, 0);
  // Entry names never carry a root or "..", and use "/" between elements.
  using Cases = std::vector<std::pair<std::string, std::string>>;
  const Cases windows = {{"C:\\x\\..\\..\\y\\z.txt", "y/z.txt"},
                         {"d:/a\\b", "a/b"},
                         {"\\\\server\\share\\a\\b.txt", "a/b.txt"}};
  Cases cases = kOnWindows ? windows : Cases{{"/a\\b/c", "a\\b/c"}};
  cases.emplace_back("/../../a//b/./c.txt", "a/b/c.txt");
  for (const auto& [path, name] : cases) EXPECT_EQ(ZipEntryName(path), name) << path;
}

}  // namespace
