// The STA8100 family's sentence decoder, byte by byte.
#include <gtest/gtest.h>

#include <string_view>

#include "teseo/sta_decode.h"

namespace orbix::test {
namespace {

constexpr int good = 0;
constexpr int too_long = 1;
constexpr int bad = 2;
constexpr int more = 3;

class Sta8100Decoder : public ::testing::Test {
  protected:
    /// Feeds a text, of which every byte but the last must ask for more, and returns what the last
    /// one brought.
    int feed(std::string_view text) {
        int result = more;
        for (const char character : text) {
            EXPECT_EQ(result, more);
            result = sta8100::Kv_NMEA_CMD_Composite(static_cast<std::uint8_t>(character), sentence,
                                                    length);
        }
        return result;
    }

    teseo::Sentence sentence;
    std::uint32_t length = 77;
};

TEST_F(Sta8100Decoder, CompleteSentenceComesWithoutItsLineEnd) {
    EXPECT_EQ(feed("noise\r\n"), more);
    EXPECT_EQ(feed("$PSTMFWUPGRADE*5B\r"), more);
    EXPECT_EQ(length, 77U);
    EXPECT_EQ(feed("\n"), good);
    EXPECT_EQ(sentence.text, "$PSTMFWUPGRADE*5B");
    EXPECT_EQ(length, 17U);
}

TEST_F(Sta8100Decoder, BadAndAbsentChecksumsAreToldAlike) {
    EXPECT_EQ(feed("$PSTMFWUPGRADE*5C\r\n"), bad);
    EXPECT_EQ(sentence.text, "$PSTMFWUPGRADE*5C");
    EXPECT_EQ(feed("$PSTMFWUPGRADE\r\n"), bad);
    EXPECT_EQ(feed("$PSTMFWUPGRADE*XY\r\n"), bad);
    EXPECT_EQ(feed("$\r\n"), bad);
    EXPECT_EQ(length, 1U);
}

TEST_F(Sta8100Decoder, AnyByteIsPartOfASentence) {
    EXPECT_EQ(feed(std::string_view("$A B\n\x01\xFF$C\r\n", 11)), bad);
    EXPECT_EQ(sentence.text, "$A B\n\x01\xFF$C");
}

TEST_F(Sta8100Decoder, TwoHundredCharactersAreTheMost) {
    EXPECT_EQ(feed("$" + std::string(199, 'A')), more);
    EXPECT_EQ(feed("\r\n"), bad) << "200 characters still fit";
    EXPECT_EQ(length, 200U);

    EXPECT_EQ(feed("$" + std::string(199, 'A') + "B"), too_long);
    EXPECT_EQ(sentence.text, "$" + std::string(199, 'A'));
    EXPECT_EQ(feed("\r\n"), more) << "it waits for a new dollar sign";
    EXPECT_EQ(feed("$C\r\n"), bad);
    EXPECT_EQ(sentence.text, "$C");
}

TEST_F(Sta8100Decoder, CarriageReturnWithoutLineFeedDropsTheSentence) {
    EXPECT_EQ(feed("$A\r$\r\n"), more);
    EXPECT_EQ(feed("$D\r\n"), bad);
    EXPECT_EQ(sentence.text, "$D");
}

}  // namespace
}  // namespace orbix::test
