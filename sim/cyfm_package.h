// Making firmware packages for HD8xx0 modules: a header, and behind it a gzip stream that holds an
// MD5 digest and the image.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace orbix::sim {

/// The part in front of the image that is left out when both processors are updated in one run.
inline constexpr std::size_t leading_part_size = 65'536;

/// MD5 as RFC 1321 defines it.
std::array<std::uint8_t, 16> module_md5(std::span<const std::uint8_t> bytes);

/// One gzip stream.
std::vector<std::uint8_t> gzip(std::span<const std::uint8_t> bytes);

/// Puts a header of `header_size` bytes in front of a stream.
std::vector<std::uint8_t> with_cyfm_header(std::span<const std::uint8_t> stream,
                                           std::uint16_t header_size = 32);

/// The digest of the content, and behind it the content.
std::vector<std::uint8_t> with_digest(std::span<const std::uint8_t> content);

/// A whole package.
std::vector<std::uint8_t> make_cyfm(std::span<const std::uint8_t> image,
                                    std::uint16_t header_size = 32);

/// A package for the master in a run that updates both processors: 64 KiB in front of the image.
std::vector<std::uint8_t> make_master_cyfm(std::span<const std::uint8_t> image);

}  // namespace orbix::sim
