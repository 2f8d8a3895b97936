#include "core/BitUtilities.h"

#include "core/VelAssert.h"

#define VEL_ASSERT_SOURCE "tkcore/tkutils/BitUtilities"

namespace BitUtilities {
namespace {

// The population count of every byte and the position of the n-th set bit of
// every nibble, built by rule when the program is compiled.
struct Tables {
  uint32_t count8[256];
  uint32_t nth4[4][16];

  constexpr Tables() : count8(), nth4() {
    for (uint32_t v = 0; v < 256; ++v) {
      uint32_t bits = 0;
      for (uint32_t b = v; b != 0; b >>= 1) bits += b & 1u;
      count8[v] = bits;
    }
    for (uint32_t n = 0; n < 4; ++n) {
      for (uint32_t v = 0; v < 16; ++v) {
        uint32_t position = kNoBit;
        uint32_t seen = 0;
        for (uint32_t bit = 0; bit < 4; ++bit) {
          if ((v >> bit) & 1u) {
            if (seen == n) {
              position = bit;
              break;
            }
            ++seen;
          }
        }
        nth4[n][v] = position;
      }
    }
  }
};

constexpr Tables kTables;

}  // namespace

uint32_t CountBits4(uint32_t value) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 116, value <= 0xf, "value <= 0xf");
  return kTables.count8[value & 0xf];
}

uint32_t CountBits8(uint32_t value) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 126, value <= 0xff, "value <= 0xff");
  return kTables.count8[value & 0xff];
}

uint32_t CountBits16(uint32_t value) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 167, value <= 0xffff, "value <= 0xffff");
  value &= 0xffff;
  return CountBits8(value & 0xff) + CountBits8(value >> 8);
}

uint32_t NthSetBit4(uint32_t value, uint32_t n) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 617, value <= 0xf && n < 4, "value <= 0xf && n < 4");
  return n < 4 ? kTables.nth4[n][value & 0xf] : kNoBit;
}

uint32_t NthSetBit8(uint32_t value, uint32_t n) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 647, value <= 0xff && n < 8, "value <= 0xff && n < 8");
  value &= 0xff;
  const uint32_t low = CountBits4(value & 0xf);
  if (n < low) return NthSetBit4(value & 0xf, n);
  // An index beyond the high nibble goes down too: the nibble helper reports
  // it and finds no bit.
  const uint32_t r = NthSetBit4(value >> 4, n - low);
  return r == kNoBit ? kNoBit : r + 4;
}

uint32_t NthSetBit16(uint32_t value, uint32_t n) {
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 696, value <= 0xffff && n < 16, "value <= 0xffff && n < 16");
  value &= 0xffff;
  const uint32_t low = CountBits8(value & 0xff);
  if (n < low) return NthSetBit8(value & 0xff, n);
  if (n - low < CountBits8(value >> 8)) return NthSetBit8(value >> 8, n - low) + 8;
  return kNoBit;
}

uint32_t NthSetBit32(uint32_t value, uint32_t n) {
  // A 32-bit operand cannot exceed 0xffffffff; only the index can be bad.
  VEL_ASSERT_REPORT(VEL_ASSERT_SOURCE, 744, n < 32, "value <= 0xffffffff && n < 32");
  const uint32_t low = CountBits16(value & 0xffff);
  if (n < low) return NthSetBit16(value & 0xffff, n);
  // As for bytes: the half-word helper reports an index beyond the high half.
  const uint32_t r = NthSetBit16(value >> 16, n - low);
  return r == kNoBit ? kNoBit : r + 16;
}

}  // namespace BitUtilities
