// MD5 against the test suite of RFC 1321.
#include "families/md5.h"

#include <gtest/gtest.h>

#include <string_view>

#include "cyfm_package.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

std::span<const std::uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string md5_of(std::span<const std::uint8_t> data) {
    std::array<std::uint8_t, 16> digest{};
    EXPECT_EQ(hd8xx0::ComputeHash(data, digest), 0);
    return as_hex(digest);
}

struct Vector {
    const char* text;
    const char* digest;
};

class Md5Suite : public ::testing::TestWithParam<Vector> {};

TEST_P(Md5Suite, DigestIsTheOneOfTheRfc) {
    EXPECT_EQ(md5_of(bytes_of(GetParam().text)), as_hex(hex(GetParam().digest)));
}

INSTANTIATE_TEST_SUITE_P(
    Rfc1321, Md5Suite,
    ::testing::Values(Vector{"", "d41d8cd98f00b204e9800998ecf8427e"},
                      Vector{"a", "0cc175b9c0f1b6a831c399e269772661"},
                      Vector{"abc", "900150983cd24fb0d6963f7d28e17f72"},
                      Vector{"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
                      Vector{"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
                      Vector{"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
                             "d174ab98d277d9f5a5611c2c9f419d9f"},
                      Vector{"1234567890123456789012345678901234567890123456789012345678901234567"
                             "8901234567890",
                             "57edf4a22be3c955ac49da2e2107b67a"}));

TEST(Md5, ArrivesAtTheSameInPiecesOfAnySize) {
    const Bytes data = random_image(1000);
    const std::string whole = md5_of(data);
    for (const std::size_t piece : {1U, 55U, 56U, 63U, 64U, 65U, 999U}) {
        hd8xx0::MD5Context context{};
        hd8xx0::MD5Init(context);
        for (std::size_t at = 0; at < data.size(); at += piece) {
            hd8xx0::MD5Update(context,
                              std::span(data).subspan(at, std::min(piece, data.size() - at)));
        }
        std::array<std::uint8_t, 16> digest{};
        hd8xx0::MD5Final(context, digest);
        EXPECT_EQ(as_hex(digest), whole) << "pieces of " << piece;
    }
}

TEST(Md5, AgreesWithThePackersOwnAtEveryLengthAroundABlock) {
    for (std::size_t length = 0; length < 200; ++length) {
        const Bytes data = random_image(length, 7);
        const std::span<const std::uint8_t> all(data.empty() ? bytes_of("") : std::span(data));
        EXPECT_EQ(md5_of(all), as_hex(sim::module_md5(all))) << length;
    }
}

TEST(Md5, AbsentDataOrDigestIsRefused) {
    const Bytes data(3);
    std::array<std::uint8_t, 16> digest{};
    EXPECT_EQ(hd8xx0::ComputeHash({}, digest), -1);
    EXPECT_EQ(hd8xx0::ComputeHash(data, {}), -1);
}

}  // namespace
}  // namespace orbix::test
