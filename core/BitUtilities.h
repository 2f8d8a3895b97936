#pragma once
// Bit helpers on unsigned 32-bit values: population counts and the position of
// the n-th set bit (lowest first). Each helper states its operand's width; a
// value or index outside it is reported as an assertion and the result is
// computed from the masked value. A missing n-th bit gives kNoBit.

#include <cstdint>

namespace BitUtilities {

constexpr uint32_t kNoBit = 0xFFFFFFFFu;

uint32_t CountBits4(uint32_t value);
uint32_t CountBits8(uint32_t value);
uint32_t CountBits16(uint32_t value);

uint32_t NthSetBit4(uint32_t value, uint32_t n);
uint32_t NthSetBit8(uint32_t value, uint32_t n);
uint32_t NthSetBit16(uint32_t value, uint32_t n);
uint32_t NthSetBit32(uint32_t value, uint32_t n);

}  // namespace BitUtilities
