// The small functions on bytes of the AG3335 family.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "ag3335/byte_functions.h"

namespace orbix::ag3335 {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(Ag3335Bytes, SwapTurnsARangeAround) {
    Bytes bytes{0, 1, 2, 3, 4, 5};
    endianSwap(bytes, 1, 4);
    EXPECT_EQ(bytes, (Bytes{0, 4, 3, 2, 1, 5}));
    endianSwap(bytes, 0, 3);
    EXPECT_EQ(bytes, (Bytes{3, 4, 0, 2, 1, 5}));
    endianSwap(bytes, 6, 0);
    EXPECT_EQ(bytes, (Bytes{3, 4, 0, 2, 1, 5}));
}

TEST(Ag3335Bytes, PrefixTest) {
    EXPECT_EQ(strStartsWith("flash_download.cfg.bak", "flash_download.cfg"), 1);
    EXPECT_EQ(strStartsWith("flash", "flash_download.cfg"), 0);
    EXPECT_EQ(strStartsWith("Flash", "flash"), 0);
    EXPECT_EQ(strStartsWith("anything", ""), 1);
    EXPECT_EQ(strStartsWith("", ""), 1);
}

TEST(Ag3335Bytes, AgentChecksumIsTheXorOfLittleEndianWords) {
    EXPECT_EQ(DA_compute_checksum(Bytes{0x34, 0x12}), 0x1234);
    EXPECT_EQ(DA_compute_checksum(Bytes{0x34, 0x12, 0x78, 0x56}), 0x1234 ^ 0x5678);
    EXPECT_EQ(DA_compute_checksum(Bytes{0x34, 0x12, 0xFF}), 0x12CB);
    EXPECT_EQ(DA_compute_checksum(Bytes{0x01}), 0x0001);
    EXPECT_EQ(DA_compute_checksum({}), 0);
}

TEST(Ag3335Bytes, SimpleChecksumIsASumOfBytes) {
    EXPECT_EQ(CRC_compute_simple_checksum(Bytes{1, 2, 0xFF}), 0x102U);
    EXPECT_EQ(CRC_compute_simple_checksum(Bytes(4096, 0xFF)), 4096U * 255);
    EXPECT_EQ(CRC_compute_simple_checksum({}), 0U);
}

}  // namespace
}  // namespace orbix::ag3335
