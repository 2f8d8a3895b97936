// The default run: which processes start and in which order, how many at
// once, which nets are split and what the merged connectivity file holds, end
// to end through the built program and the stand-in extractor; the choice of
// split nets on survey records in memory; and the merge on pieces written by
// hand. (A child failing anywhere ends the whole run
// cleanly: the fault matrix, ExtractorFaults.ChildFailures, proves that end
// to end.)

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/AString.h"
#include "core/ExtractaParserException.h"
#include "executor/BackgroundMerge.h"
#include "executor/ConnectivitySplit.h"
#include "executor/SurveyCount.h"
#include "process/ExtractaViewGenerator.h"
#include "tests/support/PlatformHelpers.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace veltest;

// The control file names the default run must start, in start order, for the
// split nets' sanitised names: the remainder, usually the largest piece, ahead
// of the split runs.
std::vector<std::string> ExpectedControlFiles(const std::vector<std::string>& splitNets) {
  std::vector<std::string> names;
  for (const std::string& view : kOtherStandardViews)
    names.push_back("extracta_control_" + view + ".txt");
  names.push_back("extracta_control_connnets.txt");
  names.push_back("extracta_control_connremainder.txt");
  for (std::size_t i = 0; i < splitNets.size(); ++i) {
    for (const char* group : {"CONDUCTOR_ETCH", "PIN", "VIA_CLASS"})
      names.push_back("extracta_control_conn" + std::to_string(i) + "_" + splitNets[i] + "_" +
                      group + ".txt");
  }
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
// in generator order (the split runs in the order queued after the survey and
// the remainder, queued first, last), and the same records one plain
// connectivity run finds.
void ExpectMergedFromPieces(const KeptRun& run, const std::vector<std::string>& controls,
                            const std::string& design, const std::string& scratch) {
  const auto survey = std::find(controls.begin(), controls.end(), "extracta_control_connnets.txt");
  ASSERT_NE(survey, controls.end());
  std::vector<std::string> merged(survey + 1, controls.end());
  std::rotate(merged.begin(), merged.begin() + 1, merged.end());
  ASSERT_EQ(merged.back(), "extracta_control_connremainder.txt");
  std::string header, bodies;
  for (auto control = merged.begin(); control != merged.end(); ++control) {
    const std::string piece =
        ReadFile(run.workDir + control->substr(std::string("extracta_control_").size()));
    if (header.empty()) header = SplitHeader(piece).header;
    bodies += SplitHeader(piece).body;
  }
  const std::string combined = ReadFile(run.workDir + "conn.txt");
  EXPECT_EQ(SplitHeader(combined).header, header);
  EXPECT_EQ(SplitHeader(combined).body, bodies);
  const std::string plain = PlainConnectivity(design, scratch);
  EXPECT_EQ(SortedRecords(combined), SortedRecords(plain));
  EXPECT_EQ(Lines(combined).at(0), Lines(plain).at(0));
}

// Designs whose connectivity table is written by hand, so that which nets are
// split is known in advance. Each net's records are spread over the classes
// the view admits and one it does not (which the survey counts all the same).
TEST(DefaultRun, OnChosenNets) {
  struct Case {
    const char* name;
    std::vector<std::pair<std::string, int>> nets;  // records per net
    std::vector<std::string> options;
    std::vector<std::string> split;  // in index order, their names as files name them
  };
  const std::vector<Case> cases = {
      {"no connectivity records leave only the remainder", {}, {}, {}},
      {"names with blanks and punctuation give distinct sanitised files",
       {{"VDD CORE", 9}, {"VDD/CORE", 8}, {"a.b-c_d", 6}, {"(x)", 4}, {"VDD+CORE", 1}},
       {},
       {"VDD_CORE", "VDD_CORE", "a_b-c_d", "_x_"}},
      {"a net selection (fewer than four nets: all split) narrows survey and split, not the "
       "remainder",
       {{"A", 9}, {"B", 7}, {"C", 6}, {"D", 5}, {"E", 4}},
       {"-n", "D,B"},
       {"B", "D"}},
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

    const std::vector<std::string> controls = ExpectedControlFiles(c.split);
    ExpectStarted(run, controls);
    ExpectMergedFromPieces(run, controls, design, dir.path());
    // Moved into a directory, without a working directory kept, conn.txt
    // holds every record as well.
    const std::string views = dir / "views";
    ASSERT_TRUE(MakeDirectory(views));
    std::vector<std::string> moveArgs = c.options;
    moveArgs.insert(moveArgs.end(), {design, views});
    ASSERT_EQ(ProgramRun(moveArgs).Wait().exitCode, 0);
    EXPECT_EQ(SplitHeader(ReadFile(views + "/conn.txt")).body,
              SplitHeader(ReadFile(run.workDir + "conn.txt")).body);
    // The merge holds every net's records (above), so the remainder takes
    // every net not split whatever the selection; the other views carry it.
    if (!c.options.empty()) {
      EXPECT_NE(ReadFile(run.workDir + "extracta_control_fullgeo.txt").find("NET_NAME ='D'"),
                std::string::npos);
    }
  }
}

// Survey records' nets, counted, ranked by count then by the byte-wise greater
// name; the first four split in three class groups each, the rest remain.
TEST(ConnectivitySplitTest, SplitsTheFourLargestNets) {
  const struct {
    std::vector<std::string> records;
    std::vector<std::string> split;
  } cases[] = {
      {{}, {}},
      {{"B", "A", "B", "", "", " "}, {"B", "", "A", " "}},
      {{"N1", "Q", "ALPHA", "N2", "Q", "N1", "BETA", "N2", "Z", "ALPHA", "BETA", "Q", "N2", "N1"},
       {"Q", "N2", "N1", "BETA"}},
  };
  for (const auto& c : cases) {
    NetRecordCounts counts;
    for (const std::string& net : c.records) counts.add(net);
    const SplitPlan plan = PlanSplit(RankNets(counts));
    std::vector<std::string> split, runs, expected;
    for (const AString& net : plan.splitNets) split.push_back(VEL_ANSI(net));
    for (const SplitRun& run : plan.runs) {
      runs.push_back(VEL_ANSI(run.name) + "|" + VEL_ANSI(run.net));
      for (const AString& className : run.classes) runs.back() += "|" + VEL_ANSI(className);
    }
    for (std::size_t i = 0; i < c.split.size(); ++i) {
      for (const auto& [suffix, classes] : std::vector<std::pair<std::string, std::string>>{
               {"CONDUCTOR_ETCH", "CONDUCTOR|ETCH"}, {"PIN", "PIN"}, {"VIA CLASS", "VIA CLASS"}})
        expected.push_back(std::to_string(i) + "_" + c.split[i] + "_" + suffix + "|" + c.split[i] +
                           "|" + classes);
    }
    EXPECT_EQ(split, c.split);
    EXPECT_EQ(runs, expected);
  }
}

// The survey counted record by record: every net's records, or the first
// thing that breaks it (no name column, a record without the field, a record
// the reader refuses), with the record it happened at.
TEST(ConnectivitySplitTest, SurveyCountsEveryNetOrNamesWhatBreaksIt) {
  const TempDir dir;
  const std::string path = dir / "connnets.txt";
  const std::string head = "A!NET_NAME!\r\nJ!d.mcm!\r\n", broken = "connectivity survey " + path;
  const std::string refdes = "A!REFDES!NET_NAME!\r\nJ!d!\r\n";
  const struct {
    std::string survey, outcome;
  } cases[] = {
      {head, "0:"},
      {head + "S!GND!\r\nS!GND!\r\nS!!\r\nS!VDD!\r\nS!GND!\r\n", "5:=1;GND=3;VDD=1;"},
      // The name moves past the repeated one.
      {"A!X!NET_NAME!X!\r\nJ!d!\r\nS!a!b!\r\nS!c!d!\r\n", "2:b=1;d=1;"},
      {"A!NET!\r\nJ!d!\r\nS!GND!\r\n", broken + " has no NET_NAME column"},
      {refdes + "S!U1!GND!\r\nS!U2\r\nS!U3!VDD!\r\nS!U4\r\n",
       broken + " record 2 has no NET_NAME field"},
      {refdes + "S!U1\r\nS!U3!VDD!\r\n", broken + " record 1 has no NET_NAME field"},
      {refdes + "S!U1!GND!\r\nT!\r\n",
       path +
           " parsing failed to parse whole file after successfully parsing the first 1 S records"},
  };
  const auto outcomeOf = [](const std::function<uint64_t()>& count, NetRecordCounts& counts) {
    try {
      std::string outcome = std::to_string(count()) + ":";
      for (const auto& [net, n] : counts.perNet()) outcome += net + "=" + std::to_string(n) + ";";
      return outcome;
    } catch (const ExtractaParserException& e) {
      return std::string(e.what());
    }
  };
  for (const auto& c : cases) {
    WriteFile(path, c.survey);
    NetRecordCounts whole;
    EXPECT_EQ(outcomeOf([&] { return CountSurvey(path, whole); }, whole), c.outcome) << c.survey;

    // Counted while it is written, a few bytes at a look from before the file
    // exists: the same outcome, and a broken text fails only at the end.
    std::remove(path.c_str());
    NetRecordCounts followed;
    SurveyCounter counter(path, followed);
    counter.follow();
    {
      std::ofstream growing(path, std::ios::binary);
      for (std::size_t at = 0; at < c.survey.size(); at += 5) {
        growing << c.survey.substr(at, 5) << std::flush;
        EXPECT_NO_THROW(counter.follow());
      }
    }
    EXPECT_EQ(outcomeOf([&] { return counter.finish(); }, followed), c.outcome) << c.survey;
  }
}

// The merge on pieces written by hand: the first piece's two header lines,
// each ended in CR LF also where the piece cut it short or ended it in a bare
// LF, then every piece after its header byte for byte, through the kernel's
// copy or, where the kernel cannot copy between the files (another file
// system), through the merge's own buffer, on the merge's own thread. A
// failure names its piece, and nothing after it is merged; "@" stands for the
// directory, and a directory stands in the way of a piece or of the combined
// file where one is named. With the bodies placed, the combined file is as
// long, but only its header is written.
TEST(ConnectivityMergeTest, JoinsTheFirstHeaderAndEveryBody) {
  std::string large = "A!NET_NAME!\r\nJ!x!\r\n";
  while (large.size() < (64 << 10)) large += "S!GND!\r\n";
  const std::string next = "A!NET_NAME!\r\nJ!y!\r\nS!VDD!\r\n";
  const struct {
    std::vector<std::string> pieces;  // "": missing
    int kernelError;
    const char* inTheWay;
    std::string combined;  // or the failure
  } cases[] = {
      {{large, next, "A!NET_NAME!\r\nJ!z!\r\n"}, 0, "", large + "S!VDD!\r\n"},
      {{large, next}, EXDEV, "", large + "S!VDD!\r\n"},
      {{"A!NET", next}, 0, "", "A!NET\r\n\r\nS!VDD!\r\n"},
      {{"A!N!\r\n", next}, 0, "", "A!N!\r\n\r\nS!VDD!\r\n"},
      {{"A!N!\r\nJ!x", next}, 0, "", "A!N!\r\nJ!x\r\nS!VDD!\r\n"},
      {{"A!N!\nJ!x!\nS!1!\n", next}, 0, "", "A!N!\r\nJ!x!\r\nS!1!\nS!VDD!\r\n"},
      {{next, "", next}, 0, "", "MP failed to open file @p1.txt"},
      // POSIX opens a directory for reading, and the read fails; Windows does not.
      {{next, ""},
       0,
       "p1.txt",
       std::string(kOnWindows ? "MP failed to open" : "MP missing header in") + " file @p1.txt"},
      {{next}, 0, "conn.txt", "MP error adding @p0.txt to combined connectivity file"},
  };
  using Bodies = ConnectivityMerge::Bodies;
  for (const auto& c : cases)
    for (const Bodies bodies : {Bodies::kCopied, Bodies::kPlaced}) {
      SCOPED_TRACE(c.combined.substr(0, 40));
      SCOPED_TRACE(bodies == Bodies::kPlaced ? "placed" : "copied");
      TempDir dir;
      if (*c.inTheWay) MakeDirectory(dir / c.inTheWay);
      BackgroundMerge merge(AString(dir / "conn.txt"), "MP ", bodies);
      std::string failure;
      SetKernelCopyError(c.kernelError);
      try {
        for (std::size_t i = 0; i < c.pieces.size(); ++i) {
          const std::string piece = dir / ("p" + std::to_string(i) + ".txt");
          if (!c.pieces[i].empty()) WriteFile(piece, c.pieces[i]);
          merge.add(AString(piece));
        }
        merge.finish();
      } catch (const ExtractaParserException& error) {
        failure = error.what();
        failure.replace(failure.find(dir.path()), dir.path().size() + 1, "@");
      }
      SetKernelCopyError(0);
      if (c.combined.find("S!") == std::string::npos) {
        EXPECT_EQ(failure, c.combined);
        continue;
      }
      EXPECT_EQ(failure, "");
      std::string expected = c.combined;
      const std::size_t header = expected.find('\n', expected.find('\n') + 1) + 1;
      if (bodies == Bodies::kPlaced)
        expected.replace(header, std::string::npos, expected.size() - header, '\0');
      EXPECT_EQ(ReadFile(dir / "conn.txt"), expected);
      EXPECT_EQ(merge.merge().filesAdded(), static_cast<int>(c.pieces.size()));
      EXPECT_EQ(merge.merge().bytesWritten(), c.combined.size());
    }
}

}  // namespace
