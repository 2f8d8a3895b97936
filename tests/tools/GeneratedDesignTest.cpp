// make-design's snapshots: the same bytes for the same seed and size, the
// content the program's views and its connectivity split need, and every view
// of both view sets extracted from one by extracta-sim and read back. That the
// split's pieces add up to the whole view is the default run tests' work.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>

#include "tests/tools/ToolsTestSupport.h"

namespace {

using veltest::DesignData;
using veltest::ReadFile;
using veltest::ViewDefinition;

// One sample design, made once for the tests that only read it.
class GeneratedDesign : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir = std::make_unique<veltest::TempDir>();
    path = *dir / "pkg.mcm";
    veltest::MakeDesign(path, 3, 6000);
    design = std::make_unique<DesignData>(veltest::ParseDesign(ReadFile(path)));
  }
  static void TearDownTestSuite() {
    design.reset();
    dir.reset();
  }

  static std::set<std::string> Values(const std::string& table, const std::string& field) {
    std::set<std::string> values;
    for (const auto& record : design->tables.at(table).records) values.insert(record.at(field));
    return values;
  }

  // Net names by record count: largest first; among equal counts the
  // byte-wise greater name first.
  static std::vector<std::pair<std::uint64_t, std::string>> RankNets() {
    std::map<std::string, std::uint64_t> counts;
    for (const auto& record : design->tables.at("CONNECTIVITY").records)
      ++counts[record.at("NET_NAME")];
    std::vector<std::pair<std::uint64_t, std::string>> ranked;
    for (const auto& [name, count] : counts) ranked.emplace_back(count, name);
    std::sort(ranked.rbegin(), ranked.rend());
    return ranked;
  }

  using List = std::vector<std::string>;
  static inline std::unique_ptr<veltest::TempDir> dir;
  static inline std::string path;
  static inline std::unique_ptr<DesignData> design;
};

TEST_F(GeneratedDesign, SameSeedAndSizeGiveTheSameBytes) {
  veltest::TempDir other;
  veltest::MakeDesign(other / "another name.mcm", 3, 6000);
  veltest::MakeDesign(other / "c.mcm", 4, 6000);
  const std::string bytes = ReadFile(path);
  EXPECT_EQ(bytes, ReadFile(other / "another name.mcm"));
  EXPECT_NE(bytes, ReadFile(other / "c.mcm"));
}

TEST_F(GeneratedDesign, HoldsWhatTheViewsAndTheConnectivitySplitNeed) {
  ASSERT_EQ(design->job.size(), 12u);
  EXPECT_EQ(design->tables.at("CONNECTIVITY").records.size(), 6000u);

  // A skewed distribution: the largest nets hold most records, the fourth
  // and fifth tie, the four largest have plain names; ties among the smaller
  // nets too.
  const auto ranked = RankNets();
  ASSERT_GE(ranked.size(), 6u);
  EXPECT_GT(ranked[0].first * 4, 6000u);
  EXPECT_EQ(ranked[3].first, ranked[4].first);
  EXPECT_GT(ranked[4].first, ranked[5].first);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(ranked[i].second.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_"),
              std::string::npos)
        << ranked[i].second;
  }
  std::set<std::uint64_t> distinctCounts;
  for (const auto& entry : ranked) distinctCounts.insert(entry.first);
  EXPECT_LT(distinctCounts.size(), ranked.size() / 2);

  // The program splits connectivity into three class groups for each of the
  // four largest nets and one remainder without them: every piece holds
  // records.
  const ViewDefinition conn = veltest::StandardViews()[3];
  ASSERT_EQ(conn.name, "conn");
  std::map<std::string, std::set<std::string>> groups;  // of conn's records, by net
  for (const auto& record : design->tables.at("CONNECTIVITY").records) {
    const std::string& cls = record.at("CLASS");
    if (veltest::Passes(conn, record))
      groups[record.at("NET_NAME")].insert(cls == "CONDUCTOR" ? "ETCH" : cls);
  }
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(groups[ranked[i].second], (std::set<std::string>{"ETCH", "PIN", "VIA CLASS"}))
        << ranked[i].second;
  }
  EXPECT_GT(groups.size(), 4u);

  // Every condition of every view keeps some records of its table and drops
  // others, so no filter part goes untried; of the classes full geometry
  // leaves out, the design holds only some.
  for (const auto& views : {veltest::StandardViews(), veltest::CellViews()}) {
    for (const ViewDefinition& view : views) {
      std::vector<veltest::Cond> conditions = view.conditions;
      conditions.insert(conditions.end(), view.alternatives.begin(), view.alternatives.end());
      for (const veltest::Cond& c : conditions) {
        if (view.keyword == "FULL_GEOMETRY" && c.field == "CLASS") continue;
        std::set<bool> outcomes;
        for (const auto& record : design->tables.at(view.keyword).records)
          outcomes.insert((record.at(c.field) == c.value) == c.equal);
        EXPECT_EQ(outcomes.size(), 2u) << view.name << ": " << c.text;
      }
    }
  }
  // Classes no view asks for, and net names with a blank and a bracket.
  const std::set<std::string> classes = Values("CONNECTIVITY", "CLASS");
  EXPECT_TRUE(classes.count("BONDING WIRE") && classes.count("ANTI ETCH"));
  const std::set<std::string> nets = Values("CONNECTIVITY", "NET_NAME");
  for (const char c : {' ', '['}) {
    EXPECT_TRUE(std::any_of(nets.begin(), nets.end(),
                            [c](const std::string& n) { return n.find(c) != std::string::npos; }))
        << "no net name holds '" << c << "'";
  }
  EXPECT_TRUE(Values("LAYER", "LAYER_TYPE").count("DIELECTRIC"));
}

// Every record of each view's table that passes its filter, with the view's
// columns, in table order, under the design's job record; and the filters
// keep some records and drop some.
TEST_F(GeneratedDesign, EveryViewOfBothSetsReadsBack) {
  List job = design->job;
  job[0] = "pkg.mcm";  // the design file's name, not the one the design holds
  job[1] = "Sat Nov 21 10:02:11 2026";
  for (const auto& [views, tag] :
       {std::pair{veltest::StandardViews(), "std"}, {veltest::CellViews(), "cell"}}) {
    std::string control;
    List outputs;
    for (const ViewDefinition& view : views) {
      control += veltest::ControlBlock(view);
      outputs.push_back(*dir / (view.name + tag + ".txt"));
    }
    veltest::WriteFile(*dir / ("control" + std::string(tag)), veltest::CrLf(control));
    const auto result = veltest::RunSim(path, *dir / ("control" + std::string(tag)), outputs);
    ASSERT_EQ(result.exitCode, 0) << result.out;
    for (std::size_t i = 0; i < views.size(); ++i) {
      const ViewDefinition& view = views[i];
      SCOPED_TRACE(view.name);
      const veltest::DesignTableData& table = design->tables.at(view.keyword);
      const List& columns = view.fields.empty() ? table.header : view.fields;
      std::vector<List> expected;
      for (const auto& record : table.records) {
        if (!veltest::Passes(view, record)) continue;
        List& row = expected.emplace_back();
        for (const std::string& column : columns) row.push_back(record.at(column));
      }
      const veltest::ViewFile file = veltest::ParseViewFile(ReadFile(outputs[i]));
      EXPECT_EQ(file.header, columns);
      EXPECT_EQ(file.job, job);
      EXPECT_TRUE(file.records == expected)
          << file.records.size() << " records, " << expected.size() << " expected";
      if (!view.conditions.empty() || !view.alternatives.empty()) {
        EXPECT_GT(expected.size(), 0u);
        EXPECT_LT(expected.size(), table.records.size());
      }
    }
  }
}

TEST(GeneratedDesignOptions, OptionsShapeTheDesign) {
  veltest::TempDir dir;
  veltest::MakeDesign(dir / "small.mcm", 4, 0,
                      {"--nets", "500", "--layers", "2", "--geo-records", "0", "--name", "top.mcm",
                       "--title", "TOP PKG"});
  const DesignData design = veltest::ParseDesign(ReadFile(dir / "small.mcm"));
  EXPECT_EQ(design.job[0], "top.mcm");
  EXPECT_EQ(design.job[8], "TOP PKG");
  EXPECT_EQ(design.job[10], "2");
  EXPECT_EQ(design.tables.at("NET").records.size(), 500u);
  EXPECT_TRUE(design.tables.at("CONNECTIVITY").records.empty());
  EXPECT_TRUE(design.tables.at("FULL_GEOMETRY").records.empty());
  std::size_t conductors = 0;
  for (const auto& layer : design.tables.at("LAYER").records) {
    conductors += layer.at("LAYER_CONDUCTOR") == "YES";
  }
  EXPECT_EQ(conductors, 2u);

  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--nets", "3"},
                                              {"--layers", "1"},
                                              {"--seed", "x"},
                                              {"--bogus", "1"},
                                              {"--name", "a!b"}}) {
    std::vector<std::string> argv = {veltest::BinPath("make-design"), "-o", dir / "bad.mcm"};
    argv.insert(argv.end(), bad.begin(), bad.end());
    const auto result = veltest::RunProgram(argv);
    EXPECT_EQ(result.exitCode, 2) << bad[0];
    EXPECT_NE(result.err.find("usage: make-design"), std::string::npos);
  }
  EXPECT_FALSE(veltest::PathExists(dir / "bad.mcm"));
}

}  // namespace
