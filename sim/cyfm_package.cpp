#include "cyfm_package.h"

#include <zlib.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <stdexcept>

namespace orbix::sim {

namespace {

/// The message with its padding: a one bit, zeros, and the length in bits as 64 bits.
std::vector<std::uint8_t> padded(std::span<const std::uint8_t> message) {
    std::vector<std::uint8_t> bytes(message.begin(), message.end());
    bytes.push_back(0x80);
    while (bytes.size() % 64 != 56) {
        bytes.push_back(0);
    }
    const std::uint64_t bits = std::uint64_t{message.size()} * 8;
    for (int shift = 0; shift < 64; shift += 8) {
        bytes.push_back(static_cast<std::uint8_t>(bits >> shift));
    }
    return bytes;
}

/// The constant of a step, counted from 1.
std::uint32_t sine_constant(unsigned step) {
    return static_cast<std::uint32_t>(std::floor(std::fabs(std::sin(step)) * 4294967296.0));
}

struct Registers {
    std::uint32_t a = 0x67452301;
    std::uint32_t b = 0xEFCDAB89;
    std::uint32_t c = 0x98BADCFE;
    std::uint32_t d = 0x10325476;

    /// a = b + ((a + f + word + constant) <<< shift), then the names move on by one.
    void turn(std::uint32_t f, std::uint32_t word, unsigned step, int shift) {
        const std::uint32_t value = b + std::rotl(a + f + word + sine_constant(step), shift);
        a = d;
        d = c;
        c = b;
        b = value;
    }
};

void digest_block(Registers& total, std::span<const std::uint8_t> block) {
    const auto word = [block](unsigned index) {
        std::uint32_t value = 0;
        for (int byte = 3; byte >= 0; --byte) {
            value = value * 256 + block[4 * (index % 16) + static_cast<unsigned>(byte)];
        }
        return value;
    };
    constexpr std::array<int, 4> shifts_1{7, 12, 17, 22};
    constexpr std::array<int, 4> shifts_2{5, 9, 14, 20};
    constexpr std::array<int, 4> shifts_3{4, 11, 16, 23};
    constexpr std::array<int, 4> shifts_4{6, 10, 15, 21};
    Registers r = total;
    for (unsigned i = 0; i < 16; ++i) {
        r.turn((r.b & r.c) | (~r.b & r.d), word(i), i + 1, shifts_1[i % 4]);
    }
    for (unsigned i = 0; i < 16; ++i) {
        r.turn((r.b & r.d) | (r.c & ~r.d), word(1 + 5 * i), i + 17, shifts_2[i % 4]);
    }
    for (unsigned i = 0; i < 16; ++i) {
        r.turn(r.b ^ r.c ^ r.d, word(5 + 3 * i), i + 33, shifts_3[i % 4]);
    }
    for (unsigned i = 0; i < 16; ++i) {
        r.turn(r.c ^ (r.b | ~r.d), word(7 * i), i + 49, shifts_4[i % 4]);
    }
    total.a += r.a;
    total.b += r.b;
    total.c += r.c;
    total.d += r.d;
}

}  // namespace

std::array<std::uint8_t, 16> module_md5(std::span<const std::uint8_t> bytes) {
    Registers total;
    const std::vector<std::uint8_t> message = padded(bytes);
    for (std::size_t at = 0; at < message.size(); at += 64) {
        digest_block(total, std::span(message).subspan(at, 64));
    }
    std::array<std::uint8_t, 16> digest{};
    std::size_t index = 0;
    for (const std::uint32_t value : {total.a, total.b, total.c, total.d}) {
        for (int shift = 0; shift < 32; shift += 8) {
            digest[index++] = static_cast<std::uint8_t>(value >> shift);
        }
    }
    return digest;
}

std::vector<std::uint8_t> gzip(std::span<const std::uint8_t> bytes) {
    constexpr int gzip_window_bits = 15 + 16;
    constexpr int memory_level = 8;
    z_stream stream{};
    if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, gzip_window_bits, memory_level,
                     Z_DEFAULT_STRATEGY) != Z_OK) {
        throw std::runtime_error("no memory for compression");
    }
    std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
    std::vector<std::uint8_t> output(deflateBound(&stream, static_cast<uLong>(bytes.size())));
    stream.next_in = input.data();
    stream.avail_in = static_cast<uInt>(input.size());
    stream.next_out = output.data();
    stream.avail_out = static_cast<uInt>(output.size());
    const int result = deflate(&stream, Z_FINISH);
    output.resize(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END) {
        throw std::runtime_error("the image could not be compressed");
    }
    return output;
}

std::vector<std::uint8_t> with_cyfm_header(std::span<const std::uint8_t> stream,
                                           std::uint16_t header_size) {
    const std::size_t stream_offset = 4 + std::size_t{header_size};
    std::vector<std::uint8_t> package(stream_offset + stream.size(), ' ');
    package[0] = 'C';
    package[1] = 'Y';
    package[2] = static_cast<std::uint8_t>(header_size / 256);
    package[3] = static_cast<std::uint8_t>(header_size % 256);
    std::copy(stream.begin(), stream.end(),
              package.begin() + static_cast<std::ptrdiff_t>(stream_offset));
    return package;
}

std::vector<std::uint8_t> with_digest(std::span<const std::uint8_t> content) {
    const auto digest = module_md5(content);
    std::vector<std::uint8_t> bytes(digest.size() + content.size());
    const auto end_of_digest = std::copy(digest.begin(), digest.end(), bytes.begin());
    std::copy(content.begin(), content.end(), end_of_digest);
    return bytes;
}

std::vector<std::uint8_t> make_cyfm(std::span<const std::uint8_t> image,
                                    std::uint16_t header_size) {
    return with_cyfm_header(gzip(with_digest(image)), header_size);
}

std::vector<std::uint8_t> make_master_cyfm(std::span<const std::uint8_t> image) {
    std::vector<std::uint8_t> content(leading_part_size + image.size(), 0xFF);
    std::copy(image.begin(), image.end(), content.begin() + leading_part_size);
    return make_cyfm(content);
}

}  // namespace orbix::sim
