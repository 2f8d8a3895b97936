#include <bitset>
#include <random>

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

TEST(BitUtilitiesTest, NthSetBitFindsEveryBitAcrossNibbleByteAndHalfWordBorders) {
  ScopedAssertCapture capture;
  for (uint32_t v = 0; v <= 0xf; ++v)
    for (uint32_t n = 0; n < 4; ++n)
      ASSERT_EQ(NthSetBit4(v, n), SlowNthSetBit(v, n)) << v << " " << n;
  for (uint32_t v = 0; v <= 0xff; ++v)
    for (uint32_t n = 0; n < 8; ++n)
      ASSERT_EQ(NthSetBit8(v, n), SlowNthSetBit(v, n)) << v << " " << n;
  for (uint32_t v = 0; v <= 0xffff; ++v)
    for (uint32_t n = 0; n < 16; ++n)
      ASSERT_EQ(NthSetBit16(v, n), SlowNthSetBit(v, n)) << v << " " << n;

  std::mt19937 random(2024);
  std::vector<uint32_t> values = {0,          1,          0xFFFFFFFF, 0x80000000, 0x00018000,
                                  0xFFFF0000, 0x0000FFFF, 0x00010000, 0x8000FFFF};
  for (int i = 0; i < 2000; ++i) values.push_back(random() & random());
  for (const uint32_t v : values)
    for (uint32_t n = 0; n < 32; ++n)
      ASSERT_EQ(NthSetBit32(v, n), SlowNthSetBit(v, n)) << std::hex << v << " " << n;

  EXPECT_TRUE(capture.reports().empty());
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
      {NthSetBit8(0xFF, 8), kNoBit, 647, "value <= 0xff && n < 8"},
      {NthSetBit16(0x10300, 0), 8, 696, "value <= 0xffff && n < 16"},
      {NthSetBit32(0xFFFFFFFF, 32), kNoBit, 744, "value <= 0xffffffff && n < 32"},
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

std::vector<Colour> Members(const ColourSet& set) {
  std::vector<Colour> members;
  for (int n = 0; n < static_cast<int>(set.GetCount()); ++n) members.push_back(set.GetAt(n));
  return members;
}

TEST(EnumSetTest, MembersInAscendingOrderAndABadIndexReportedTwice) {
  EXPECT_EQ(Members(ColourSet(0b10110)), (std::vector<Colour>{kGreen, kBlue, kMagenta}));
  EXPECT_EQ(ColourSet(~0ull).GetWord(), 0x1Fu);  // bits 5..63 ignored
  ColourSet set;
  set.Insert(kCyan);
  set.Insert(kRed);
  EXPECT_EQ(set, ColourSet(0b1001));
  EXPECT_TRUE(set.Contains(kCyan) && !set.Contains(kBlue));
  // A full 32-value set counts beyond the first byte.
  EXPECT_EQ((EnumSet<Colour, 32>(0xF0F0F0F1).GetCount()), 17u);
  EXPECT_EQ((EnumSet<Colour, 32>(0x80000001).GetAt(1)), static_cast<Colour>(31));

  ScopedAssertCapture capture;
  EXPECT_EQ(static_cast<int>(ColourSet(0b00101).GetAt(2)), -1);
  ASSERT_EQ(capture.reports().size(), 2u);
  EXPECT_EQ(capture.reports()[0].source, "tkcore/tkutils/EnumSet_T");
  EXPECT_EQ(capture.reports()[0].line, 656);
  EXPECT_EQ(capture.reports()[0].condition, "n >= 0 && n < GetCount()");
  EXPECT_EQ(capture.reports()[1].line, 662);
  EXPECT_EQ(capture.reports()[1].condition, "kk != -1");
}

}  // namespace
