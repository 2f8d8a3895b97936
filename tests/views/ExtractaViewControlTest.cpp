// The control files the program writes for extracta, byte for byte against
// golden files: both view sets, with no nets, one selected net (a condition
// beside the class alternatives) and two (alternatives in their place).

#include "views/ExtractaViewControl.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace {

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
