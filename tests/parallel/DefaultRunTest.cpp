// The default run: which processes start and in which order, how many at
// once, which nets are split and what the merged connectivity file holds, end
// to end through the built program and the stand-in extractor; and the texts the
// executor keeps for each kind of failure, which only the executor shows. (A
// child failing anywhere ends the whole run cleanly: the fault matrix,
// ExtractorFaults.ChildFailures, proves that end to end.)

#ifndef _WIN32
#include <sys/syscall.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/AString.h"
#include "executor/ExtractaExecutor.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/support/TestSupport.h"
#include "views/ViewTypes.h"

namespace {

using namespace veltest;

// The error the stand-in for copy_file_range below fails with; 0: none.
std::atomic<int> gKernelCopyError{0};

// The control file names the default run must start, in start order, for the
// split nets' sanitised names.
std::vector<std::string> ExpectedControlFiles(const std::vector<std::string>& splitNets) {
  std::vector<std::string> names;
  for (const std::string& view : kOtherStandardViews)
    names.push_back("extracta_control_" + view + ".txt");
  names.push_back("extracta_control_connnets.txt");
  for (std::size_t i = 0; i < splitNets.size(); ++i) {
    for (const char* group : {"CONDUCTOR_ETCH", "PIN", "VIA_CLASS"})
      names.push_back("extracta_control_conn" + std::to_string(i) + "_" + splitNets[i] + "_" +
                      group + ".txt");
  }
  names.push_back("extracta_control_connremainder.txt");
  return names;
}

// The runs' control file names in start order. With one child at a time that
// is the order the generators were queued in; with more, children started
// together may log their starts in either order, so only the names compare.
// Never more children at once than the limit.
void ExpectStarted(const KeptRun& run, std::vector<std::string> expected) {
  std::vector<std::string> started;
  for (const SimRun& sim : run.runs) started.push_back(sim.control);
  if (ExtractaViewGenerator::DefaultConcurrencyLimit() > 1) {
    std::sort(started.begin(), started.end());
    std::sort(expected.begin(), expected.end());
  }
  EXPECT_EQ(started, expected);
  EXPECT_LE(MostAtOnce(run.runs),
            static_cast<int>(ExtractaViewGenerator::DefaultConcurrencyLimit()));
}

// The merge's contract: the first piece's header, then every piece's records
// in generator order (the runs queued after the survey), and the same records
// one plain connectivity run finds.
void ExpectMergedFromPieces(const KeptRun& run, const std::vector<std::string>& controls,
                            const std::string& design, const std::string& scratch) {
  const auto survey = std::find(controls.begin(), controls.end(), "extracta_control_connnets.txt");
  ASSERT_NE(survey, controls.end());
  std::string header, bodies;
  for (auto control = survey + 1; control != controls.end(); ++control) {
    const std::string piece =
        ReadFile(run.workDir + control->substr(std::string("extracta_control_").size()));
    if (header.empty()) header = SplitHeader(piece).header;
    bodies += SplitHeader(piece).body;
  }
  const std::string merged = ReadFile(run.workDir + "conn.txt");
  EXPECT_EQ(SplitHeader(merged).header, header);
  EXPECT_EQ(SplitHeader(merged).body, bodies);
  const std::string plain = PlainConnectivity(design, scratch);
  EXPECT_EQ(SortedRecords(merged), SortedRecords(plain));
  EXPECT_EQ(Lines(merged).at(0), Lines(plain).at(0));
}

// Designs whose connectivity table is written by hand, so that which nets are
// split is known in advance. Each net's records are spread over the classes
// the view admits and one it does not (which the survey counts all the same).
TEST(DefaultRun, OnChosenNets) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, int>> nets;  // records per net
    std::vector<std::string> options;
    std::vector<std::string> split;  // in index order
    std::vector<std::string> files;  // the split nets' sanitised names; none: as split
  };
  const std::vector<Case> cases = {
      {"ties rank the byte-wise greater name first",
       {{"ALPHA", 3}, {"N1", 5}, {"Z", 1}, {"Q", 4}, {"BETA", 3}, {"N2", 5}},
       {},
       {"N2", "N1", "Q", "BETA"},
       {}},
      {"fewer than four nets are all split", {{"A", 7}, {"B", 2}}, {}, {"A", "B"}, {}},
      {"no connectivity records leave only the remainder", {}, {}, {}, {}},
      {"names with blanks and punctuation give distinct sanitised files",
       {{"VDD CORE", 9}, {"VDD/CORE", 8}, {"a.b-c_d", 6}, {"(x)", 4}, {"VDD+CORE", 1}},
       {},
       {"VDD CORE", "VDD/CORE", "a.b-c_d", "(x)"},
       {"VDD_CORE", "VDD_CORE", "a_b-c_d", "_x_"}},
      {"a net selection narrows survey and split, not the remainder",
       {{"A", 9}, {"B", 7}, {"C", 6}, {"D", 5}, {"E", 4}},
       {"-n", "D,B"},
       {"B", "D"},
       {}},
  };
  TempDir scratch;
  const std::string base = MakeDesign(scratch.path(), 3, 200);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    std::vector<NetClass> records;
    static const char* const kClasses[] = {"ETCH", "PIN", "VIA CLASS", "CONDUCTOR", "ANTI ETCH"};
    for (const auto& [net, count] : c.nets)
      for (int i = 0; i < count; ++i) records.emplace_back(net, kClasses[i % 5]);
    const std::string design = WithConnectivity(base, dir / "chosen.mcm", records);
    std::vector<std::string> args = c.options;
    args.insert(args.end(), {"-z", design, dir / "out.vlx"});
    const KeptRun run = RunKeeping(dir.path(), args);
    ASSERT_FALSE(run.workDir.empty());

    const std::vector<std::string> controls =
        ExpectedControlFiles(c.files.empty() ? c.split : c.files);
    ExpectStarted(run, controls);
    ExpectMergedFromPieces(run, controls, design, dir.path());
    // The merge holds every net's records (above), so the remainder takes
    // every net not split whatever the selection; the other views carry it.
    if (!c.options.empty()) {
      EXPECT_NE(ReadFile(run.workDir + "extracta_control_fullgeo.txt").find("NET_NAME ='D'"),
                std::string::npos);
    }
  }
}

// Runs the default view creation on an executor directly, so that its error
// message and active view list can be looked at; `dirsToPrepare` are made in
// the working directory before the run, to stand in the way of files.
class DefaultRunExecutor : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = MakeDesign(dir_.path(), 5, 100);
    design_ = WithConnectivity(
        base_, dir_ / "two.mcm",
        {{"A", "ETCH"}, {"A", "PIN"}, {"A", "VIA CLASS"}, {"B", "PIN"}, {"B", "ETCH"}});
  }

  bool Run(const EnvMap& faults, const std::vector<std::string>& dirsToPrepare = {}) {
    EnvMap variables = {{"VELTAR_EXTRACTA_PATHOVERRIDE", BinPath("extracta-sim")},
                        {"VELTAR_EXTRACTA_DEBUG", std::nullopt},
                        {"EXTRACTA_SIM_DATE", "Sat Nov 21 10:02:11 2026"}};
    for (const auto& [name, value] : faults) variables[name] = value;
    std::vector<std::unique_ptr<ScopedEnv>> env;
    for (const auto& [name, value] : variables)
      env.push_back(std::make_unique<ScopedEnv>(name, value));
    views_.clear();
    if (!executor_.createWorkingDir(AString(dir_.path()))) return false;
    workDir_ = VEL_ANSI(executor_.getWorkingDir().FilePath());
    for (const std::string& name : dirsToPrepare)
      if (!name.empty()) MakeDirectory(workDir_ + name);
    return executor_.createExtractaControlFileAndViewsMP(AString(design_), kStandardViews, {},
                                                         views_);
  }

  std::string Message() const { return VEL_ANSI(executor_.getErrorMessage()); }

  // The records of every connectivity piece after the first, in merge order.
  std::string BodiesAfterFirstPiece() const {
    std::string bodies;
    for (const char* piece :
         {"conn0_A_PIN.txt", "conn0_A_VIA_CLASS.txt", "conn1_B_CONDUCTOR_ETCH.txt",
          "conn1_B_PIN.txt", "conn1_B_VIA_CLASS.txt", "connremainder.txt"})
      bodies += SplitHeader(ReadFile(workDir_ + piece)).body;
    return bodies;
  }

  TempDir dir_;
  std::string base_;
  std::string design_;
  ExtractaExecutor executor_;
  std::string workDir_;
  std::vector<ActiveView> views_;
};

// The merge's failures are stored with the operation's prefix and their own
// name after it; '@' stands for the working directory. A directory stands in
// the way of a piece or of the combined file where one is named.
TEST_F(DefaultRunExecutor, MergeFailuresNameTheirPiece) {
  const std::string merge =
      "createExtractaControlFileAndViewsMP: createExtractaControlFileAndViewsMP ";
  const struct {
    const char *piece, *inTheWay;
    std::string message;
  } cases[] = {
      {"conn0_A_PIN", "", "failed to open file @conn0_A_PIN.txt"},
      // POSIX opens a directory for reading, and the read fails; Windows does not.
      {"conn0_A_VIA_CLASS", "conn0_A_VIA_CLASS.txt",
       std::string(kOnWindows ? "failed to open" : "missing header in") +
           " file @conn0_A_VIA_CLASS.txt"},
      {"none", "conn.txt",
       "error adding @conn0_A_CONDUCTOR_ETCH.txt to combined connectivity file"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    ASSERT_FALSE(Run({{"EXTRACTA_SIM_MATCH", std::string("extracta_control_") + c.piece + ".txt"},
                      {"EXTRACTA_SIM_OUTPUT", "none"}},
                     {c.inTheWay}));
    std::string expected = merge + c.message;
    expected.replace(expected.find('@'), 1, workDir_);
    EXPECT_EQ(Message(), expected);
    EXPECT_TRUE(views_.empty());
    executor_.deleteWorkingDir();
  }
}

// A's first piece cut inside its first header line, after it, and inside the
// second line: the combined file's header lines end in CR LF all the same.
TEST_F(DefaultRunExecutor, ListsConnFirstResetsTheLimitAndEndsAShortFirstHeaderInCrLf) {
  const auto cut = [&](const std::string& command) {
    return EnvMap{
        {"VELTAR_EXTRACTA_PATHOVERRIDE",
         WrappedExtractor(dir_.path(), "cut", "",
                          "case \"$*\" in *0_A_CONDUCTOR*) f=conn0_A_CONDUCTOR_ETCH.txt; " +
                              command + " > cut && mv cut $f;; esac")}};
  };
  const std::vector<std::pair<EnvMap, std::string>> cases = {
      {{{"EXTRACTA_SIM_MATCH", "extracta_control_conn0_A_CONDUCTOR_ETCH.txt"},
        {"EXTRACTA_SIM_OUTPUT", "truncate"}},
       "\r\n\r\n"},
      {cut("head -n 1 $f"), "\r\n"},
      {cut("head -n 2 $f | head -c -2"), "\r\n"},
  };
  for (const auto& [faults, lineEnds] : cases) {
    if (kOnWindows && faults.count("VELTAR_EXTRACTA_PATHOVERRIDE")) continue;  // shell scripts
    SCOPED_TRACE(lineEnds.size());
    ExtractaViewGenerator::maxConcurrentExtractas = 7;
    ASSERT_TRUE(Run(faults)) << Message();
    EXPECT_EQ(ExtractaViewGenerator::maxConcurrentExtractas,
              ExtractaViewGenerator::DefaultConcurrencyLimit());

    // conn first, then the others in the set's order.
    std::vector<ActiveView> expected = {{kConn, AString(workDir_ + "conn.txt")}};
    int other = 0;
    for (const ViewType type : {kLayer, kPadDef, kFullGeo, kDieStack, kNet, kComponent, kOutline,
                                kCompositePad, kLogicalPin})
      expected.push_back({type, AString(workDir_ + kOtherStandardViews[other++] + ".txt")});
    EXPECT_EQ(views_, expected);

    const std::string piece = ReadFile(workDir_ + "conn0_A_CONDUCTOR_ETCH.txt");
    EXPECT_EQ(ReadFile(workDir_ + "conn.txt"), piece + lineEnds + BodiesAfterFirstPiece());
    executor_.deleteWorkingDir();
  }
}

// Where the kernel cannot copy between the two files (another file system),
// the merge copies through its own buffer, with the same result.
TEST_F(DefaultRunExecutor, MergesThroughUserSpaceWhereTheKernelCannotCopy) {
  VEL_SKIP_ON_WINDOWS("the kernel's copy between files is Linux's");
  // Pieces well beyond what the header read takes in.
  std::vector<NetClass> records;
  for (int i = 0; i < 3000; ++i)
    records.emplace_back(i % 3 ? "A" : "B", i % 2 ? "ETCH" : (i % 5 ? "PIN" : "VIA CLASS"));
  design_ = WithConnectivity(base_, dir_ / "large.mcm", records);
  gKernelCopyError = EXDEV;
  const bool ok = Run({});
  gKernelCopyError = 0;
  ASSERT_TRUE(ok) << Message();
  const std::string first = ReadFile(workDir_ + "conn0_A_CONDUCTOR_ETCH.txt");
  ASSERT_GT(first.size(), 32u << 10);
  EXPECT_EQ(ReadFile(workDir_ + "conn.txt"), first + BodiesAfterFirstPiece());
}

}  // namespace

#ifndef _WIN32
// Stands in for the C library's call, so that a test can make the kernel
// refuse to copy; otherwise it makes the system call itself.
extern "C" ssize_t copy_file_range(int in, off64_t* inOffset, int out, off64_t* outOffset,
                                   size_t length, unsigned int flags) noexcept {
  if (const int error = gKernelCopyError.load()) {
    errno = error;
    return -1;
  }
  return ::syscall(SYS_copy_file_range, in, inOffset, out, outOffset, length, flags);
}
#endif
