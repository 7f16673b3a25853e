// The packets of the STM32 system-memory boot loader's USART protocol (ST application note AN3155),
// as ZPX710P and the STA8100 application processor speak it.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace orbix::stm32 {

inline constexpr std::uint8_t ack = 0x79;
inline constexpr std::uint8_t nack = 0x1F;

/// A command byte and its bitwise complement.
constexpr std::array<std::uint8_t, 2> command_packet(std::uint8_t command) {
    return {command, static_cast<std::uint8_t>(~command)};
}

/// The XOR of all bytes, which follows each data packet.
constexpr std::uint8_t xor_checksum(std::span<const std::uint8_t> bytes) {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : bytes) {
        sum = static_cast<std::uint8_t>(sum ^ byte);
    }
    return sum;
}

}  // namespace orbix::stm32
