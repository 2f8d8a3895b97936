#include "views/ExtractaViewControl.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"
// The views as extracta must be asked for are spelled out once, in the tools'
// test support, from which the stand-in extractor is tested too.
#include "tests/tools/ToolsTestSupport.h"

namespace {

using veltest::CrLf;
using veltest::ReadFile;
using veltest::TempDir;

std::string ControlFile(const TempDir& temp, const ViewSet& views,
                        const std::vector<AString>& nets) {
  const std::string path = temp / "extracta_control.txt";
  std::ofstream out(path, std::ios::binary);
  EXPECT_TRUE(WriteControlFile(out, views, nets));
  out.close();
  EXPECT_FALSE(out.fail());
  return ReadFile(path);
}

// Every view of both sets: keyword, filter and fields in the written order,
// CR LF throughout, blocks in ascending type order, and the view files listed
// in the same order under the views' names.
TEST(ExtractaViewControlTest, BothViewSetsAreWrittenAsDefined) {
  TempDir temp;
  LongFileName dir(AString(temp.path()));
  dir.MakeItDirectory();
  for (const auto& [set, views] :
       {std::pair{kStandardViews, veltest::StandardViews()}, {kCellViews, veltest::CellViews()}}) {
    std::string expected;
    std::vector<ActiveView> expectedFiles;
    for (std::size_t i = 0; i < views.size(); ++i) {
      expected += CrLf(veltest::ControlBlock(views[i]));
      expectedFiles.push_back(
          {set.GetAt(static_cast<int>(i)), AString(temp.path() + "/" + views[i].name + ".txt")});
    }
    EXPECT_EQ(ControlFile(temp, set, {}), expected);
    std::vector<ActiveView> files;
    CollectViewFiles(set, dir, files);
    EXPECT_EQ(files, expectedFiles);
  }
  // The nets go to every block as selecting filters.
  const std::vector<AString> nets = {AString("GND"), AString("VDD")};
  EXPECT_EQ(ControlFile(temp, ViewSet((1u << kFullGeo) | (1u << kConn)), nets),
            CrLf(FormatViewBlock(ExtractaViewDef(kFullGeo, nets, false)) +
                 FormatViewBlock(ExtractaViewDef(kConn, nets, false))));
}

TEST(ExtractaViewControlTest, NetAndOutlineFileIsByteExactWithCrLf) {
  const std::string text =
      "NET\n\n\tNET_NAME\n\tNET_BUS_NAME\n\tNET_DIFFERENTIAL_PAIR\n\nEND\n\n"
      "GEOMETRY\n"
      "\n"
      "\tCLASS = 'BOARD GEOMETRY'\n"
      "\tSUBCLASS = 'OUTLINE'\n"
      "\tOR\n"
      "\tCLASS = 'SUBSTRATE GEOMETRY'\n"
      "\tSUBCLASS = 'OUTLINE'\n"
      "\n"
      "\tCLASS\n\tSUBCLASS\n\tRECORD_TAG\n\tGRAPHIC_DATA_NAME\n\tGRAPHIC_DATA_NUMBER\n"
      "\tGRAPHIC_DATA_1\n\tGRAPHIC_DATA_2\n\tGRAPHIC_DATA_3\n\tGRAPHIC_DATA_4\n\tGRAPHIC_DATA_5\n"
      "\tGRAPHIC_DATA_6\n\tGRAPHIC_DATA_7\n\tGRAPHIC_DATA_8\n\tGRAPHIC_DATA_9\n\tGRAPHIC_DATA_10\n"
      "\n"
      "END\n"
      "\n";
  ASSERT_EQ(text.size(), 409u);
  TempDir temp;
  const std::string bytes = ControlFile(temp, ViewSet((1u << kNet) | (1u << kOutline)), {});
  EXPECT_EQ(bytes, CrLf(text));
  EXPECT_EQ(bytes.size(), 409u + 34u);  // one CR per line
}

TEST(ExtractaViewControlTest, BlockShapesForEachKindOfFilterPart) {
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

  // Opened for writing in binary, as the program does, truncating what was
  // there. A block with neither filters nor fields: keyword, empty line, lone
  // tab, END.
  veltest::WriteFile(path, "old text that must go");
  std::ofstream again(path, std::ios::binary);
  EXPECT_TRUE(WriteControlFile(again, ViewSet(1u << kPadDef), {}));
  again.close();
  EXPECT_EQ(ReadFile(path), "PAD_DEF\r\n\r\n\t\r\nEND\r\n\r\n");
}

TEST(ExtractaViewControlTest, ViewFileNamesAndListing) {
  EXPECT_EQ(MakeViewFileName(kConn, AString("nets")).wstr(), L"connnets.txt");
  EXPECT_EQ(MakeViewFileName(kConn, AString("0pin")).wstr(), L"conn0pin.txt");

  // Appended to what the list holds; the directory's text taken as it is.
  LongFileName dir(AString(L"/w/\u00FCber/extract5"));
  dir.MakeItDirectory();
  std::vector<ActiveView> files = {{kNet, AString("kept.txt")}};
  CollectViewFiles(ViewSet(1u << kLayer), dir, files);
  CollectViewFiles(ViewSet(), dir, files);
  EXPECT_EQ(files,
            (std::vector<ActiveView>{{kNet, AString("kept.txt")},
                                     {kLayer, AString(L"/w/\u00FCber/extract5/layer.txt")}}));
}

}  // namespace
