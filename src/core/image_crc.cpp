#include "core/image_crc.h"

#include <array>

#include "core/kv_util.h"

namespace orbix {

namespace {

std::uint32_t crc_of_size(std::uint32_t size) {
    std::array<std::uint8_t, 4> bytes{};
    put_le32(bytes, size);
    return Kv_Check_CRC32(0, bytes);
}

}  // namespace

std::uint32_t image_crc(std::span<const std::uint8_t> image) {
    const std::uint32_t crc = crc_of_size(static_cast<std::uint32_t>(image.size()));
    return image.empty() ? crc : Kv_Check_CRC32(crc, image);
}

std::uint32_t image_crc(std::uint32_t size, FirmwareFile& file) {
    std::uint32_t crc = crc_of_size(size);
    std::array<std::uint8_t, 16383> piece{};
    while (const std::size_t count = file.read(piece)) {
        crc = Kv_Check_CRC32(crc, std::span(piece).first(count));
    }
    return crc;
}

}  // namespace orbix
