#include "core/xmodem_block.h"

#include <algorithm>

#include "core/kv_util.h"

namespace orbix::xmodem {

namespace {

constexpr std::array<std::uint16_t, 256> make_table() {
    std::array<std::uint16_t, 256> table{};
    for (unsigned index = 0; index < table.size(); ++index) {
        unsigned value = index << 8;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 0x8000U) != 0 ? (value << 1) ^ 0x1021U : value << 1;
        }
        table[index] = static_cast<std::uint16_t>(value);
    }
    return table;
}

constexpr auto crc16tab = make_table();

void fill_block(std::span<std::uint8_t> block, std::uint8_t type, std::uint32_t number,
                std::span<const std::uint8_t> data) {
    block[0] = type;
    block[1] = static_cast<std::uint8_t>(number);
    block[2] = static_cast<std::uint8_t>(~number);
    std::copy(data.begin(), data.end(), block.begin() + 3);
    put_be16(block.subspan(3 + data.size()), crc16_ccitt(data));
}

}  // namespace

std::uint16_t crc16_ccitt(std::span<const std::uint8_t> bytes) {
    unsigned crc = 0;
    for (const std::uint8_t byte : bytes) {
        crc = ((crc << 8) & 0xFFFFU) ^ crc16tab[(crc >> 8) ^ byte];
    }
    return static_cast<std::uint16_t>(crc);
}

Block make_block(std::uint32_t number, std::span<const std::uint8_t, data_size> data) {
    Block block{};
    fill_block(block, stx, number, data);
    return block;
}

ShortBlock make_short_block(std::uint32_t number,
                            std::span<const std::uint8_t, short_data_size> data) {
    ShortBlock block{};
    fill_block(block, soh, number, data);
    return block;
}

}  // namespace orbix::xmodem
