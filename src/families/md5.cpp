#include "families/md5.h"

#include <algorithm>
#include <bit>

#include "core/kv_util.h"

namespace orbix::hd8xx0 {

namespace {

constexpr std::size_t block_size = 64;

/// T[i] of RFC 1321: the integer part of 2^32 * abs(sin(i + 1)).
constexpr std::array<std::uint32_t, 64> sine_table{
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};

/// The shift amounts of the four rounds; each repeats its four.
constexpr std::array<std::array<int, 4>, 4> shifts{{
    {7, 12, 17, 22},
    {5, 9, 14, 20},
    {4, 11, 16, 23},
    {6, 10, 15, 21},
}};

/// A round's function of three chaining variables, and the message word of its step.
struct Mix {
    std::uint32_t value;
    std::size_t word;
};

Mix mix(std::size_t step, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    switch (step / 16) {
        case 0:
            return {(b & c) | (~b & d), step};
        case 1:
            return {(b & d) | (c & ~d), (5 * step + 1) % 16};
        case 2:
            return {b ^ c ^ d, (3 * step + 5) % 16};
        default:
            return {c ^ (b | ~d), 7 * step % 16};
    }
}

void hash_block(std::array<std::uint32_t, 4>& state, std::span<const std::uint8_t> block) {
    std::array<std::uint32_t, 16> words{};
    for (std::size_t index = 0; index < words.size(); ++index) {
        words[index] = get_le32(block.subspan(4 * index));
    }
    auto [a, b, c, d] = state;
    for (std::size_t step = 0; step < 64; ++step) {
        const auto [value, word] = mix(step, b, c, d);
        const std::uint32_t sum = a + value + sine_table[step] + words[word];
        a = d;
        d = c;
        c = b;
        b += std::rotl(sum, shifts[step / 16][step % 4]);
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

void MD5Init(MD5Context& context) {
    context = {
        .state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476}, .length = 0, .unhashed = {}};
}

void MD5Update(MD5Context& context, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        const std::size_t held = context.length % block_size;
        const std::size_t count = std::min(block_size - held, bytes.size());
        std::copy_n(bytes.begin(), count, context.unhashed.begin() + held);
        context.length += count;
        bytes = bytes.subspan(count);
        if (held + count == block_size) {
            hash_block(context.state, context.unhashed);
        }
    }
}

void MD5Final(MD5Context& context, std::span<std::uint8_t, md5_digest_size> digest) {
    constexpr std::size_t length_size = 8;
    const std::uint64_t bits = context.length * 8;
    std::array<std::uint8_t, length_size> length{};
    put_le32(length, static_cast<std::uint32_t>(bits));
    put_le32(std::span(length).subspan(4), static_cast<std::uint32_t>(bits >> 32));

    constexpr std::array<std::uint8_t, block_size> padding{0x80};
    const std::size_t used = (context.length + length_size) % block_size;
    MD5Update(context, std::span(padding).first(block_size - used));
    MD5Update(context, length);
    for (std::size_t index = 0; index < context.state.size(); ++index) {
        put_le32(digest.subspan(4 * index), context.state[index]);
    }
}

int ComputeHash(std::span<const std::uint8_t> data, std::span<std::uint8_t> digest) {
    if (data.data() == nullptr || digest.data() == nullptr) {
        return -1;
    }
    MD5Context context{};
    MD5Init(context);
    MD5Update(context, data);
    MD5Final(context, digest.first<md5_digest_size>());
    return 0;
}

}  // namespace orbix::hd8xx0
