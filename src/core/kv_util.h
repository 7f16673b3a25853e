// Checksums shared by the families, a hex-digit parser, and the sleep.
#pragma once

#include <cstdint>
#include <span>

namespace orbix {

/// CRC-32 of IEEE 802.3 (reflected polynomial 0xEDB88320, register and result complemented).
/// `crc` is 0 for a new checksum, or a previous result to continue it over a further block.
/// Returns 0 when the bytes are absent (a null pointer).
std::uint32_t Kv_Check_CRC32(std::uint32_t crc, std::span<const std::uint8_t> bytes);

/// CRC-24Q of RTCM 3 (polynomial 0x864CFB, not reflected, initial value 0, no final xor) over
/// `length` bytes from index `start` of `buffer`, which must hold them.
std::uint32_t Kv_Check_CRC24Q(std::span<const std::uint8_t> buffer, std::uint32_t start,
                              std::uint32_t length);

/// Reads `digits` hex digits (at most 2 in use), most significant first, into one byte.
/// Returns 0, or 1 at the first character that is no hex digit; `*out` then holds what came before.
int AsciiToHex(const char* text, std::uint32_t digits, std::uint8_t* out);

/// Checks the checksum of an NMEA 0183 sentence that starts with '$'. The sum runs from the first
/// character after '$' up to the first '*', which must stand before index 255.
/// Returns 0 when it matches, 1 when it does not, 2 without '*' there, 3 when the two characters
/// behind the place where the search ended are no hex digits (tested before 2).
int NMEA_CheckSum(const char* sentence);

/// Waits the given number of microseconds.
void platform_sleep(std::uint32_t microseconds);

/// Waits the given number of milliseconds.
void sleep_ms(std::uint32_t milliseconds);

/// Milliseconds of the monotonic clock, for deadlines.
std::uint64_t monotonic_ms();

/// Writes `value` most significant byte first.
void put_be16(std::span<std::uint8_t> out, std::uint16_t value);
void put_be32(std::span<std::uint8_t> out, std::uint32_t value);

/// Writes `value` least significant byte first.
void put_le16(std::span<std::uint8_t> out, std::uint16_t value);
void put_le32(std::span<std::uint8_t> out, std::uint32_t value);

/// Read a value of 2 or 4 bytes, most or least significant byte first.
std::uint16_t get_be16(std::span<const std::uint8_t> in);
std::uint32_t get_be32(std::span<const std::uint8_t> in);
std::uint16_t get_le16(std::span<const std::uint8_t> in);
std::uint32_t get_le32(std::span<const std::uint8_t> in);

}  // namespace orbix
