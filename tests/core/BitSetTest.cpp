#include <bitset>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/BitUtilities.h"
#include "core/EnumSet.h"
#include "core/VelAssert.h"

namespace {

using namespace BitUtilities;

// The position of the n-th set bit, lowest first, found the slow way.
uint32_t SlowNthSetBit(uint32_t value, uint32_t n) {
  for (uint32_t bit = 0; bit < 32; ++bit)
    if (((value >> bit) & 1u) && n-- == 0) return bit;
  return kNoBit;
}

uint32_t SlowCount(uint32_t value) { return static_cast<uint32_t>(std::bitset<32>(value).count()); }

TEST(BitUtilitiesTest, CountsMatchThePopulationCountForEveryValue) {
  ScopedAssertCapture capture;
  for (uint32_t v = 0; v <= 0xf; ++v) EXPECT_EQ(CountBits4(v), SlowCount(v)) << v;
  for (uint32_t v = 0; v <= 0xff; ++v) EXPECT_EQ(CountBits8(v), SlowCount(v)) << v;
  for (uint32_t v = 0; v <= 0xffff; ++v) ASSERT_EQ(CountBits16(v), SlowCount(v)) << v;
  EXPECT_TRUE(capture.reports().empty());
}

// A bit that is there is found without a report; asking for one that is not
// may be reported by a narrower helper on the way down (see below).
TEST(BitUtilitiesTest, NthSetBitFindsEveryBitAcrossNibbleByteAndHalfWordBorders) {
  ScopedAssertCapture capture;
  int reportedFinds = 0;
  const auto matches = [&](uint32_t got, uint32_t v, uint32_t n) {
    const uint32_t expected = SlowNthSetBit(v, n);
    if (expected != kNoBit && !capture.reports().empty()) ++reportedFinds;
    capture.Clear();
    return got == expected;
  };
  for (uint32_t v = 0; v <= 0xf; ++v)
    for (uint32_t n = 0; n < 4; ++n) ASSERT_TRUE(matches(NthSetBit4(v, n), v, n)) << v << " " << n;
  for (uint32_t v = 0; v <= 0xff; ++v)
    for (uint32_t n = 0; n < 8; ++n) ASSERT_TRUE(matches(NthSetBit8(v, n), v, n)) << v << " " << n;
  for (uint32_t v = 0; v <= 0xffff; ++v)
    for (uint32_t n = 0; n < 16; ++n)
      ASSERT_TRUE(matches(NthSetBit16(v, n), v, n)) << v << " " << n;

  std::mt19937 random(2024);
  std::vector<uint32_t> values = {0,          1,          0xFFFFFFFF, 0x80000000, 0x00018000,
                                  0xFFFF0000, 0x0000FFFF, 0x00010000, 0x8000FFFF};
  for (int i = 0; i < 2000; ++i) values.push_back(random() & random());
  for (const uint32_t v : values)
    for (uint32_t n = 0; n < 32; ++n)
      ASSERT_TRUE(matches(NthSetBit32(v, n), v, n)) << std::hex << v << " " << n;

  EXPECT_EQ(reportedFinds, 0);
}

TEST(BitUtilitiesTest, BadOperandsAreReportedAndTheMaskedValueIsUsed) {
  ScopedAssertCapture capture;
  const struct {
    uint32_t result;
    uint32_t expected;
    int line;
    const char* condition;
  } cases[] = {
      {CountBits4(0x13), 2, 116, "value <= 0xf"},
      {CountBits8(0x1FF), 8, 126, "value <= 0xff"},
      {CountBits16(0x10003), 2, 167, "value <= 0xffff"},
      {NthSetBit4(0x1A, 1), 3, 617, "value <= 0xf && n < 4"},
      {NthSetBit8(0x130, 1), 5, 647, "value <= 0xff && n < 8"},
      {NthSetBit16(0x10300, 0), 8, 696, "value <= 0xffff && n < 16"},
  };
  ASSERT_EQ(capture.reports().size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(cases[i].result, cases[i].expected) << i;
    EXPECT_EQ(capture.reports()[i].source, "tkcore/tkutils/BitUtilities");
    EXPECT_EQ(capture.reports()[i].line, cases[i].line) << i;
    EXPECT_EQ(capture.reports()[i].condition, cases[i].condition) << i;
  }
}

enum Colour : int32_t { kRed, kGreen, kBlue, kCyan, kMagenta };
using ColourSet = EnumSet<Colour, 5>;

// A bad index is passed down as it is, so every helper on the way reports it
// in turn before the set's closing report; the result is -1.
TEST(EnumSetTest, BadIndexesGiveTheFullReportSequenceAndMinusOne) {
  using Wide = EnumSet<Colour, 32>;
  const Wide low26(0x03FFFFFF), high26(0xFFFFFFC0);
  const struct {
    std::function<uint32_t()> call;
    uint32_t result;
    std::vector<std::string> reports;
  } cases[] = {
      {[&] { return NthSetBit8(0xFF, 8); }, kNoBit, {"B647", "B617"}},
      {[&] { return NthSetBit32(0xFFFFFFFF, 32); }, kNoBit, {"B744", "B696"}},
      {[&] { return uint32_t(low26.GetAt(26)); }, kNoBit, {"E656", "E662"}},
      {[&] { return uint32_t(high26.GetAt(26)); }, kNoBit, {"E656", "B696", "E662"}},
      {[&] { return uint32_t(low26.GetAt(-1)); }, kNoBit, {"E656", "B744", "B696", "E662"}},
      {[&] { return uint32_t(ColourSet(0b101).GetAt(-1)); },
       kNoBit,
       {"E656", "B744", "B696", "E662"}},
      {[&] { return uint32_t(ColourSet(0b101).GetAt(2)); }, kNoBit, {"E656", "E662"}},
      {[&] { return uint32_t(ColourSet(0b101).GetAt(1)); }, kBlue, {}},
  };
  const std::map<int, std::string> conditions = {
      {656, "n >= 0 && n < GetCount()"},  {662, "kk != -1"},
      {617, "value <= 0xf && n < 4"},     {647, "value <= 0xff && n < 8"},
      {696, "value <= 0xffff && n < 16"}, {744, "value <= 0xffffffff && n < 32"}};
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    ScopedAssertCapture capture;
    EXPECT_EQ(cases[i].call(), cases[i].result) << i;
    std::vector<std::string> seen;
    for (const AssertReport& report : capture.reports()) {
      seen.push_back(report.source.substr(15, 1) + std::to_string(report.line));
      EXPECT_EQ(report.condition, conditions.at(report.line));
    }
    EXPECT_EQ(seen, cases[i].reports) << i;
  }
}

}  // namespace
