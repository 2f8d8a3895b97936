#include "views/ExtractaViewDef.h"

#include <gtest/gtest.h>

// Each view's own keyword, filter and fields are checked byte for byte in the
// control file tests; this one takes them as given and checks what the number
// of nets, and whether they are selected or excluded, changes.

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

}  // namespace
