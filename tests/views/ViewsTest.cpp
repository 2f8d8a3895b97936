// The view definitions and the control files the program writes for
// extracta: what the number of nets, and whether they are selected or
// excluded, changes in each view's filter; and the control files byte for
// byte against golden files: both view sets, with no nets, one selected net (a
// condition beside the class alternatives) and two (alternatives in their
// place).

#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
#include "views/ExtractaViewControl.h"
#include "views/ExtractaViewDef.h"

namespace {

using Lines = std::vector<std::string>;

Lines Concat(Lines a, const Lines& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<AString> Nets(int count) {
  std::vector<AString> nets;
  for (int i = 0; i < count; ++i) nets.emplace_back("N" + std::to_string(i));
  return nets;
}

// "NET_NAME ='N0'" .. for Nets(count); op is "=" or "!=".
Lines NetLines(const std::string& op, int count) {
  Lines lines;
  for (int i = 0; i < count; ++i)
    lines.push_back("NET_NAME " + op + "'N" + std::to_string(i) + "'");
  return lines;
}

Lines Conditions(ViewType type) { return ExtractaViewDef(type, {}, false).conditions; }

TEST(ExtractaViewDefTest, NetFiltersFollowTheCountOfNets) {
  const Lines conn = Conditions(kConn);
  const Lines cconn = Conditions(kCConn);
  // Full geometry: six conditions of its own, then the class exclusions.
  const Lines geo = Conditions(kFullGeo);
  ASSERT_EQ(geo.size(), 25u);
  ASSERT_EQ(Conditions(kCFullGeo), geo);
  const Lines own(geo.begin(), geo.begin() + 6), exclusions(geo.begin() + 6, geo.end());
  const struct {
    ViewType type;
    std::vector<AString> nets;
    bool exclude;
    Lines conditions;
    Lines netAlternatives;
  } cases[] = {
      // One net is a condition every record must meet, two to eleven are
      // alternatives (the golden control files show both written out).
      {kCConn, Nets(11), false, cconn, NetLines("=", 11)},
      // Twelve or more: no restriction at all, whether selecting or excluding.
      {kConn, Nets(12), false, conn, {}},
      {kConn, Nets(12), true, conn, {}},
      // Excluding: every net is a condition, whatever their number.
      {kCConn, Nets(1), true, Concat(cconn, NetLines("!=", 1)), {}},
      {kConn, Nets(11), true, Concat(conn, NetLines("!=", 11)), {}},
      // Names are written as their narrow bytes, unquoted.
      {kConn,
       {AString(L"Gr\u00FC\u00DFe"), AString("O'NEIL")},
       true,
       Concat(conn, {"NET_NAME !='Gr\xC3\xBC\xC3\x9F"
                     "e'",
                     "NET_NAME !='O'NEIL'"}),
       {}},
      // Full geometry keeps its class exclusions after net conditions, and
      // drops them once the nets are alternatives (which narrow the classes).
      {kCFullGeo, Nets(3), true, Concat(Concat(own, NetLines("!=", 3)), exclusions), {}},
      {kCFullGeo, Nets(11), false, own, NetLines("=", 11)},
      {kFullGeo, Nets(12), false, geo, {}},
      // Views without nets ignore them.
      {kNet, Nets(1), true, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.type) + " with " + std::to_string(c.nets.size()) +
                 (c.exclude ? " excluded" : " selected"));
    const ExtractaViewDef def(c.type, c.nets, c.exclude);
    EXPECT_EQ(def.conditions, c.conditions);
    EXPECT_EQ(def.netAlternatives, c.netAlternatives);
    // The view's own alternatives and fields stay.
    const ExtractaViewDef plain(c.type, {}, false);
    EXPECT_EQ(def.alternatives, plain.alternatives);
    EXPECT_EQ(def.fields, plain.fields);
  }
}

using veltest::ReadFile;

// Opened for writing in binary, as the program does.
std::string Written(const std::string& path, const ViewSet& views,
                    const std::vector<AString>& nets) {
  std::ofstream out(path, std::ios::binary);
  EXPECT_TRUE(WriteControlFile(out, views, nets));
  out.close();
  return ReadFile(path);
}

TEST(ExtractaViewControlTest, ControlFilesMatchTheGoldenFiles) {
  const struct {
    const char* golden;
    ViewSet views;
    std::vector<AString> nets;
  } cases[] = {
      {"standard.txt", kStandardViews, {}},
      {"cell.txt", kCellViews, {}},
      {"standard_one_net.txt", kStandardViews, {AString("GND")}},
      {"cell_two_nets.txt", kCellViews, {AString("GND"), AString(L"VDD \u00FC")}},
  };
  veltest::TempDir temp;
  for (const auto& c : cases) {
    // Truncates what was there before.
    veltest::WriteFile(temp / c.golden, "old text that must go");
    EXPECT_EQ(Written(temp / c.golden, c.views, c.nets),
              ReadFile(std::string(VEL_SOURCE_DIR) + "/tests/views/golden/" + c.golden))
        << c.golden;
  }
  // The view files are listed in the same order, under the views' names.
  LongFileName dir(AString(L"/w/\u00FCber/extract5"));
  dir.MakeItDirectory();
  std::vector<ActiveView> files = {{kNet, AString("kept.txt")}};
  CollectViewFiles(kCellViews, dir, files);
  EXPECT_EQ(files,
            (std::vector<ActiveView>{{kNet, AString("kept.txt")},
                                     {kLayer, AString(L"/w/\u00FCber/extract5/layer.txt")},
                                     {kCFullGeo, AString(L"/w/\u00FCber/extract5/cfullgeo.txt")},
                                     {kCConn, AString(L"/w/\u00FCber/extract5/cconn.txt")},
                                     {kDieStack, AString(L"/w/\u00FCber/extract5/diestack.txt")}}));
  EXPECT_EQ(MakeViewFileName(kConn, AString("nets")).wstr(), L"connnets.txt");

  std::ofstream notOpen, bad(temp / "bad.txt");
  bad.setstate(std::ios::badbit);
  EXPECT_FALSE(WriteControlFile(notOpen, kCellViews, {}));
  EXPECT_FALSE(WriteControlFile(bad, kCellViews, {}));
  EXPECT_EQ(Written(temp / "empty.txt", ViewSet(), {}), "");
}

}  // namespace
