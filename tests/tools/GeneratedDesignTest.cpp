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
  static void TearDownTestSuite() { dir.reset(); }

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
  const auto& connRecords = design->tables.at("CONNECTIVITY").records;
  EXPECT_EQ(connRecords.size(), 6000u);

  // A skewed distribution: the largest nets hold most records, the fourth
  // and fifth tie, the four largest have plain names; ties among the smaller
  // nets too. Ranked largest first, among equal counts the greater name first.
  std::map<std::string, std::uint64_t> counts;
  std::set<std::string> classes;
  for (const auto& record : connRecords) {
    ++counts[record.at("NET_NAME")];
    classes.insert(record.at("CLASS"));
  }
  std::vector<std::pair<std::uint64_t, std::string>> ranked;
  std::set<std::uint64_t> distinctCounts;
  for (const auto& [name, count] : counts) {
    ranked.emplace_back(count, name);
    distinctCounts.insert(count);
  }
  std::sort(ranked.rbegin(), ranked.rend());
  ASSERT_GE(ranked.size(), 6u);
  EXPECT_GT(ranked[0].first * 4, 6000u);
  EXPECT_EQ(ranked[3].first, ranked[4].first);
  EXPECT_GT(ranked[4].first, ranked[5].first);
  EXPECT_LT(distinctCounts.size(), ranked.size() / 2);

  // The program splits connectivity into three class groups for each of the
  // four largest nets and one remainder without them: every piece holds
  // records.
  const ViewDefinition conn = veltest::StandardViews()[3];
  ASSERT_EQ(conn.name, "conn");
  std::map<std::string, std::set<std::string>> groups;  // of conn's records, by net
  for (const auto& record : connRecords) {
    const std::string& cls = record.at("CLASS");
    if (veltest::Passes(conn, record))
      groups[record.at("NET_NAME")].insert(cls == "CONDUCTOR" ? "ETCH" : cls);
  }
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(ranked[i].second.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_"),
              std::string::npos);
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
  EXPECT_TRUE(classes.count("BONDING WIRE") && classes.count("ANTI ETCH"));
  for (const char c : {' ', '['}) {
    EXPECT_TRUE(std::any_of(counts.begin(), counts.end(),
                            [c](const auto& n) { return n.first.find(c) != std::string::npos; }))
        << "no net name holds '" << c << "'";
  }
  EXPECT_TRUE(std::any_of(
      design->tables.at("LAYER").records.begin(), design->tables.at("LAYER").records.end(),
      [](const auto& layer) { return layer.at("LAYER_TYPE") == "DIELECTRIC"; }));
}

// Each view file byte for byte: the view's columns of every record of its
// table that passes its filter, in table order, under the design's job
// record; the filters keep some records and drop some.
TEST_F(GeneratedDesign, EveryViewOfBothSetsReadsBack) {
  List job = design->job;
  job[0] = "pkg.mcm";  // the design file's name, not the one the design holds
  job[1] = "Sat Nov 21 10:02:11 2026";
  const auto line = [](const char* tag, const List& fields) {
    std::string text = tag;
    for (const std::string& field : fields) text += field + "!";
    return text + "\r\n";
  };
  for (const auto& [views, tag] :
       {std::pair{veltest::StandardViews(), "std"}, {veltest::CellViews(), "cell"}}) {
    std::string control;
    List outputs;
    for (const ViewDefinition& view : views) {
      control += veltest::ControlBlock(view);
      outputs.push_back(*dir / (view.name + tag + ".txt"));
    }
    const std::string controlPath = *dir / ("control" + std::string(tag));
    veltest::WriteFile(controlPath, veltest::CrLf(control));
    const auto result = veltest::RunSim(path, controlPath, outputs);
    ASSERT_EQ(result.exitCode, 0) << result.out;
    for (std::size_t i = 0; i < views.size(); ++i) {
      const ViewDefinition& view = views[i];
      const veltest::DesignTableData& table = design->tables.at(view.keyword);
      const List& columns = view.fields.empty() ? table.header : view.fields;
      std::string expected = line("A!", columns) + line("J!", job);
      std::size_t kept = 0;
      for (const auto& record : table.records) {
        if (!veltest::Passes(view, record)) continue;
        List row;
        for (const std::string& column : columns) row.push_back(record.at(column));
        expected += line("S!", row);
        ++kept;
      }
      const std::string bytes = ReadFile(outputs[i]);
      EXPECT_TRUE(bytes == expected)
          << view.name << " differs from byte "
          << std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end()).first -
                 bytes.begin();
      if (!view.conditions.empty() || !view.alternatives.empty()) {
        EXPECT_GT(kept, 0u) << view.name;
        EXPECT_LT(kept, table.records.size()) << view.name;
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
  EXPECT_EQ(design.job[0] + design.job[8] + design.job[10], "top.mcmTOP PKG2");
  EXPECT_EQ(design.tables.at("NET").records.size(), 500u);
  EXPECT_TRUE(design.tables.at("CONNECTIVITY").records.empty());
  EXPECT_TRUE(design.tables.at("FULL_GEOMETRY").records.empty());
  const auto& layers = design.tables.at("LAYER").records;
  EXPECT_EQ(std::count_if(layers.begin(), layers.end(),
                          [](const auto& layer) { return layer.at("LAYER_CONDUCTOR") == "YES"; }),
            2);

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
