// How long bytes take on the line: what both native back ends count with.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orbix::platform {

inline constexpr std::uint64_t microsecond = 1000;  ///< in nanoseconds, as all times here
inline constexpr std::uint64_t millisecond = 1000 * microsecond;
inline constexpr std::uint64_t second = 1000 * millisecond;

/// How long the bytes of a write may take on the line for the wait to be left to what follows.
inline constexpr std::uint64_t short_write = 2 * millisecond;

/// How long the line carries that many bytes: a start bit, eight data bits and a stop bit each, and
/// the parity bit if there is one. 0 at a rate that is not known.
constexpr std::uint64_t line_time_ns(std::size_t bytes, std::uint64_t baud, bool parity) {
    const std::uint64_t bits_per_byte = parity ? 11 : 10;
    return baud == 0 ? 0 : bytes * bits_per_byte * second / baud;
}

/// What is left until the line is free, in milliseconds, rounded up.
constexpr unsigned rest_ms(std::uint64_t line_free_ns, std::uint64_t now_ns) {
    const std::uint64_t rest = line_free_ns > now_ns ? line_free_ns - now_ns : 0;
    return static_cast<unsigned>((rest + millisecond - 1) / millisecond);
}

}  // namespace orbix::platform
