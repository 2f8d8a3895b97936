// make-design's snapshots: the same bytes for the same seed and size, the
// content the program's views and its connectivity split need, and every view
// of both view sets extracted from one by extracta-sim and read back.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "tests/tools/ToolsTestSupport.h"

namespace {

using veltest::DesignData;
using veltest::ReadFile;
using veltest::ViewDefinition;

std::vector<std::pair<std::uint64_t, std::string>> RankNets(const DesignData& design) {
  std::map<std::string, std::uint64_t> counts;
  for (const auto& record : design.tables.at("CONNECTIVITY").records)
    ++counts[record.at("NET_NAME")];
  std::vector<std::pair<std::uint64_t, std::string>> ranked;
  for (const auto& [name, count] : counts) ranked.emplace_back(count, name);
  // Largest first; among equal counts the byte-wise greater name first.
  std::sort(ranked.rbegin(), ranked.rend());
  return ranked;
}

std::set<std::string> Values(const DesignData& design, const std::string& table,
                             const std::string& field) {
  std::set<std::string> values;
  for (const auto& record : design.tables.at(table).records) values.insert(record.at(field));
  return values;
}

// Extracts the views in one run and checks each output against the records
// the design holds: header, job record, and every record, in order.
void CheckViews(const std::vector<ViewDefinition>& views, const std::string& designPath,
                const DesignData& design, const veltest::TempDir& dir, const std::string& tag) {
  std::string control;
  std::vector<std::string> outputs;
  for (const ViewDefinition& view : views) {
    control += veltest::ControlBlock(view);
    outputs.push_back(dir / (view.name + tag + ".txt"));
  }
  veltest::WriteFile(dir / ("control" + tag + ".txt"), veltest::CrLf(control));
  const auto result = veltest::RunSim(designPath, dir / ("control" + tag + ".txt"), outputs);
  ASSERT_EQ(result.exitCode, 0) << result.out;
  for (std::size_t i = 0; i < views.size(); ++i) {
    const ViewDefinition& view = views[i];
    SCOPED_TRACE(view.name);
    const veltest::DesignTableData& table = design.tables.at(view.keyword);
    const veltest::ViewFile file = veltest::ParseViewFile(ReadFile(outputs[i]));
    const std::vector<std::string>& columns = view.fields.empty() ? table.header : view.fields;
    EXPECT_EQ(file.header, columns);
    ASSERT_EQ(file.job.size(), 12u);
    EXPECT_EQ(file.job[0], "pkg.mcm");
    EXPECT_EQ(file.job[1], "Sat Nov 21 10:02:11 2026");
    EXPECT_EQ(std::vector<std::string>(file.job.begin() + 2, file.job.end()),
              std::vector<std::string>(design.job.begin() + 2, design.job.end()));
    std::size_t next = 0;
    for (const auto& record : table.records) {
      if (!veltest::Passes(view, record)) continue;
      ASSERT_LT(next, file.records.size());
      std::vector<std::string> expected;
      for (const std::string& column : columns) expected.push_back(record.at(column));
      ASSERT_EQ(file.records[next], expected) << "record " << next;
      ++next;
    }
    EXPECT_EQ(next, file.records.size());
    // The filtered views keep some records and leave some out.
    if (!view.conditions.empty() || !view.alternatives.empty()) {
      EXPECT_GT(file.records.size(), 0u);
      EXPECT_LT(file.records.size(), table.records.size());
    }
  }
}

TEST(GeneratedDesign, SameSeedAndSizeGiveTheSameBytes) {
  veltest::TempDir dir;
  veltest::MakeDesign(dir / "a.mcm", 5, 3000);
  veltest::MakeDesign(dir / "another name.mcm", 5, 3000);
  veltest::MakeDesign(dir / "c.mcm", 6, 3000);
  const std::string a = ReadFile(dir / "a.mcm");
  EXPECT_EQ(a, ReadFile(dir / "another name.mcm"));
  EXPECT_NE(a, ReadFile(dir / "c.mcm"));
}

TEST(GeneratedDesign, HoldsWhatTheViewsAndTheConnectivitySplitNeed) {
  veltest::TempDir dir;
  veltest::MakeDesign(dir / "pkg.mcm", 3, 6000);
  const DesignData design = veltest::ParseDesign(ReadFile(dir / "pkg.mcm"));
  ASSERT_EQ(design.job.size(), 12u);
  EXPECT_EQ(design.tables.at("CONNECTIVITY").records.size(), 6000u);

  // Every field any view asks for or filters on is in that view's table.
  for (const auto& views : {veltest::StandardViews(), veltest::CellViews()}) {
    for (const ViewDefinition& view : views) {
      const auto& header = design.tables.at(view.keyword).header;
      std::vector<std::string> used = view.fields;
      for (const auto& c : view.conditions) used.push_back(c.field);
      for (const auto& c : view.alternatives) used.push_back(c.field);
      for (const std::string& field : used) {
        EXPECT_NE(std::find(header.begin(), header.end(), field), header.end())
            << field << " in " << view.keyword;
      }
    }
  }

  // A skewed distribution: the largest nets hold most records, the fourth
  // and fifth tie, the four largest have plain names.
  const auto ranked = RankNets(design);
  ASSERT_GE(ranked.size(), 6u);
  EXPECT_GT(ranked[0].first * 4, 6000u);
  EXPECT_EQ(ranked[3].first, ranked[4].first);
  EXPECT_GT(ranked[4].first, ranked[5].first);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(ranked[i].second.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_"),
              std::string::npos)
        << ranked[i].second;
  }
  const std::set<std::string> nets = Values(design, "CONNECTIVITY", "NET_NAME");
  EXPECT_TRUE(nets.count(""));
  EXPECT_TRUE(std::any_of(nets.begin(), nets.end(),
                          [](const std::string& n) { return n.find(' ') != std::string::npos; }));
  EXPECT_TRUE(std::any_of(nets.begin(), nets.end(),
                          [](const std::string& n) { return n.find('[') != std::string::npos; }));
  // Ties among the smaller nets too.
  std::set<std::uint64_t> distinctCounts;
  for (const auto& entry : ranked) distinctCounts.insert(entry.first);
  EXPECT_LT(distinctCounts.size(), ranked.size() / 2);

  const std::set<std::string> classes = Values(design, "CONNECTIVITY", "CLASS");
  for (const char* cls : {"ETCH", "CONDUCTOR", "PIN", "VIA CLASS", "BONDING WIRE", "ANTI ETCH"}) {
    EXPECT_TRUE(classes.count(cls)) << cls;
  }
  EXPECT_EQ(Values(design, "CONNECTIVITY", "RAT_CONNECTED"),
            (std::set<std::string>{"", "NO", "YES"}));
  EXPECT_GT(Values(design, "CONNECTIVITY", "WIREBOND_MATERIAL").size(), 1u);

  const std::set<std::string> shapes = Values(design, "FULL_GEOMETRY", "PAD_SHAPE_NAME");
  for (const char* shape : {"FIG_RECTANGLE", "CIRCLE", "OBLONG_Y", "OBLONG_X", "SQUARE", ""}) {
    EXPECT_TRUE(shapes.count(shape)) << shape;
  }
  EXPECT_GT(shapes.size(), 6u);
  for (const char* field : {"DRILL_ARRAY_ROWS", "BACKDRILL_TOP_LAYER", "BACKDRILL_BOTTOM_LAYER"}) {
    EXPECT_GT(Values(design, "COMPOSITE_PAD", field).size(), 1u) << field;
  }
  EXPECT_GT(Values(design, "LAYER", "LAYER_TYPE").count("DIELECTRIC"), 0u);
}

TEST(GeneratedDesign, EveryViewOfBothSetsReadsBack) {
  veltest::TempDir dir;
  for (const std::uint64_t records : {0, 4000}) {
    SCOPED_TRACE(records);
    veltest::MakeDesign(dir / "pkg.mcm", 11, records);
    const DesignData design = veltest::ParseDesign(ReadFile(dir / "pkg.mcm"));
    if (records == 0) {
      EXPECT_TRUE(design.tables.at("CONNECTIVITY").records.empty());
      continue;
    }
    CheckViews(veltest::StandardViews(), dir / "pkg.mcm", design, dir, "");
    CheckViews(veltest::CellViews(), dir / "pkg.mcm", design, dir, "-cell");
  }
}

// The program splits connectivity into three class groups for each of the
// four largest nets and one remainder without them; together the pieces hold
// exactly what the one connectivity view holds.
TEST(GeneratedDesign, ConnectivityPiecesAddUpToTheWholeView) {
  veltest::TempDir dir;
  veltest::MakeDesign(dir / "pkg.mcm", 9, 5000);
  const DesignData design = veltest::ParseDesign(ReadFile(dir / "pkg.mcm"));
  const ViewDefinition conn = veltest::StandardViews()[3];
  ASSERT_EQ(conn.name, "conn");
  const auto ranked = RankNets(design);

  std::vector<ViewDefinition> pieces;
  ViewDefinition remainder = conn;
  for (int i = 0; i < 4; ++i) {
    for (const std::vector<std::string>& group :
         {std::vector<std::string>{"CONDUCTOR", "ETCH"}, {"PIN"}, {"VIA CLASS"}}) {
      ViewDefinition piece = conn;
      piece.name = "piece" + std::to_string(pieces.size());
      piece.conditions.push_back(veltest::NetCond("=", ranked[i].second));
      piece.alternatives.clear();
      for (const std::string& cls : group)
        piece.alternatives.push_back(veltest::Bare("CLASS", "=", cls));
      pieces.push_back(piece);
    }
    remainder.conditions.push_back(veltest::NetCond("!=", ranked[i].second));
  }
  remainder.name = "remainder";
  pieces.push_back(remainder);
  pieces.push_back(conn);

  std::string control;
  std::vector<std::string> outputs;
  for (const ViewDefinition& piece : pieces) {
    control += veltest::ControlBlock(piece);
    outputs.push_back(dir / (piece.name + ".txt"));
  }
  veltest::WriteFile(dir / "control.txt", veltest::CrLf(control));
  ASSERT_EQ(veltest::RunSim(dir / "pkg.mcm", dir / "control.txt", outputs).exitCode, 0);

  std::multiset<std::vector<std::string>> whole, joined;
  for (std::size_t i = 0; i + 1 < outputs.size(); ++i) {
    const auto records = veltest::ParseViewFile(ReadFile(outputs[i])).records;
    EXPECT_FALSE(records.empty()) << pieces[i].name;
    joined.insert(records.begin(), records.end());
  }
  const auto all = veltest::ParseViewFile(ReadFile(outputs.back())).records;
  whole.insert(all.begin(), all.end());
  EXPECT_EQ(joined, whole);
}

}  // namespace

namespace {

TEST(GeneratedDesign, OptionsShapeTheDesign) {
  veltest::TempDir dir;
  veltest::MakeDesign(dir / "small.mcm", 4, 800,
                      {"--nets", "500", "--layers", "2", "--geo-records", "0", "--name", "top.mcm",
                       "--title", "TOP PKG"});
  const DesignData design = veltest::ParseDesign(ReadFile(dir / "small.mcm"));
  EXPECT_EQ(design.job[0], "top.mcm");
  EXPECT_EQ(design.job[8], "TOP PKG");
  EXPECT_EQ(design.job[10], "2");
  EXPECT_EQ(design.tables.at("NET").records.size(), 500u);
  EXPECT_TRUE(design.tables.at("FULL_GEOMETRY").records.empty());
  EXPECT_EQ(Values(design, "LAYER", "LAYER_CONDUCTOR").size(), 2u);
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
