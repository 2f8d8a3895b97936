#pragma once
// EnumSet: a set of the values 0..N-1 of an enumeration, one bit per value in
// one 32-bit word. Members are always visited in ascending value order:
// GetAt(n) for n = 0 .. GetCount() - 1.

#include <cstdint>
#include <stdexcept>

#include "core/BitUtilities.h"
#include "core/VelAssert.h"

template <typename Enum, unsigned N>
class EnumSet {
  static_assert(N > 0 && N <= 32, "an EnumSet lives in one 32-bit word");

 public:
  constexpr EnumSet() = default;

  // Bit n of the mask makes value n a member; bits at N and above are ignored.
  // constexpr so that sets defined at namespace scope are constant-initialised
  // and usable from any other translation unit's start-up code.
  constexpr explicit EnumSet(uint64_t mask) : bits_(static_cast<uint32_t>(mask & kAllBits)) {}

  bool Contains(Enum value) const {
    const int position = static_cast<int>(value);
    if (position < 0 || position >= static_cast<int>(N))
      throw std::out_of_range("invalid bitset<N> position");
    return (bits_ >> position) & 1u;
  }

  void Insert(Enum value) {
    Contains(value);  // the same range check
    bits_ |= 1u << static_cast<int>(value);
  }

  uint32_t GetCount() const {
    uint32_t count = 0;
    for (uint32_t word = bits_; word != 0; word >>= 8)
      count += BitUtilities::CountBits8(word & 0xFF);
    return count;
  }

  // The n-th member counted from 0 in ascending order. A bad n is reported and
  // gives the value -1.
  Enum GetAt(int n) const {
    VEL_ASSERT_REPORT("tkcore/tkutils/EnumSet_T", 656,
                      n >= 0 && static_cast<uint32_t>(n) < GetCount(), "n >= 0 && n < GetCount()");
    const uint32_t kk = BitUtilities::NthSetBit32(bits_, static_cast<uint32_t>(n));
    VEL_ASSERT_REPORT("tkcore/tkutils/EnumSet_T", 662, kk != BitUtilities::kNoBit, "kk != -1");
    return static_cast<Enum>(static_cast<int32_t>(kk));
  }

  constexpr uint32_t GetWord() const { return bits_; }

  friend bool operator==(const EnumSet& a, const EnumSet& b) { return a.bits_ == b.bits_; }
  friend bool operator!=(const EnumSet& a, const EnumSet& b) { return a.bits_ != b.bits_; }

 private:
  static constexpr uint32_t kAllBits = N == 32 ? 0xFFFFFFFFu : ((1u << N) - 1u);
  uint32_t bits_ = 0;
};
