// Checksums as the modules compute them, bit by bit from their definitions.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace orbix::sim {

/// CRC-32 of IEEE 802.3; `before` continues an earlier one.
std::uint32_t module_crc32(std::span<const std::uint8_t> bytes, std::uint32_t before = 0);

/// CRC-32 over a length as 4 little-endian bytes and then the content, by which boot loaders check
/// an image.
std::uint32_t module_image_crc(std::span<const std::uint8_t> image);

/// CRC-16 of XMODEM (polynomial 0x1021, initial value 0, most significant bit first).
std::uint16_t module_crc16(std::span<const std::uint8_t> bytes);

/// The sum of all bytes and the sum of these sums, each modulo 256.
std::array<std::uint8_t, 2> fletcher(std::span<const std::uint8_t> bytes);

}  // namespace orbix::sim
