// The firmware packages of the HD8xx0 family ("cyfm"): a header, and behind it a gzip stream that
// holds an MD5 digest and the image.
//
//   package          unpacked content
//   0      2 bytes   not looked at          0      16 bytes  MD5 of all that follows
//   2      2 bytes   header length H, BE    16     ...       the image
//   4      H bytes   not looked at          65552  ...       the image of a dual-processor package
//   4+H    ...       gzip stream                             whose first 64 KiB are left out
#pragma once

#include <cstdint>
#include <span>

namespace orbix::hd8xx0 {

/// The largest package, and the largest content that one may unpack to, in bytes.
inline constexpr std::size_t largest_package = 512'000;
inline constexpr std::size_t largest_content = 1'048'576;

/// What `-t` chooses. The values are those of the processors that the update addresses: 2 the
/// master, 4 the slave, 6 both.
enum class UpdateMode : int {
    boot = 0,
    user = 1,
    master_user = 2,
    slave_user = 4,
    all_user = 6,
};

/// Reads a whole file into `buffer` and sets `size` to its length in bytes. Returns 0; 1 when the
/// file cannot be read (`size` is then 0); -1 without a path or a buffer, or when the file is
/// larger than the buffer.
int judge_cyfm_fw(const char* path, std::span<std::uint8_t> buffer, std::uint32_t& size);

/// Unpacks a package and checks its digest. The image stays valid until the next call. Returns 0,
/// or -1 after an ERROR line.
int uzip_cyfm(const char* path, std::span<const std::uint8_t>& image, UpdateMode mode);

}  // namespace orbix::hd8xx0
