#include "views/ExtractaViewControl.h"

#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

using veltest::ReadFile;
using veltest::TempDir;

// What the bytes on disk must be: every line feed preceded by a carriage return.
std::string OnDisk(const std::string& text) {
  std::string bytes;
  for (const char c : text) bytes += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return bytes;
}

std::string Block(const ExtractaViewDef& def) {
  std::ostringstream out;
  WriteViewBlock(def, out);
  return out.str();
}

std::string ControlFile(const TempDir& temp, const ViewSet& views,
                        const std::vector<AString>& nets) {
  const std::string path = temp / "extracta_control.txt";
  std::ofstream out(path);
  EXPECT_TRUE(WriteControlFile(out, views, nets));
  out.close();
  EXPECT_FALSE(out.fail());
  return ReadFile(path);
}

const char kNetOutlineFile[] =
    "NET\n"
    "\n"
    "\tNET_NAME\n"
    "\tNET_BUS_NAME\n"
    "\tNET_DIFFERENTIAL_PAIR\n"
    "\n"
    "END\n"
    "\n"
    "GEOMETRY\n"
    "\n"
    "\tCLASS = 'BOARD GEOMETRY'\n"
    "\tSUBCLASS = 'OUTLINE'\n"
    "\tOR\n"
    "\tCLASS = 'SUBSTRATE GEOMETRY'\n"
    "\tSUBCLASS = 'OUTLINE'\n"
    "\n"
    "\tCLASS\n"
    "\tSUBCLASS\n"
    "\tRECORD_TAG\n"
    "\tGRAPHIC_DATA_NAME\n"
    "\tGRAPHIC_DATA_NUMBER\n"
    "\tGRAPHIC_DATA_1\n"
    "\tGRAPHIC_DATA_2\n"
    "\tGRAPHIC_DATA_3\n"
    "\tGRAPHIC_DATA_4\n"
    "\tGRAPHIC_DATA_5\n"
    "\tGRAPHIC_DATA_6\n"
    "\tGRAPHIC_DATA_7\n"
    "\tGRAPHIC_DATA_8\n"
    "\tGRAPHIC_DATA_9\n"
    "\tGRAPHIC_DATA_10\n"
    "\n"
    "END\n"
    "\n";

TEST(ExtractaViewControlTest, JoinLinesSeparatesWithLineFeedAndTab) {
  EXPECT_EQ(JoinLines({}), "");
  EXPECT_EQ(JoinLines({"CLASS"}), "CLASS");
  EXPECT_EQ(JoinLines({"A", "", "B"}), "A\n\t\n\tB");
  EXPECT_EQ(JoinLines({""}), "");
}

TEST(ExtractaViewControlTest, NetAndOutlineFileIsByteExactWithCrLf) {
  const std::string text = kNetOutlineFile;
  ASSERT_EQ(text.size(), 409u);
  TempDir temp;
  const std::string bytes = ControlFile(temp, ViewSet((1u << kNet) | (1u << kOutline)), {});
  EXPECT_EQ(bytes, OnDisk(text));
  EXPECT_EQ(bytes.size(), 409u + 34u);  // one CR per line
}

TEST(ExtractaViewControlTest, BlockShapesForEachKindOfFilterPart) {
  // Neither filters nor fields: keyword, empty line, lone tab, END.
  EXPECT_EQ(FormatViewBlock(ExtractaViewDef(kPadDef, {}, false)), "PAD_DEF\n\n\t\nEND\n\n");
  EXPECT_EQ(FormatViewBlock(ExtractaViewDef(kDieStack, {}, false)), "DIE_STACK_DEF\n\n\t\nEND\n\n");

  // Fields only: no filter part.
  const ExtractaViewDef layer(kLayer, {}, false);
  EXPECT_EQ(FormatViewBlock(layer), "LAYER\n\n\t" + JoinLines(layer.fields) + "\n\nEND\n\n");

  // Alternatives without conditions: each is followed by a lone-tab line.
  const std::string composite = FormatViewBlock(ExtractaViewDef(kCompositePad, {}, false));
  const std::string compositeStart =
      "COMPOSITE_PAD\n\n"
      "\tDRILL_ARRAY_ROWS != ''\n\t\n\tOR\n"
      "\tBACKDRILL_TOP_LAYER != ''\n\t\n\tOR\n"
      "\tBACKDRILL_BOTTOM_LAYER != ''\n\t\n\n"
      "\tPAD_STACK_NAME\n";
  EXPECT_EQ(composite.substr(0, compositeStart.size()), compositeStart);

  // Conditions without alternatives: one run of them, then the fields.
  const std::string geometry = FormatViewBlock(ExtractaViewDef(kCFullGeo, {}, false));
  EXPECT_EQ(geometry.find("FULL_GEOMETRY\n\n\tNET_NAME != ''\n\tPAD_SHAPE_NAME"), 0u);
  EXPECT_NE(geometry.find("\tRAT_CONNECTED != 'NO'\n\n\tNET_NAME_SORT\n"), std::string::npos);
  EXPECT_EQ(geometry.find("\tOR\n"), std::string::npos);

  // What goes to a stream is the same text with CR LF.
  EXPECT_EQ(Block(ExtractaViewDef(kPadDef, {}, false)), "PAD_DEF\r\n\r\n\t\r\nEND\r\n\r\n");
}

// The filter part of a connectivity block: between the keyword's empty line
// and the first field.
std::string ConnFilterPart(const std::vector<AString>& nets) {
  const std::string block = FormatViewBlock(ExtractaViewDef(kConn, nets, false));
  const std::string head = "CONNECTIVITY\n\n";
  EXPECT_EQ(block.find(head), 0u);
  return block.substr(head.size(), block.find("\tNET_NAME_SORT\n") - head.size());
}

TEST(ExtractaViewControlTest, EveryAlternativeCarriesAllConditions) {
  const std::string common =
      "\tRAT_CONNECTED != 'YES'\n\tRAT_CONNECTED != 'NO'\n\tNET_NAME != ''\n";
  // Selected nets replace the class alternatives of conn.
  EXPECT_EQ(ConnFilterPart({AString("A"), AString("B")}),
            "\tNET_NAME ='A'\n" + common + "\tOR\n\tNET_NAME ='B'\n" + common + "\n");

  // One net is a condition; the class alternatives stay.
  const std::string withA = common + "\tNET_NAME ='A'\n";
  EXPECT_EQ(ConnFilterPart({AString("A")}),
            "\tCLASS = CONDUCTOR\n" + withA + "\tOR\n\tCLASS = ETCH\n" + withA +
                "\tOR\n\tCLASS = PIN\n" + withA + "\tOR\n\tCLASS = VIA CLASS\n" + withA + "\n");
}

TEST(ExtractaViewControlTest, ControlFileHoldsTheBlocksInAscendingTypeOrder) {
  TempDir temp;
  const std::vector<AString> nets = {AString("GND"), AString("VDD")};
  std::string expected;
  for (int t = kViewTypeCount - 1; t >= 0; --t) {
    if (kStandardViews.Contains(static_cast<ViewType>(t)))
      expected = Block(ExtractaViewDef(static_cast<ViewType>(t), nets, false)) + expected;
  }
  const std::string bytes = ControlFile(temp, kStandardViews, nets);
  EXPECT_EQ(bytes, expected);
  EXPECT_EQ(bytes.find("LAYER\r\n"), 0u);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == '\n') {
      ASSERT_TRUE(i > 0 && bytes[i - 1] == '\r') << "bare line feed at " << i;
    }
  }
  EXPECT_LT(bytes.find("PAD_DEF"), bytes.find("FULL_GEOMETRY"));
  EXPECT_LT(bytes.find("DIE_STACK_DEF"), bytes.find("\r\nNET\r\n"));
}

TEST(ExtractaViewControlTest, EmptySetAndUnusableStreams) {
  TempDir temp;
  EXPECT_EQ(ControlFile(temp, ViewSet(), {}), "");

  std::ofstream notOpen;
  EXPECT_FALSE(WriteControlFile(notOpen, kCellViews, {}));

  const std::string path = temp / "bad.txt";
  std::ofstream bad(path);
  bad.setstate(std::ios::badbit);
  EXPECT_FALSE(WriteControlFile(bad, kCellViews, {}));
  bad.close();
  EXPECT_EQ(ReadFile(path), "");

  // Opened for writing, truncating what was there.
  veltest::WriteFile(path, "old text that must go");
  std::ofstream again(path);
  EXPECT_TRUE(WriteControlFile(again, ViewSet(1u << kPadDef), {}));
  again.close();
  EXPECT_EQ(ReadFile(path), "PAD_DEF\r\n\r\n\t\r\nEND\r\n\r\n");
}

TEST(ExtractaViewControlTest, ViewFilesAreNamedAndListedInBlockOrder) {
  EXPECT_EQ(MakeViewFileName(kConn, AString("nets")).wstr(), L"connnets.txt");
  EXPECT_EQ(MakeViewFileName(kLayer, AString()).wstr(), L"layer.txt");
  EXPECT_EQ(MakeViewFileName(kConn, AString("0pin")).wstr(), L"conn0pin.txt");

  LongFileName dir(AString(L"/w/\u00FCber/extract5"));
  dir.MakeItDirectory();
  std::vector<ActiveView> files = {{kNet, AString("kept.txt")}};
  CollectViewFiles(kCellViews, dir, files);
  const std::vector<ActiveView> expected = {
      {kNet, AString("kept.txt")},
      {kLayer, AString(L"/w/\u00FCber/extract5/layer.txt")},
      {kCFullGeo, AString(L"/w/\u00FCber/extract5/cfullgeo.txt")},
      {kCConn, AString(L"/w/\u00FCber/extract5/cconn.txt")},
      {kDieStack, AString(L"/w/\u00FCber/extract5/diestack.txt")},
  };
  EXPECT_EQ(files, expected);

  std::vector<ActiveView> none;
  CollectViewFiles(ViewSet(), dir, none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
