// The CRC by which boot loaders check a whole image: CRC-32 over the image's size as 4
// little-endian bytes, continued over its content.
#pragma once

#include <cstdint>
#include <span>

#include "core/firmware_file.h"

namespace orbix {

/// Of an image that is held in memory.
std::uint32_t image_crc(std::span<const std::uint8_t> image);

/// Of a size and the content of a file from its current position to its end. A read that failed
/// shows in `file.failed()`.
std::uint32_t image_crc(std::uint32_t size, FirmwareFile& file);

}  // namespace orbix
