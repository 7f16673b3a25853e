// The pass-through framing of the ZPX710P family, and its small helpers.
#include "upgrade/zpx710p_vnc.h"

#include <gtest/gtest.h>

#include "checksums.h"
#include "unit/bench.h"
#include "upgrade/zpx710p.h"
#include "zpx710p.h"

namespace orbix::test {
namespace {

using namespace orbix::zpx710p;
using Lines = std::vector<std::string>;

const Bytes acknowledgement = hex("56 4E 01 01 04 00 03 55 00 00 5E 32");

TEST(Zpx710pVncChecksum, Fletcher) {
    EXPECT_EQ(ZPX710P_VNC_Check_Fletcher({}), 0);
    EXPECT_EQ(ZPX710P_VNC_Check_Fletcher(hex("07")), 0x0707);
    const std::string text = "abcde";
    EXPECT_EQ(ZPX710P_VNC_Check_Fletcher(Bytes(text.begin(), text.end())), 0xC3EF);
    EXPECT_EQ(ZPX710P_VNC_Check_Fletcher(hex("FF 02")), 0x0001) << "both sums wrap at 256";
}

TEST(Zpx710pVncEncode, TheRequests) {
    Bytes buffer(12);
    EXPECT_EQ(ZPX710P_VNC_EncodeData(buffer, 853, hex("03 00 00 00")), 12);
    EXPECT_EQ(as_hex(buffer), "56 4E 03 55 04 00 03 00 00 00 5F 8F");
    EXPECT_EQ(ZPX710P_VNC_EncodeData(buffer, 853, hex("04 00 00 00")), 12);
    EXPECT_EQ(as_hex(buffer), "56 4E 03 55 04 00 04 00 00 00 60 93");
}

TEST(Zpx710pVncEncode, AnyPayload) {
    for (const std::size_t size : {0U, 1U, 255U, 256U, 1024U}) {
        const Bytes payload = random_image(size);
        Bytes buffer(size + 8);
        EXPECT_EQ(ZPX710P_VNC_EncodeData(buffer, 0x1234, payload),
                  static_cast<std::int32_t>(size + 8));
        EXPECT_EQ(buffer, sim::make_vnc_frame(0x12, 0x34, payload)) << size;
    }
}

/// The verdict on an acknowledgement with one byte changed, and the line.
std::pair<int, Lines> decode(std::size_t offset, std::uint8_t value) {
    const LogText log;
    Bytes frame = acknowledgement;
    frame[offset] = value;
    const int result = ZPX710P_VNC_DecodeData(frame);
    return {result, log.lines()};
}

TEST(Zpx710pVncDecode, CheckByCheck) {
    EXPECT_EQ(decode(0, 'V'), (std::pair<int, Lines>{0, {}}));
    EXPECT_EQ(decode(0, 0x57), (std::pair<int, Lines>{-1, {"[ERROR] VNC_HEADER1 ERROR 57"}}));
    EXPECT_EQ(decode(1, 0x4F), (std::pair<int, Lines>{-1, {"[ERROR] VNC_HEADER2 ERROR 4f"}}));
    EXPECT_EQ(decode(2, 0x03), (std::pair<int, Lines>{-1, {"[ERROR] ACK MSG TYPE ERROR 3"}}));
    EXPECT_EQ(decode(3, 0x55), (std::pair<int, Lines>{-1, {"[ERROR] ACK MSG TYPE ERROR 55"}}));
    EXPECT_EQ(decode(4, 0x05), (std::pair<int, Lines>{-1, {"[ERROR] PayloadLen ERROR 5"}}));
    EXPECT_EQ(decode(5, 0x01), (std::pair<int, Lines>{-1, {"[ERROR] PayloadLen ERROR 104"}}));
    EXPECT_EQ(decode(6, 0x02), (std::pair<int, Lines>{-1, {"[ERROR] MSG TYPE ERROR 255"}}));
    EXPECT_EQ(decode(7, 0x56), (std::pair<int, Lines>{-1, {"[ERROR] MSG TYPE ERROR 356"}}));
    EXPECT_EQ(decode(8, 0x07), (std::pair<int, Lines>{-1, {"[ERROR] ERRORCODE ERROR 7"}}));
    EXPECT_EQ(decode(9, 0x07), (std::pair<int, Lines>{-1, {"[ERROR] ERRORCODE ERROR 700"}}));
    EXPECT_EQ(decode(10, 0x5F),
              (std::pair<int, Lines>{-1, {"[ERROR] CHECKSUM ERROR 325e --- 325f"}}));
    EXPECT_EQ(decode(11, 0xB0),
              (std::pair<int, Lines>{-1, {"[ERROR] CHECKSUM ERROR 325e --- b05e"}}));
}

TEST(Zpx710pVncDecode, TheFirstFaultIsTold) {
    const LogText log;
    Bytes frame(12, 0xFF);
    EXPECT_EQ(ZPX710P_VNC_DecodeData(frame), -1);
    for (std::size_t offset = 0; offset < 10; ++offset) {
        frame[offset] = acknowledgement[offset];
        EXPECT_EQ(ZPX710P_VNC_DecodeData(frame), -1);
    }
    EXPECT_EQ(log.lines(), (Lines{"[ERROR] VNC_HEADER1 ERROR ff", "[ERROR] VNC_HEADER2 ERROR ff",
                                  "[ERROR] ACK MSG TYPE ERROR ff", "[ERROR] ACK MSG TYPE ERROR ff",
                                  "[ERROR] PayloadLen ERROR ffff", "[ERROR] PayloadLen ERROR ff04",
                                  "[ERROR] MSG TYPE ERROR ffff", "[ERROR] MSG TYPE ERROR 3ff",
                                  "[ERROR] ERRORCODE ERROR ffff", "[ERROR] ERRORCODE ERROR ff00",
                                  "[ERROR] CHECKSUM ERROR 325e --- ffff"}));
}

TEST(Zpx710pVncReceive, SilenceLastsTheTimeOutAndTheLastRead) {
    for (const auto& [timeout_ms, elapsed_ms] :
         {std::pair{500U, 600U}, {450U, 500U}, {99U, 100U}}) {
        const Bench bench({});
        VncBuffer buffer{};
        EXPECT_EQ(Vn_Framer_VNC(bench.handle(), buffer, timeout_ms), -1);
        EXPECT_EQ(bench.elapsed_ms(), elapsed_ms);
    }
}

TEST(Zpx710pVncReceive, AStreamThatNeverFitsEndsAtTheTimeOut) {
    const Bench bench({{0, Bytes(20'000, 0x24)}});
    VncBuffer buffer{};
    EXPECT_EQ(Vn_Framer_VNC(bench.handle(), buffer, 500), -1);
    EXPECT_GE(bench.elapsed_ms(), 500U);
    EXPECT_LE(bench.elapsed_ms(), 502U);
}

TEST(Zpx710pVncReceive, ChecksumBytesWithoutEndAreNotStoredBehindTheBuffer) {
    const LogText log;
    Bytes stream = sim::make_vnc_frame(0x01, 0x01, hex("03 55 00 00"));
    stream.resize(stream.size() - 2);
    stream.resize(8000, 0x00);
    const Bench bench({{0, stream}});
    VncBuffer buffer{};
    EXPECT_EQ(Vn_Framer_VNC(bench.handle(), buffer, 500), -1);
    EXPECT_TRUE(log.lines().empty());
}

TEST(Zpx710pVncReceive, TheChecksumMayFollowOtherBytes) {
    const LogText log;
    const Bench bench({{0, hex("56 4E 01 01 04 00 03 55 00 00 11 22 5E 32")}});
    VncBuffer buffer{};
    EXPECT_EQ(Vn_Framer_VNC(bench.handle(), buffer, 500), 0);
    EXPECT_EQ(log.lines(), Lines{"[INFO] complete GET1"});
    EXPECT_EQ(as_hex(std::span(buffer).first(14)), "56 4E 01 01 04 00 03 55 00 00 11 22 5E 32");
}

TEST(Zpx710pHelpers, UpperHalfBigEndian) {
    std::array<std::uint8_t, 2> out{};
    int16_to_big_endian(0x12345678, out);
    EXPECT_EQ(as_hex(out), "12 34");
    int16_to_big_endian(254, out);
    EXPECT_EQ(as_hex(out), "00 00");
}

TEST(Zpx710pHelpers, SyncFrame) {
    Bytes buffer(10);
    EXPECT_EQ(ZPX710P_Upgrade_EncodeSync(3, buffer), 10);
    EXPECT_EQ(as_hex(std::span(buffer).first(5)), "AA 03 01 00 00");
    const std::uint32_t crc = sim::module_crc32(hex("03 01 00 00"));
    EXPECT_EQ(buffer[5], static_cast<std::uint8_t>(crc >> 24));
    EXPECT_EQ(buffer[8], static_cast<std::uint8_t>(crc));
    EXPECT_EQ(buffer[9], 0x55);
}

}  // namespace
}  // namespace orbix::test
