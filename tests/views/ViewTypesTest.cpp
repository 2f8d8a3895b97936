#include "views/ViewTypes.h"

#include <gtest/gtest.h>

#include "core/VelAssert.h"

namespace {

// The set's members as GetAt visits them. EnumSet itself (masking, range
// checks, bad indices) is tested with the core library.
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

TEST(ViewTypesTest, PredefinedSetsHoldTheirViewsInAscendingOrder) {
  EXPECT_EQ(Members(kStandardViews),
            (std::vector<ViewType>{kLayer, kPadDef, kFullGeo, kConn, kDieStack, kNet, kComponent,
                                   kOutline, kCompositePad, kLogicalPin}));
  EXPECT_EQ(Members(kCellViews), (std::vector<ViewType>{kLayer, kCFullGeo, kCConn, kDieStack}));
  EXPECT_EQ(Members(kLayerNetViews), (std::vector<ViewType>{kLayer, kNet}));
  EXPECT_EQ(Members(kNetFilterableViews),
            (std::vector<ViewType>{kFullGeo, kConn, kCFullGeo, kCConn}));
}

}  // namespace
