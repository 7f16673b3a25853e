// Inflating the gzip stream inside a firmware package.
#pragma once

#include <cstdint>
#include <span>

namespace orbix::hd8xx0 {

/// Inflates one gzip stream (RFC 1952; no zlib or raw deflate wrapper) into the first `dstLen`
/// bytes of `dst`, one byte in and at most one byte out at a time. A stream that stops early counts
/// as unpacked as far as it goes. Returns 0 with `dstLen` set to the number of bytes produced.
/// Returns -1 for a damaged stream, with `dstLen` as it was, and for one that unpacks to more than
/// `dstLen` bytes, with `dstLen` 0.
int gzDecompress(std::span<const std::uint8_t> src, std::span<std::uint8_t> dst,
                 std::uint32_t& dstLen);

}  // namespace orbix::hd8xx0
