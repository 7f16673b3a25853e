#include "core/kv_util.h"

#include <array>

#include "platform/platform.h"

namespace orbix {

namespace {

constexpr std::array<std::uint32_t, 256> make_crc32_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 1U) != 0 ? (value >> 1) ^ 0xEDB88320U : value >> 1;
        }
        table[index] = value;
    }
    return table;
}

constexpr std::array<std::uint32_t, 256> make_crc24q_table() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t index = 0; index < table.size(); ++index) {
        std::uint32_t value = index << 16;
        for (int bit = 0; bit < 8; ++bit) {
            value = (value & 0x800000U) != 0 ? (value << 1) ^ 0x864CFBU : value << 1;
        }
        table[index] = value & 0xFFFFFFU;
    }
    return table;
}

constexpr auto crc32_table = make_crc32_table();
constexpr auto crc24q_table = make_crc24q_table();

/// The value of a hex digit, or -1.
int hex_digit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    if (character >= 'A' && character <= 'F') {
        return character - 'A' + 10;
    }
    if (character >= 'a' && character <= 'f') {
        return character - 'a' + 10;
    }
    return -1;
}

}  // namespace

std::uint32_t Kv_Check_CRC32(std::uint32_t crc, std::span<const std::uint8_t> bytes) {
    if (bytes.data() == nullptr) {
        return 0;
    }
    std::uint32_t value = ~crc;
    for (const std::uint8_t byte : bytes) {
        value = crc32_table[(value ^ byte) & 0xFFU] ^ (value >> 8);
    }
    return ~value;
}

std::uint32_t Kv_Check_CRC24Q(std::span<const std::uint8_t> buffer, std::uint32_t start,
                              std::uint32_t length) {
    std::uint32_t crc = 0;
    for (const std::uint8_t byte : buffer.subspan(start, length)) {
        crc = crc24q_table[(crc >> 16) ^ byte] ^ ((crc << 8) & 0xFFFFFFU);
    }
    return crc;
}

int AsciiToHex(const char* text, std::uint32_t digits, std::uint8_t* out) {
    *out = 0;
    for (std::uint32_t index = 0; index < digits; ++index) {
        const int value = hex_digit(text[index]);
        if (value < 0) {
            return 1;
        }
        const std::uint32_t shift = 4 * (digits - index - 1);
        if (shift < 8) {
            *out = static_cast<std::uint8_t>(*out | (value << shift));
        }
    }
    return 0;
}

int NMEA_CheckSum(const char* sentence) {
    constexpr unsigned last_index = 255;  // where the sentence's 8-bit index stops
    if (sentence[0] == '\0' || sentence[1] == '\0') {
        return 2;
    }
    auto sum = static_cast<std::uint8_t>(sentence[1]);
    unsigned index = 2;
    for (; index < last_index && sentence[index] != '*'; ++index) {
        if (sentence[index] == '\0') {
            return 2;
        }
        sum = static_cast<std::uint8_t>(sum ^ static_cast<std::uint8_t>(sentence[index]));
    }
    if (sentence[index] == '\0') {
        return 2;
    }
    std::uint8_t expected = 0;
    if (AsciiToHex(sentence + index + 1, 2, &expected) != 0) {
        return 3;
    }
    if (index == last_index) {
        return 2;
    }
    return sum == expected ? 0 : 1;
}

void platform_sleep(std::uint32_t microseconds) {
    platform::current().sleep_us(microseconds);
}

void sleep_ms(std::uint32_t milliseconds) {
    platform::current().sleep_us(std::uint64_t{milliseconds} * 1000);
}

std::uint64_t monotonic_ms() {
    return platform::current().now_ms();
}

void put_be16(std::span<std::uint8_t> out, std::uint16_t value) {
    out[0] = static_cast<std::uint8_t>(value >> 8);
    out[1] = static_cast<std::uint8_t>(value);
}

void put_be32(std::span<std::uint8_t> out, std::uint32_t value) {
    put_be16(out, static_cast<std::uint16_t>(value >> 16));
    put_be16(out.subspan(2), static_cast<std::uint16_t>(value));
}

void put_le16(std::span<std::uint8_t> out, std::uint16_t value) {
    out[0] = static_cast<std::uint8_t>(value);
    out[1] = static_cast<std::uint8_t>(value >> 8);
}

void put_le32(std::span<std::uint8_t> out, std::uint32_t value) {
    put_le16(out, static_cast<std::uint16_t>(value));
    put_le16(out.subspan(2), static_cast<std::uint16_t>(value >> 16));
}

std::uint16_t get_be16(std::span<const std::uint8_t> in) {
    return static_cast<std::uint16_t>(in[0] << 8 | in[1]);
}

std::uint32_t get_be32(std::span<const std::uint8_t> in) {
    return std::uint32_t{get_be16(in)} << 16 | get_be16(in.subspan(2));
}

std::uint16_t get_le16(std::span<const std::uint8_t> in) {
    return static_cast<std::uint16_t>(in[1] << 8 | in[0]);
}

std::uint32_t get_le32(std::span<const std::uint8_t> in) {
    return std::uint32_t{get_le16(in.subspan(2))} << 16 | get_le16(in);
}

}  // namespace orbix
