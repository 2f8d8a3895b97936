#include "views/ViewTypes.h"

#include <gtest/gtest.h>

#include "core/VelAssert.h"

namespace {

std::vector<ViewType> Members(const ViewSet& set) {
  std::vector<ViewType> members;
  for (int n = 0; n < static_cast<int>(set.GetCount()); ++n) members.push_back(set.GetAt(n));
  return members;
}

TEST(ViewTypesTest, NamesAreTheFileNameStemsIndexedByValue) {
  const wchar_t* const expected[] = {L"layer",     L"paddef",  L"fullgeo",      L"conn",
                                     L"cfullgeo",  L"cconn",   L"diestack",     L"net",
                                     L"component", L"outline", L"compositepad", L"logicalpin"};
  for (int t = 0; t < kViewTypeCount; ++t) {
    EXPECT_EQ(kViewTypeNames[t].wstr(), expected[t]);
    EXPECT_EQ(ViewTypeName(static_cast<ViewType>(t)).wstr(), expected[t]);
  }
  ScopedAssertCapture capture;
  EXPECT_TRUE(ViewTypeName(static_cast<ViewType>(kViewTypeCount)).empty());
  EXPECT_TRUE(ViewTypeName(static_cast<ViewType>(-1)).empty());
  EXPECT_EQ(capture.reports().size(), 2u);
}

TEST(ViewTypesTest, PredefinedSetsIterateInAscendingOrder) {
  EXPECT_EQ(kStandardViews.GetCount(), 10u);
  EXPECT_EQ(Members(kStandardViews),
            (std::vector<ViewType>{kLayer, kPadDef, kFullGeo, kConn, kDieStack, kNet, kComponent,
                                   kOutline, kCompositePad, kLogicalPin}));
  EXPECT_EQ(kStandardViews.GetAt(0), kLayer);
  EXPECT_EQ(kStandardViews.GetAt(3), kConn);
  EXPECT_EQ(kStandardViews.GetAt(4), kDieStack);
  EXPECT_EQ(kStandardViews.GetAt(9), kLogicalPin);
  EXPECT_EQ(Members(kCellViews), (std::vector<ViewType>{kLayer, kCFullGeo, kCConn, kDieStack}));
  EXPECT_EQ(Members(kLayerNetViews), (std::vector<ViewType>{kLayer, kNet}));
  EXPECT_EQ(Members(kNetFilterableViews),
            (std::vector<ViewType>{kFullGeo, kConn, kCFullGeo, kCConn}));

  EXPECT_EQ(ViewSet().GetCount(), 0u);
  EXPECT_TRUE(Members(ViewSet()).empty());
  // Mask bits beyond the twelve types are dropped.
  EXPECT_EQ(ViewSet(0xFFFFF000ull).GetCount(), 0u);
  EXPECT_EQ(ViewSet(~0ull).GetCount(), 12u);
}

TEST(ViewTypesTest, ContainsRejectsValuesOutsideTheCatalogue) {
  EXPECT_TRUE(kCellViews.Contains(kCConn));
  EXPECT_FALSE(kCellViews.Contains(kConn));
  EXPECT_TRUE(kStandardViews.Contains(kLogicalPin));
  EXPECT_THROW(kStandardViews.Contains(static_cast<ViewType>(12)), std::out_of_range);
  EXPECT_THROW(kStandardViews.Contains(static_cast<ViewType>(-1)), std::out_of_range);
}

}  // namespace
