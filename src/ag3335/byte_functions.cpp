#include "ag3335/byte_functions.h"

#include <algorithm>
#include <numeric>
#include <string_view>

namespace orbix::ag3335 {

void endianSwap(std::span<std::uint8_t> bytes, unsigned start, unsigned length) {
    std::ranges::reverse(bytes.subspan(start, length));
}

int strStartsWith(const char* text, const char* prefix) {
    return std::string_view(text).starts_with(prefix) ? 1 : 0;
}

std::uint16_t DA_compute_checksum(std::span<const std::uint8_t> bytes) {
    unsigned sum = 0;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        sum ^= unsigned{bytes[index]} << (index % 2 == 0 ? 0 : 8);
    }
    return static_cast<std::uint16_t>(sum);
}

std::uint32_t CRC_compute_simple_checksum(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0});
}

}  // namespace orbix::ag3335
