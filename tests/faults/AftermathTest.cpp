// The fault matrix, however a run ends: killed at any moment, killed together
// with its watchdog, interrupted while packing; an extractor that renames its
// files into place; a destination that is a symbolic link. A run leaves
// nothing but complete output.

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/farm/FarmSupport.h"
#include "tests/faults/FaultMatrix.h"

namespace {

using namespace veltest;
using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// What runs left of their own in a folder: working directories, their
// marks, temporary files.
std::vector<std::string> LeftByRuns(const std::string& directory) {
  std::vector<std::string> left = WorkingDirs(directory);
  for (const std::string& entry : ListDir(directory))
    if (entry.rfind(".extract", 0) == 0 || entry.find(".tmp") != std::string::npos)
      left.push_back(entry);
  return left;
}

std::string RandomBytes(std::size_t size, unsigned seed) {
  std::string bytes(size, '\0');
  std::mt19937 random(seed);
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

// Row: the program killed outright (SIGKILL, the out-of-memory killer) at any
//   moment of a run: extracting, merging, packing, delivering
// Outcome: nothing of the run is left: no process, and once its children are
//   gone the watchdog removes the working directory, its mark and a
//   temporary archive beside the destination. The destination holds what it
//   held before or the complete new output: an archive is the earlier one or
//   the whole new one, and every file delivered into a directory is whole.
TEST_F(LaunchFaults, KilledAtRandomMomentsLeavesOnlyCompleteOutput) {
  VEL_SKIP_ON_WINDOWS("no watchdog: the next run on the base removes a killed run's directory");
  const std::string design = MakeDesign(dir.path(), 4, 20000);
  WriteFile(dir / "added.bin", RandomBytes(8 << 20, 7));
  const auto args = [&](bool zip, const std::string& out) {
    return zip ? std::vector<std::string>{"-z", "-add", dir / "added.bin", design, out + "/v.vlx"}
               : std::vector<std::string>{"-add", dir / "added.bin", design, out};
  };
  RunOptions slow;
  slow.env = {{"EXTRACTA_SIM_NS_PER_RECORD", "500"}};

  // The complete outputs, and how long a whole run takes.
  const TempDir reference;
  double seconds[2] = {};
  for (const bool zip : {false, true}) {
    const TempDir out;
    const auto start = Clock::now();
    ProgramRun run(args(zip, zip ? reference.path() : out.path()), slow);
    ExpectOutcome(run, 0, true, "");
    seconds[zip] = SecondsSince(start);
    if (!zip) std::filesystem::rename(out.path(), reference / "files");
  }
  const ArchiveByLeaf archive = ReadArchiveByLeaf(reference / "v.vlx");
  const std::map<std::string, std::string> files = Snapshot(reference / "files");

  std::mt19937 random(2026);
  int delivered = 0;
  for (int i = 0; i < 16; ++i) {
    const bool zip = i % 2 == 0;
    const double killAfter = std::uniform_real_distribution<double>(0, seconds[zip] * 1.2)(random);
    SCOPED_TRACE(std::string(zip ? "archive" : "directory") + " killed after " +
                 std::to_string(killAfter) + " s");
    const std::string out = dir / ("out" + std::to_string(i));
    MakeDirectory(out);
    WriteFile(out + (zip ? "/v.vlx" : "/layer.txt"), "what an earlier run delivered");
    ProgramRun run(args(zip, out), slow);
    std::this_thread::sleep_for(std::chrono::duration<double>(killAfter));
    SendSignal(run.pid(), SIGKILL);
    EXPECT_TRUE(PollUntil([&] { return run.Survivors().empty(); }, 3))
        << ::testing::PrintToString(run.Survivors());
    run.Wait();
    EXPECT_TRUE(
        PollUntil([&] { return LeftByRuns(dir.path()).empty() && LeftByRuns(out).empty(); }, 3))
        << ::testing::PrintToString(LeftByRuns(dir.path()))
        << ::testing::PrintToString(LeftByRuns(out));

    for (const auto& [name, bytes] : Snapshot(out)) {
      const bool earlier = bytes == "what an earlier run delivered";
      if (zip) {
        EXPECT_TRUE(earlier || ReadArchiveByLeaf(out + "/v.vlx") == archive) << name;
        delivered += !earlier;
      } else {
        EXPECT_TRUE((earlier && name == "layer.txt") ||
                    (files.count(name) && files.at(name) == bytes))
            << name;
        delivered += name == "conn.txt";
      }
    }
  }
  std::cout << delivered << " of 16 killed runs had delivered\n";
}

// Row: the program killed together with its watchdog (a crash, its whole
//   process group killed, a node that reboots)
// Outcome: the next run on the same base removes that run's working
//   directory and its mark: the mark beside it names the run's host, process
//   and start, and the run is gone. Never removed: a directory some other
//   program made, one kept by VELTAR_EXTRACTA_DEBUG, one of a run still
//   going, one of another host's run.
TEST_F(LaunchFaults, RunKilledWithItsWatchdogIsRemovedByTheNext) {
  RunOptions hung;
  hung.env = {{"EXTRACTA_SIM_SLEEP_MS", "600000"}};
  // Started and holding a new working directory of its own.
  const auto startHung = [&](const std::string& archive) {
    const std::size_t before = WorkingDirs(dir.path()).size();
    auto run =
        std::make_unique<ProgramRun>(std::vector<std::string>{"-z", design(), archive}, hung);
    EXPECT_TRUE(PollUntil(
        [&] {
          // An extracta and, on Linux, the watchdog.
          return run->Survivors().size() >= (kOnWindows ? 1u : 2u) &&
                 WorkingDirs(dir.path()).size() > before;
        },
        60));
    return run;
  };

  // What must stay: another program's directory, a kept one, a live run's.
  MakeDirectory(dir / "extract42");
  WriteFile(dir / "extract42/theirs.txt", "someone else's");
  RunOptions debug;
  debug.env = {{"VELTAR_EXTRACTA_DEBUG", ""}};
  ProgramRun kept({"-cell", "-z", design(), dir / "kept.vlx"}, debug);
  EXPECT_EQ(kept.Wait().exitCode, 0);
  const auto live = startHung(dir / "live.vlx");
  const std::vector<std::string> staying = WorkingDirs(dir.path());

  // The dead run: its watchdog goes first, then the program, then its
  // children. A child that died before the program would be a failed run,
  // which cleans up after itself: not the case here.
  const auto dead = startHung(archive());
  const std::vector<std::string> processes = dead->Survivors();
  for (const bool watchdog : {true, false}) {
    for (const std::string& process : processes)
      if ((process.find("extracta-sim") == std::string::npos) == watchdog)
        KillProcess(std::stoi(process));
    if (watchdog) KillProcess(dead->pid());
  }
  dead->Wait();
  std::vector<std::string> left = WorkingDirs(dir.path());
  ASSERT_EQ(left.size(), staying.size() + 1) << "the dead run's directory stays for the next run";

  ProgramRun next({"-cell", "-z", design(), dir / "next.vlx"});
  ExpectOutcome(next, 0, true, "");
  EXPECT_EQ(WorkingDirs(dir.path()), staying);
  // Marked: the kept run's and the live run's; the dead run's mark went too.
  for (const std::string& name : left) {
    const bool stays = std::count(staying.begin(), staying.end(), name) > 0;
    EXPECT_EQ(PathExists(dir / ("." + name + ".run")), stays && name != "extract42") << name;
  }
  EXPECT_EQ(ReadFile(dir / "extract42/theirs.txt"), "someone else's");
  EXPECT_EQ(Snapshot(outDir()), outBefore);
  SendSignal(live->pid(), kOnWindows ? SIGKILL : SIGTERM);
  live->Wait();
}

// Row: SIGINT, SIGTERM or SIGHUP while the archive is written (a large added
//   file being compressed)
// Outcome: honoured within a second, as during extraction: exit 1, "view
//   creation failed (1).", no success line; the temporary archive beside the
//   destination is removed and the earlier archive stays as it was.
TEST_F(LaunchFaults, InterruptWhilePackingDeliversNothing) {
  VEL_SKIP_ON_WINDOWS("an interrupt reaches a console program under wine only from a terminal");
  WriteFile(dir / "big.bin", RandomBytes(96 << 20, 11));
  ProgramRun run({"-z", "-add", dir / "big.bin", design(), archive()});
  const auto temporary = [&] {
    for (const std::string& name : ListDir(outDir()))
      if (name.find(".tmp") != std::string::npos) return true;
    return false;
  };
  ASSERT_TRUE(PollUntil(temporary, 60));
  ASSERT_TRUE(SendSignal(run.pid(), SIGINT));
  const auto sent = Clock::now();
  ExpectCleanFailure(run, kViewCreationFailed);
  EXPECT_LT(SecondsSince(sent), 1.0);
}

// Row: extracta writes a view file (the connectivity survey, a piece, a
//   view) under another name and renames it into place when done, the file
//   holding an empty placeholder or just its header lines meanwhile
// Outcome: the run succeeds and delivers exactly what it delivers from an
//   extracta that writes in place: the survey is counted from the file at
//   the path once its child has ended (a file followed while it was written
//   that is not that file, or not all of it, is counted again), and a view
//   packed while written is packed again from the file that stands.
TEST_F(LaunchFaults, ViewFilesRenamedIntoPlace) {
  const std::string design = MakeDesign(dir.path(), 6, 3000);
  ProgramRun plain({"-z", design, dir / "plain.vlx"});
  ExpectCleanSuccess(plain);
  for (const char* match : {"extracta_control_connnets.txt", "extracta_control_connremainder.txt",
                            "extracta_control_fullgeo.txt"}) {
    for (const char* mode : {"rename", "rename-header"}) {
      SCOPED_TRACE(std::string(match) + " " + mode);
      RunOptions renaming;
      renaming.env = {{"EXTRACTA_SIM_MATCH", match},
                      {"EXTRACTA_SIM_OUTPUT", mode},
                      {"EXTRACTA_SIM_NS_PER_RECORD", "50000"}};
      ProgramRun run({"-z", design, dir / "renamed.vlx"}, renaming);
      ExpectCleanSuccess(run);
      EXPECT_TRUE(ReadArchiveByLeaf(dir / "renamed.vlx") == ReadArchiveByLeaf(dir / "plain.vlx"));
    }
  }
}

// Row: the destination is a symbolic link to an archive
// Outcome: the link stays a link; the archive is written beside its target
//   and renamed onto the target, which then holds the complete archive.
TEST_F(LaunchFaults, DestinationThatIsALinkStaysALink) {
  namespace fs = std::filesystem;
  VEL_SKIP_ON_WINDOWS("making symbolic links needs a privilege there");
  MakeDirectory(dir / "real");
  WriteFile(dir / "real/target.vlx", "the archive of an earlier run");
  fs::create_symlink("../real/target.vlx", fs::u8path(outDir() + "/link.vlx"));
  ProgramRun run({"-z", design(), outDir() + "/link.vlx"});
  ExpectCleanSuccess(run);
  EXPECT_TRUE(fs::is_symlink(fs::u8path(outDir() + "/link.vlx")));
  EXPECT_EQ(ArchiveLeaves(dir / "real/target.vlx").size(), 47u);
  EXPECT_EQ(ListDir(dir / "real"), std::vector<std::string>{"target.vlx"});
}

}  // namespace
