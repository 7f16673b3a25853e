// The STA8089 family's sentence decoder, byte by byte.
#include "teseo/sta_decode.h"

#include <gtest/gtest.h>

#include <string_view>

namespace orbix::test {
namespace {

using sta8089::Kv_NMEA_CMD_Composite;
using sta8089::Sentence;

/// Feeds a text and returns what the last byte brought.
int feed(Sentence& sentence, std::string_view text, std::uint32_t& length) {
    int result = 0;
    for (const char character : text) {
        result = Kv_NMEA_CMD_Composite(static_cast<std::uint8_t>(character), sentence, length);
    }
    return result;
}

TEST(Sta8089Decoder, CompleteSentenceKeepsItsLineEnd) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "noise$GPTXT,1*00\r", length), 0);
    EXPECT_EQ(feed(sentence, "\n", length), 1);
    EXPECT_EQ(sentence.text, "$GPTXT,1*00\r\n");
    EXPECT_EQ(length, 13U);
}

TEST(Sta8089Decoder, ChecksumIsNotTested) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "$ANY*ZZ\r\n", length), 1);
    EXPECT_EQ(feed(sentence, "$\r\n", length), 1);
    EXPECT_EQ(length, 3U);
}

TEST(Sta8089Decoder, BytesOutsideTheCharacterSetLeaveTheSentenceAsItIs) {
    for (const int byte : {0x00, 0x0B, 0x1F, 0x20, 0x7F, 0x80, 0xFF}) {
        Sentence sentence;
        std::uint32_t length = 7;
        feed(sentence, "$GP", length);
        EXPECT_EQ(Kv_NMEA_CMD_Composite(static_cast<std::uint8_t>(byte), sentence, length), -1);
        EXPECT_EQ(length, 0U) << byte;
        EXPECT_EQ(feed(sentence, "X\r\n", length), 1);
        EXPECT_EQ(sentence.text, "$GPX\r\n") << byte;
    }
}

TEST(Sta8089Decoder, FirstAndLastCharacterOfTheSetAreTaken) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "$!~\r\n", length), 1);
    EXPECT_EQ(length, 5U);
}

TEST(Sta8089Decoder, TwoHundredCharactersAreTheMost) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "$" + std::string(199, 'A'), length), 0);
    EXPECT_EQ(feed(sentence, "\r\n", length), 1) << "200 and a line end still fit";
    EXPECT_EQ(length, 202U);

    EXPECT_EQ(feed(sentence, "$" + std::string(199, 'A'), length), 0);
    EXPECT_EQ(feed(sentence, "B", length), -1);
    EXPECT_EQ(feed(sentence, "\r\n", length), 0) << "it waits for a new dollar sign";
    EXPECT_EQ(feed(sentence, "$C\r\n", length), 1);
    EXPECT_EQ(sentence.text, "$C\r\n");
}

TEST(Sta8089Decoder, LineFeedBeforeTheCarriageReturnBelongsToTheSentence) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "$A\nB\r", length), 0);
    EXPECT_EQ(feed(sentence, "\n", length), 1);
    EXPECT_EQ(sentence.text, "$A\nB\r\n");
    EXPECT_EQ(length, 6U);
}

TEST(Sta8089Decoder, CarriageReturnWithoutLineFeedDropsTheSentence) {
    Sentence sentence;
    std::uint32_t length = 0;
    EXPECT_EQ(feed(sentence, "$A\rB", length), 0);
    EXPECT_EQ(feed(sentence, "\r\n", length), 0);
    EXPECT_EQ(feed(sentence, "$D\r\n", length), 1);
    EXPECT_EQ(sentence.text, "$D\r\n");
}

}  // namespace
}  // namespace orbix::test
