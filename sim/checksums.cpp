#include "checksums.h"

#include <array>

namespace orbix::sim {

std::uint32_t module_crc32(std::span<const std::uint8_t> bytes, std::uint32_t before) {
    std::uint32_t remainder = before ^ 0xFFFFFFFFU;
    for (const std::uint8_t byte : bytes) {
        remainder ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            const std::uint32_t carry = 0U - (remainder & 1U);
            remainder = remainder >> 1 ^ (0xEDB88320U & carry);
        }
    }
    return remainder ^ 0xFFFFFFFFU;
}

std::uint32_t module_image_crc(std::span<const std::uint8_t> image) {
    const auto size = static_cast<std::uint32_t>(image.size());
    const std::array<std::uint8_t, 4> size_bytes{
        static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8),
        static_cast<std::uint8_t>(size >> 16), static_cast<std::uint8_t>(size >> 24)};
    return module_crc32(image, module_crc32(size_bytes));
}

std::uint16_t module_crc16(std::span<const std::uint8_t> bytes) {
    unsigned remainder = 0;
    for (const std::uint8_t byte : bytes) {
        for (unsigned mask = 0x80; mask != 0; mask >>= 1) {
            const bool out = (remainder & 0x8000U) != 0;
            const bool in = (byte & mask) != 0;
            remainder = remainder << 1 & 0xFFFFU;
            if (out != in) {
                remainder ^= 0x1021U;
            }
        }
    }
    return static_cast<std::uint16_t>(remainder);
}

std::array<std::uint8_t, 2> fletcher(std::span<const std::uint8_t> bytes) {
    unsigned a = 0;
    unsigned b = 0;
    for (const std::uint8_t byte : bytes) {
        a = (a + byte) % 256;
        b = (b + a) % 256;
    }
    return {static_cast<std::uint8_t>(a), static_cast<std::uint8_t>(b)};
}

}  // namespace orbix::sim
