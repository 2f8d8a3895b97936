// Failures of the default run: a child failing anywhere ends the whole run
// (seen through the program), and the texts the executor keeps for each kind
// of failure, which only the executor shows.

#include <fnmatch.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/AString.h"
#include "executor/ExtractaExecutor.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/parallel/DefaultRunSupport.h"
#include "tests/support/TestSupport.h"
#include "views/ViewTypes.h"

namespace {

// The error the stand-in for copy_file_range below fails with; 0: none.
std::atomic<int> gKernelCopyError{0};

using defaultrun::NetClass;

const std::string kPrefix = "createExtractaControlFileAndViewsMP: ";

std::vector<NetClass> TwoNets() {
  return {{"A", "ETCH"}, {"A", "PIN"}, {"A", "VIA CLASS"}, {"B", "PIN"}, {"B", "ETCH"}};
}

TEST(DefaultRunFailure, ChildFailingAnywhereEndsTheRunAndLeavesNothingBehind) {
  veltest::TempDir dir;
  const std::string design = defaultrun::WithConnectivity(
      defaultrun::MakeDesign(dir.path(), 5, 100), dir / "two.mcm", TwoNets());
  struct Fault {
    const char* match;
    const char* variable;
    const char* value;
  };
  for (const Fault& fault :
       {Fault{"extracta_control_conn1_*_PIN.txt", "EXTRACTA_SIM_FAIL", "3:injected failure"},
        Fault{"extracta_control_connremainder.txt", "EXTRACTA_SIM_FAIL", "1:injected failure"},
        Fault{"extracta_control_outline.txt", "EXTRACTA_SIM_FAIL", "2:injected failure"},
        Fault{"extracta_control_connnets.txt", "EXTRACTA_SIM_FAIL", "1:injected failure"},
        Fault{"extracta_control_conn0_*_ETCH.txt", "EXTRACTA_SIM_SIGNAL", "9"}}) {
    SCOPED_TRACE(fault.match);
    const defaultrun::ProgramRun run =
        defaultrun::RunProgram(dir.path(), {"-z", design, dir / "out.vlx"},
                               {{"EXTRACTA_SIM_MATCH", fault.match}, {fault.variable, fault.value}},
                               /*keepWorkDir=*/false);

    EXPECT_EQ(run.result.exitCode, 1);
    EXPECT_EQ(run.result.err, "view creation failed (1).\n");
    EXPECT_EQ(run.result.out, "");
    EXPECT_TRUE(defaultrun::WorkingDirsIn(dir.path()).empty());
    EXPECT_FALSE(veltest::PathExists(dir / "out.vlx"));
    // The fault struck where it was meant to. With one child at a time it was
    // the last child started: nothing starts once a failure is seen. No
    // child outlived the program.
    ASSERT_FALSE(run.runs.empty());
    const auto struck = std::find_if(run.runs.begin(), run.runs.end(), [&](const auto& sim) {
      return fnmatch(fault.match, sim.control.c_str(), 0) == 0;
    });
    ASSERT_NE(struck, run.runs.end());
    if (ExtractaViewGenerator::DefaultConcurrencyLimit() == 1) {
      EXPECT_EQ(struck, run.runs.end() - 1) << run.runs.back().control;
    }
    for (const defaultrun::SimRun& sim : run.runs)
      EXPECT_FALSE(defaultrun::ProcessExists(sim.pid)) << sim.control;
  }
}

// Runs the default view creation on an executor directly, so that its error
// message and active view list can be looked at; `dirsToPrepare` are made in
// the working directory before the run, to stand in the way of files.
class DefaultRunExecutor : public ::testing::Test {
 protected:
  void SetUp() override {
    base_ = defaultrun::MakeDesign(dir_.path(), 5, 100);
    design_ = defaultrun::WithConnectivity(base_, dir_ / "two.mcm", TwoNets());
  }

  bool Run(const defaultrun::EnvMap& faults, const std::vector<std::string>& dirsToPrepare = {}) {
    std::vector<std::unique_ptr<veltest::ScopedEnv>> env;
    for (const auto& [name, value] : defaultrun::ExtractorEnv(dir_ / "sim.log")) {
      env.push_back(std::make_unique<veltest::ScopedEnv>(name, value));
    }
    for (const auto& [name, value] : faults)
      env.push_back(std::make_unique<veltest::ScopedEnv>(name, value));
    env.push_back(std::make_unique<veltest::ScopedEnv>("VELTAR_EXTRACTA_DEBUG", std::nullopt));

    if (!executor_.createWorkingDir(AString(dir_.path()))) return false;
    workDir_ = VEL_ANSI(executor_.getWorkingDir().FilePath());
    for (const std::string& name : dirsToPrepare) ::mkdir((workDir_ + name).c_str(), 0700);
    return executor_.createExtractaControlFileAndViewsMP(AString(design_), kStandardViews, {},
                                                         views_);
  }

  std::string Message() const { return VEL_ANSI(executor_.getErrorMessage()); }

  bool HasConn() const {
    for (const ActiveView& view : views_) {
      if (view.viewType == kConn) return true;
    }
    return false;
  }

  // The records of every connectivity piece after the first, in merge order.
  std::string BodiesAfterFirstPiece() const {
    std::string bodies;
    for (const char* piece :
         {"conn0_A_PIN.txt", "conn0_A_VIA_CLASS.txt", "conn1_B_CONDUCTOR_ETCH.txt",
          "conn1_B_PIN.txt", "conn1_B_VIA_CLASS.txt", "connremainder.txt"}) {
      bodies += defaultrun::SplitHeader(veltest::ReadFile(workDir_ + piece)).body;
    }
    return bodies;
  }

  veltest::TempDir dir_;
  std::string base_;
  std::string design_;
  ExtractaExecutor executor_;
  std::string workDir_;
  std::vector<ActiveView> views_;
};

TEST_F(DefaultRunExecutor, ChildFailureIsStoredWithThePrefixOnce) {
  ASSERT_FALSE(Run({{"EXTRACTA_SIM_MATCH", "extracta_control_connremainder.txt"},
                    {"EXTRACTA_SIM_FAIL", "4:injected failure"}}));
  EXPECT_EQ(Message().rfind(kPrefix, 0), 0u) << Message();
  EXPECT_EQ(Message().find(kPrefix, 1), std::string::npos) << Message();
  EXPECT_NE(Message().find("injected failure"), std::string::npos) << Message();
  EXPECT_TRUE(views_.empty());
}

TEST_F(DefaultRunExecutor, MergeFailuresAreStoredWithThePrefixTwice) {
  struct Case {
    const char* noOutputFor;  // a split run that writes no view file
    std::vector<std::string> dirs;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"extracta_control_conn0_A_PIN.txt", {}, "failed to open file @conn0_A_PIN.txt"},
      // A piece that opens but cannot be read.
      {"extracta_control_conn0_A_VIA_CLASS.txt",
       {"conn0_A_VIA_CLASS.txt"},
       "missing header in file @conn0_A_VIA_CLASS.txt"},
      // A combined file that cannot be written.
      {"none",
       {"conn.txt"},
       "error adding @conn0_A_CONDUCTOR_ETCH.txt to combined connectivity file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    views_.clear();
    ASSERT_FALSE(
        Run({{"EXTRACTA_SIM_MATCH", c.noOutputFor}, {"EXTRACTA_SIM_OUTPUT", "none"}}, c.dirs));
    std::string expected = c.message;
    expected.replace(expected.find('@'), 1, workDir_);
    EXPECT_EQ(Message(), kPrefix + "createExtractaControlFileAndViewsMP " + expected);
    EXPECT_FALSE(HasConn());
    executor_.deleteWorkingDir();
  }
}

TEST_F(DefaultRunExecutor, SurveyWithoutNetNameColumnFails) {
  ASSERT_FALSE(Run({{"EXTRACTA_SIM_MATCH", "extracta_control_connnets.txt"},
                    {"EXTRACTA_SIM_OUTPUT", "drop-field:NET_NAME"}}));
  EXPECT_NE(Message().find("has no NET_NAME column"), std::string::npos) << Message();
}

TEST_F(DefaultRunExecutor, ListsConnFirstResetsTheLimitAndToleratesAShortFirstPiece) {
  // A's first piece is cut inside its first header line, so it holds less
  // than the two lines of a header.
  ExtractaViewGenerator::maxConcurrentExtractas = 7;
  ASSERT_TRUE(Run({{"EXTRACTA_SIM_MATCH", "extracta_control_conn0_A_CONDUCTOR_ETCH.txt"},
                   {"EXTRACTA_SIM_OUTPUT", "truncate"}}))
      << Message();
  EXPECT_EQ(ExtractaViewGenerator::maxConcurrentExtractas,
            ExtractaViewGenerator::DefaultConcurrencyLimit());

  std::vector<std::string> paths;
  std::vector<ViewType> types;
  for (const ActiveView& view : views_) {
    paths.push_back(VEL_ANSI(view.path));
    types.push_back(view.viewType);
  }
  std::vector<std::string> expectedPaths = {workDir_ + "conn.txt"};
  for (const char* view : {"layer", "paddef", "fullgeo", "diestack", "net", "component", "outline",
                           "compositepad", "logicalpin"}) {
    expectedPaths.push_back(workDir_ + view + ".txt");
  }
  EXPECT_EQ(paths, expectedPaths);
  EXPECT_EQ(types, (std::vector<ViewType>{kConn, kLayer, kPadDef, kFullGeo, kDieStack, kNet,
                                          kComponent, kOutline, kCompositePad, kLogicalPin}));

  const std::string cut = veltest::ReadFile(workDir_ + "conn0_A_CONDUCTOR_ETCH.txt");
  ASSERT_EQ(cut.find('\n'), std::string::npos);
  EXPECT_EQ(veltest::ReadFile(workDir_ + "conn.txt"), cut + "\n\n" + BodiesAfterFirstPiece());
}

// Where the kernel cannot copy between the two files (another file system),
// the merge copies through its own buffer, with the same result.
TEST_F(DefaultRunExecutor, MergesThroughUserSpaceWhereTheKernelCannotCopy) {
  // Pieces well beyond what the header read takes in.
  std::vector<NetClass> records;
  for (int i = 0; i < 3000; ++i) {
    records.emplace_back(i % 3 ? "A" : "B", i % 2 ? "ETCH" : (i % 5 ? "PIN" : "VIA CLASS"));
  }
  design_ = defaultrun::WithConnectivity(base_, dir_ / "large.mcm", records);
  gKernelCopyError = EXDEV;
  const bool ok = Run({});
  gKernelCopyError = 0;
  ASSERT_TRUE(ok) << Message();
  const std::string first = veltest::ReadFile(workDir_ + "conn0_A_CONDUCTOR_ETCH.txt");
  ASSERT_GT(first.size(), 32u << 10);
  EXPECT_EQ(veltest::ReadFile(workDir_ + "conn.txt"), first + BodiesAfterFirstPiece());
}

}  // namespace

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
