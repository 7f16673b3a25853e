// The HD8xx0 frames: checksum, and the decoder state by state.
#include <gtest/gtest.h>

#include "families/fwup.h"
#include "families/fwup_frames.h"
#include "korvane_frames.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using hd8xx0::frame_bad;
using hd8xx0::frame_complete;
using hd8xx0::frame_incomplete;

class Hd8xx0Decoder : public ::testing::Test {
  protected:
    Hd8xx0Decoder() { hd8xx0::reset_frame_decoder(); }

    int feed(const Bytes& bytes) {
        int result = frame_incomplete;
        for (const std::uint8_t byte : bytes) {
            result = hd8xx0::Kv_FWUP_STEP_Composite(byte, frame_, length_);
        }
        return result;
    }

    hd8xx0::ReplyFrame frame_{};
    std::size_t length_ = 0;
};

TEST(Hd8xx0Checksum, CoversEverythingBehindTheSyncBytes) {
    const Bytes frame = hex("F1 D9 05 01 02 00 F4 05 01 18");
    EXPECT_EQ(hd8xx0::Kv_Check_Korvane(std::span(frame).first(8)), 0x1801);
    EXPECT_EQ(hd8xx0::Kv_Check_Korvane({}), 0);
    EXPECT_EQ(hd8xx0::Kv_Check_Korvane(std::span(frame).first(3)), 0);
    EXPECT_EQ(hd8xx0::Kv_Check_Korvane(std::span(frame).first(4)), 0x0B06);
}

TEST(Hd8xx0Checksum, AgreesWithTheModules) {
    for (std::size_t size = 0; size < 300; size += 7) {
        const Bytes payload = random_image(size, 3);
        const Bytes frame = sim::make_korvane_frame(0xF4, 0x05, payload);
        const auto body = std::span(frame).first(frame.size() - 2);
        EXPECT_EQ(hd8xx0::Kv_Check_Korvane(body),
                  frame[frame.size() - 2] + frame[frame.size() - 1] * 256);
    }
}

TEST_F(Hd8xx0Decoder, FrameIsCompleteWithItsLastByte) {
    const Bytes reply = hex("F1 D9 05 01 02 00 F4 05 01 18");
    for (std::size_t at = 0; at + 1 < reply.size(); ++at) {
        EXPECT_EQ(feed({reply[at]}), frame_incomplete) << at;
    }
    EXPECT_EQ(feed({reply.back()}), frame_complete);
    EXPECT_EQ(length_, reply.size());
    EXPECT_TRUE(std::equal(reply.begin(), reply.end(), frame_.begin()));
}

TEST_F(Hd8xx0Decoder, PayloadsOfNoneToFourBytesAreTaken) {
    for (std::size_t size = 0; size <= 4; ++size) {
        EXPECT_EQ(feed(sim::make_korvane_frame(0xF4, 0x07, Bytes(size, 0xF1))), frame_complete);
        EXPECT_EQ(length_, size + 8);
    }
}

TEST_F(Hd8xx0Decoder, PayloadOfFiveBytesOrMoreIsBadAtItsLength) {
    EXPECT_EQ(feed(hex("F1 D9 0A 04 05 00")), frame_bad);
    EXPECT_EQ(feed(hex("F1 D9 0A 04 00 01")), frame_bad);
    EXPECT_EQ(feed(hex("F1 D9 0A 04 FF FF")), frame_bad);
    EXPECT_EQ(feed(hex("F1 D9 05 01 02 00 F4 05 01 18")), frame_complete) << "it starts anew";
}

TEST_F(Hd8xx0Decoder, BytesInFrontAreSteppedOver) {
    EXPECT_EQ(feed(hex("00 24 47 D9 05")), frame_incomplete);
    EXPECT_EQ(feed(hex("F1 D9 05 01 02 00 F4 05 01 18")), frame_complete);
}

TEST_F(Hd8xx0Decoder, SecondSyncByteMustFollowTheFirst) {
    EXPECT_EQ(feed(hex("F1 F1")), frame_bad);
    EXPECT_EQ(feed(hex("D9 05 01")), frame_incomplete) << "the second F1 was not a beginning";
    EXPECT_EQ(feed(hex("F1 D9 05 01 02 00 F4 05 01 18")), frame_complete);
}

TEST_F(Hd8xx0Decoder, WrongChecksumIsBadInEitherByte) {
    EXPECT_EQ(feed(hex("F1 D9 05 01 02 00 F4 05 02 18")), frame_bad);
    EXPECT_EQ(feed(hex("F1 D9 05 01 02 00 F4 05 01 19")), frame_bad);
}

TEST(Hd8xx0Block, WhatLiesBehindTheImageIsZero) {
    // On the heap, so that a read past its end is seen by the sanitizers.
    const Bytes image = random_image(1500);
    Bytes expected(image.begin() + 1024, image.end());
    expected.resize(1024);
    const auto block = hd8xx0::image_block(image, 1024);
    EXPECT_TRUE(std::equal(block.begin(), block.end(), expected.begin(), expected.end()));
    for (const std::size_t offset : {1500U, 1501U, 2048U, 1'000'000U}) {
        const auto behind = hd8xx0::image_block(image, offset);
        EXPECT_TRUE(
            std::all_of(behind.begin(), behind.end(), [](std::uint8_t byte) { return byte == 0; }));
    }
    EXPECT_EQ(hd8xx0::image_block({}, 0)[0], 0);
}

TEST(Hd8xx0Finder, ByteThatBreaksAMatchMayBeginTheNext) {
    const Bytes word = hex("F1 D9 05");
    hd8xx0::SequenceFinder finder(word);
    std::size_t found = 0;
    for (const std::uint8_t byte : hex("F1 F1 D9 F1 D9 05 05 F1 D9 05")) {
        found += finder.push(byte) ? 1 : 0;
    }
    EXPECT_EQ(found, 2U);
}

}  // namespace
}  // namespace orbix::test
