// Numbers on the wire, most or least significant byte first.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace orbix::sim {

inline std::uint32_t from_big_endian(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = value * 256 + byte;
    }
    return value;
}

inline std::uint32_t from_little_endian(std::span<const std::uint8_t> bytes) {
    std::uint32_t value = 0;
    for (std::size_t index = bytes.size(); index > 0; --index) {
        value = value * 256 + bytes[index - 1];
    }
    return value;
}

inline void append_big_endian(std::vector<std::uint8_t>& bytes, std::uint32_t value, int count) {
    for (int shift = 8 * (count - 1); shift >= 0; shift -= 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

inline void append_little_endian(std::vector<std::uint8_t>& bytes, std::uint32_t value, int count) {
    for (int shift = 0; shift < 8 * count; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

}  // namespace orbix::sim
