// The blocks of XMODEM-1K with CRC, as RX7040 and HD8xx0 receive them.
//
// Source: Chuck Forsberg, "XMODEM/YMODEM Protocol Reference" (1988).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace orbix::xmodem {

inline constexpr std::uint8_t soh = 0x01;
inline constexpr std::uint8_t stx = 0x02;
inline constexpr std::uint8_t eot = 0x04;
inline constexpr std::uint8_t ack = 0x06;
inline constexpr std::uint8_t nak = 0x15;
inline constexpr std::uint8_t can = 0x18;
inline constexpr std::uint8_t crc_request = 'C';

/// What fills the last block behind the end of the file.
inline constexpr std::uint8_t padding = 0x1A;

inline constexpr std::size_t data_size = 1024;

/// STX, number, its complement, 1024 data bytes, CRC-16 (high byte first).
using Block = std::array<std::uint8_t, data_size + 5>;

/// The short block: SOH, number, its complement, 128 data bytes, CRC-16 (high byte first).
inline constexpr std::size_t short_data_size = 128;
using ShortBlock = std::array<std::uint8_t, short_data_size + 5>;

/// CRC-16 of XMODEM: polynomial 0x1021, initial value 0, most significant bit first. The check
/// value of "123456789" is 0x31C3.
std::uint16_t crc16_ccitt(std::span<const std::uint8_t> bytes);

/// A block with the low 8 bits of `number`. `data` holds 1024 bytes.
Block make_block(std::uint32_t number, std::span<const std::uint8_t, data_size> data);

/// The same with 128 bytes of data.
ShortBlock make_short_block(std::uint32_t number,
                            std::span<const std::uint8_t, short_data_size> data);

}  // namespace orbix::xmodem
