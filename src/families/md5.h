// The MD5 message digest, by which a firmware package tells whether it is whole.
//
// Source: RFC 1321, "The MD5 Message-Digest Algorithm". It guards against damage, not against a
// forger.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace orbix::hd8xx0 {

inline constexpr std::size_t md5_digest_size = 16;

/// A digest in the making.
struct MD5Context {
    std::array<std::uint32_t, 4> state;     ///< the chaining variables A, B, C, D
    std::uint64_t length;                   ///< bytes taken so far
    std::array<std::uint8_t, 64> unhashed;  ///< the first `length % 64` bytes of the next block
};

void MD5Init(MD5Context& context);
void MD5Update(MD5Context& context, std::span<const std::uint8_t> bytes);
void MD5Final(MD5Context& context, std::span<std::uint8_t, md5_digest_size> digest);

/// The digest of `data`, in the byte order of RFC 1321. `digest` holds 16 bytes. Returns 0, or -1
/// when one of the two is absent (a null pointer).
int ComputeHash(std::span<const std::uint8_t> data, std::span<std::uint8_t> digest);

}  // namespace orbix::hd8xx0
