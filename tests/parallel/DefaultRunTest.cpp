// The default run end to end, through the built program and the stand-in
// extractor: which processes start and in which order, how many at once, what
// the merged connectivity file holds, and what the archive holds.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "process/ExtractaViewGenerator.h"
#include "tests/parallel/DefaultRunSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using defaultrun::ExpectedControlFiles;
using defaultrun::FieldValues;
using defaultrun::NetClass;
using defaultrun::ProgramRun;
using defaultrun::SortedRecords;
using defaultrun::SplitHeader;

// The runs' control file names in start order. With one child at a time that
// is the order the generators were queued in; with more, children started
// together may log their starts in either order, so only the names compare.
void ExpectStarted(const ProgramRun& run, std::vector<std::string> expected) {
  std::vector<std::string> started;
  for (const defaultrun::SimRun& sim : run.runs) started.push_back(sim.control);
  if (ExtractaViewGenerator::DefaultConcurrencyLimit() > 1) {
    std::sort(started.begin(), started.end());
    std::sort(expected.begin(), expected.end());
  }
  EXPECT_EQ(started, expected);
}

// The merge's contract: the first piece's header, then every piece's records
// in generator order (the runs queued after the survey), and the same records
// one plain connectivity run finds.
void ExpectMergedFromPieces(const ProgramRun& run, const std::vector<std::string>& controls,
                            const std::string& design, const std::string& scratch) {
  const auto survey = std::find(controls.begin(), controls.end(), "extracta_control_connnets.txt");
  ASSERT_NE(survey, controls.end());
  std::string header;
  std::string bodies;
  for (auto control = survey + 1; control != controls.end(); ++control) {
    const std::string piece =
        veltest::ReadFile(run.workDir + control->substr(std::string("extracta_control_").size()));
    if (header.empty()) header = SplitHeader(piece).header;
    bodies += SplitHeader(piece).body;
  }
  const std::string merged = veltest::ReadFile(run.workDir + "conn.txt");
  EXPECT_EQ(SplitHeader(merged).header, header);
  EXPECT_EQ(SplitHeader(merged).body, bodies);

  const std::string plain = defaultrun::PlainConnectivity(design, scratch);
  EXPECT_EQ(SortedRecords(merged), SortedRecords(plain));
  EXPECT_EQ(defaultrun::Lines(merged).at(0), defaultrun::Lines(plain).at(0));
}

// One default run on a generated design, shared by the tests below.
class DefaultRunOnSampleDesign : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<veltest::TempDir>();
    design_ = defaultrun::MakeDesign(dir_->path(), 7, 3000);
    run_ = std::make_unique<ProgramRun>(
        defaultrun::RunProgram(dir_->path(), {"-z", design_, *dir_ / "out.vlx"}));
  }
  static void TearDownTestSuite() {
    run_.reset();
    dir_.reset();
  }
  void SetUp() override {
    ASSERT_EQ(run_->result.exitCode, 0) << run_->result.out << run_->result.err;
    ASSERT_FALSE(run_->workDir.empty());
  }

  static std::unique_ptr<veltest::TempDir> dir_;
  static std::string design_;
  static std::unique_ptr<ProgramRun> run_;
};

std::unique_ptr<veltest::TempDir> DefaultRunOnSampleDesign::dir_;
std::string DefaultRunOnSampleDesign::design_;
std::unique_ptr<ProgramRun> DefaultRunOnSampleDesign::run_;

// The nets the run split, in index order, from the split runs' own control
// files.
std::vector<std::string> SplitNetsOf(const ProgramRun& run) {
  std::vector<std::string> split;
  for (int i = 0; i < 4; ++i) {
    const std::string prefix = "extracta_control_conn" + std::to_string(i) + "_";
    for (const std::string& name : veltest::ListDir(run.workDir)) {
      if (name.compare(0, prefix.size(), prefix) != 0 || name.find("_PIN.txt") == std::string::npos)
        continue;
      const std::string control = veltest::ReadFile(run.workDir + name);
      const std::size_t quote = control.find("NET_NAME ='") + 11;
      split.push_back(control.substr(quote, control.find('\'', quote) - quote));
    }
  }
  return split;
}

TEST_F(DefaultRunOnSampleDesign, StartsOneProcessPerViewSurveySplitAndRemainderInQueueOrder) {
  std::map<std::string, uint64_t> surveyed;
  for (const std::string& net :
       FieldValues(veltest::ReadFile(run_->workDir + "connnets.txt"), "NET_NAME")) {
    ++surveyed[net];
  }
  const std::vector<std::string> split = SplitNetsOf(*run_);
  ASSERT_EQ(split.size(), std::min<std::size_t>(4, surveyed.size()));

  // The split nets are the largest, largest first.
  for (std::size_t i = 1; i < split.size(); ++i)
    EXPECT_GE(surveyed[split[i - 1]], surveyed[split[i]]);
  for (const auto& [net, count] : surveyed) {
    if (std::find(split.begin(), split.end(), net) == split.end()) {
      EXPECT_LE(count, surveyed[split.back()]) << net;
    }
  }

  // The design's net names need no sanitising, so the expected file names
  // follow directly.
  ExpectStarted(*run_, ExpectedControlFiles(split));
  EXPECT_EQ(run_->runs.size(), 9 + 1 + 3 * split.size() + 1);
  EXPECT_LE(defaultrun::MostAtOnce(run_->runs),
            static_cast<int>(ExtractaViewGenerator::DefaultConcurrencyLimit()));
}

TEST_F(DefaultRunOnSampleDesign, MergedConnectivityHoldsWhatOnePlainRunExtracts) {
  ExpectMergedFromPieces(*run_, ExpectedControlFiles(SplitNetsOf(*run_)), design_, dir_->path());
}

TEST_F(DefaultRunOnSampleDesign, ArchiveHoldsEveryTextFileOfTheWorkingDirectory) {
  const veltest::RunResult listing =
      veltest::RunProgram({"/usr/bin/unzip", "-Z1", *dir_ / "out.vlx"});
  ASSERT_EQ(listing.exitCode, 0) << listing.err;
  const std::string dirName =
      run_->workDir.substr(run_->workDir.rfind('/', run_->workDir.size() - 2) + 1);
  std::vector<std::string> packed;
  for (std::string entry : defaultrun::Lines(listing.out)) {
    entry.pop_back();
    const std::size_t cut = entry.rfind('/');
    ASSERT_NE(cut, std::string::npos) << entry;
    EXPECT_EQ(entry.substr(0, cut + 1).rfind(dirName), cut + 1 - dirName.size()) << entry;
    packed.push_back(entry.substr(cut + 1));
  }
  std::sort(packed.begin(), packed.end());
  EXPECT_EQ(packed, veltest::ListDir(run_->workDir));
  for (const char* view :
       {"conn.txt", "layer.txt", "paddef.txt", "fullgeo.txt", "diestack.txt", "net.txt",
        "component.txt", "outline.txt", "compositepad.txt", "logicalpin.txt"}) {
    EXPECT_TRUE(std::binary_search(packed.begin(), packed.end(), view)) << view;
  }
}

// Designs whose connectivity table is written by hand, so that which nets
// are split is known in advance.
class DefaultRunOnChosenNets : public ::testing::Test {
 protected:
  void SetUp() override { base_ = defaultrun::MakeDesign(dir_.path(), 3, 200); }

  ProgramRun Run(const std::vector<NetClass>& records, std::vector<std::string> options = {}) {
    design_ = defaultrun::WithConnectivity(base_, dir_ / "chosen.mcm", records);
    options.insert(options.end(), {"-z", design_, dir_ / "out.vlx"});
    return defaultrun::RunProgram(dir_.path(), options);
  }

  // `count` records of the net, spread over the classes the view admits and
  // one it does not (which the survey counts all the same).
  static void Add(std::vector<NetClass>& records, const std::string& net, int count) {
    static const char* const kClasses[] = {"ETCH", "PIN", "VIA CLASS", "CONDUCTOR", "ANTI ETCH"};
    for (int i = 0; i < count; ++i) records.emplace_back(net, kClasses[i % 5]);
  }

  veltest::TempDir dir_;
  std::string base_;
  std::string design_;
};

TEST_F(DefaultRunOnChosenNets, TiesRankTheByteWiseGreaterNameFirst) {
  std::vector<NetClass> records;
  for (const auto& [net, count] : std::vector<std::pair<std::string, int>>{
           {"ALPHA", 3}, {"N1", 5}, {"Z", 1}, {"Q", 4}, {"BETA", 3}, {"N2", 5}}) {
    Add(records, net, count);
  }
  const ProgramRun run = Run(records);
  ASSERT_EQ(run.result.exitCode, 0) << run.result.out;
  const std::vector<std::string> controls = ExpectedControlFiles({"N2", "N1", "Q", "BETA"});
  ExpectStarted(run, controls);

  const std::string remainder =
      veltest::ReadFile(run.workDir + "extracta_control_connremainder.txt");
  for (const char* net : {"N2", "N1", "Q", "BETA"}) {
    EXPECT_NE(remainder.find(std::string("NET_NAME !='") + net + "'"), std::string::npos) << net;
  }
  EXPECT_EQ(remainder.find("ALPHA"), std::string::npos);
  ExpectMergedFromPieces(run, controls, design_, dir_.path());
}

TEST_F(DefaultRunOnChosenNets, FewerThanFourNetsAreAllSplit) {
  std::vector<NetClass> records;
  Add(records, "A", 7);
  Add(records, "B", 2);
  const ProgramRun run = Run(records);
  ASSERT_EQ(run.result.exitCode, 0) << run.result.out;
  const std::vector<std::string> controls = ExpectedControlFiles({"A", "B"});
  ExpectStarted(run, controls);
  ExpectMergedFromPieces(run, controls, design_, dir_.path());
  EXPECT_EQ(SortedRecords(veltest::ReadFile(run.workDir + "connremainder.txt")).size(), 0u);
}

TEST_F(DefaultRunOnChosenNets, NoConnectivityRecordsLeaveOnlyTheRemainder) {
  const ProgramRun run = Run({});
  ASSERT_EQ(run.result.exitCode, 0) << run.result.out;
  ExpectStarted(run, ExpectedControlFiles({}));
  EXPECT_EQ(veltest::ReadFile(run.workDir + "conn.txt"),
            veltest::ReadFile(run.workDir + "connremainder.txt"));
}

TEST_F(DefaultRunOnChosenNets, NetNamesWithBlanksAndPunctuationGiveDistinctSanitisedFiles) {
  std::vector<NetClass> records;
  Add(records, "VDD CORE", 9);
  Add(records, "VDD/CORE", 8);
  Add(records, "a.b-c_d", 6);
  Add(records, "(x)", 4);
  Add(records, "VDD+CORE", 1);
  const ProgramRun run = Run(records);
  ASSERT_EQ(run.result.exitCode, 0) << run.result.out;
  const std::vector<std::string> controls =
      ExpectedControlFiles({"VDD_CORE", "VDD_CORE", "a_b-c_d", "_x_"});
  ExpectStarted(run, controls);
  ExpectMergedFromPieces(run, controls, design_, dir_.path());
}

TEST_F(DefaultRunOnChosenNets, NetSelectionNarrowsSurveyAndSplitButNotTheRemainder) {
  std::vector<NetClass> records;
  Add(records, "A", 9);
  Add(records, "B", 7);
  Add(records, "C", 6);
  Add(records, "D", 5);
  Add(records, "E", 4);
  const ProgramRun run = Run(records, {"-n", "D,B"});
  ASSERT_EQ(run.result.exitCode, 0) << run.result.out;

  std::vector<std::string> surveyed =
      FieldValues(veltest::ReadFile(run.workDir + "connnets.txt"), "NET_NAME");
  std::sort(surveyed.begin(), surveyed.end());
  surveyed.erase(std::unique(surveyed.begin(), surveyed.end()), surveyed.end());
  EXPECT_EQ(surveyed, (std::vector<std::string>{"B", "D"}));
  const std::vector<std::string> controls = ExpectedControlFiles({"B", "D"});
  ExpectStarted(run, controls);

  const std::string remainder =
      veltest::ReadFile(run.workDir + "extracta_control_connremainder.txt");
  EXPECT_EQ(remainder.find("NET_NAME ='"), std::string::npos) << remainder;
  EXPECT_NE(remainder.find("NET_NAME !='B'"), std::string::npos) << remainder;
  // Every net of the design is in the merge: the remainder covers A, C and E.
  ExpectMergedFromPieces(run, controls, design_, dir_.path());
  // The other views carry the selection.
  EXPECT_NE(veltest::ReadFile(run.workDir + "extracta_control_fullgeo.txt").find("NET_NAME ='D'"),
            std::string::npos);
}

}  // namespace
