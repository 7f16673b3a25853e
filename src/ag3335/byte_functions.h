// Small functions on bytes: the checksums of the mask-ROM loader and the old download agent, byte
// order, and a prefix test.
#pragma once

#include <cstdint>
#include <span>

namespace orbix::ag3335 {

/// Reverses `length` bytes from index `start` of `bytes`, which must hold them: turns host integers
/// into big-endian wire order and back.
void endianSwap(std::span<std::uint8_t> bytes, unsigned start, unsigned length);

/// Returns 1 if `text` begins with `prefix` (an empty prefix always does), else 0.
int strStartsWith(const char* text, const char* prefix);

/// The checksum that the mask-ROM loader reports after it has received a download agent: the XOR
/// of all 16-bit little-endian words; an odd last byte counts as the low half of a word.
/// 0 without bytes.
std::uint16_t DA_compute_checksum(std::span<const std::uint8_t> bytes);

/// The sum of all bytes, modulo 2^32. 0 without bytes.
std::uint32_t CRC_compute_simple_checksum(std::span<const std::uint8_t> bytes);

}  // namespace orbix::ag3335
