#include "teseo/sta_decode.h"

#include "core/kv_util.h"

namespace orbix::sta8100 {

int Kv_NMEA_CMD_Composite(std::uint8_t byte, teseo::Sentence& sentence, std::uint32_t& length) {
    constexpr int good = 0;
    constexpr int too_long = 1;
    constexpr int bad_checksum = 2;
    constexpr int more = 3;

    using Step = teseo::Sentence::Step;
    const char character = static_cast<char>(byte);
    switch (sentence.step) {
        case Step::before_dollar:
            if (character == '$') {
                sentence.text = "$";
                sentence.step = Step::inside;
            }
            return more;
        case Step::inside:
            if (character == '\r') {
                sentence.step = Step::before_line_feed;
                return more;
            }
            if (sentence.text.size() < teseo::longest_sentence) {
                sentence.text += character;
                return more;
            }
            sentence.step = Step::before_dollar;
            return too_long;
        case Step::before_line_feed:
            sentence.step = Step::before_dollar;
            if (character != '\n') {
                return more;
            }
            length = static_cast<std::uint32_t>(sentence.text.size());
            return NMEA_CheckSum(sentence.text.c_str()) == 0 ? good : bad_checksum;
    }
    return more;
}

}  // namespace orbix::sta8100

namespace orbix::sta8089 {

namespace {

constexpr bool is_sentence_byte(std::uint8_t byte) {
    return (byte >= 0x21 && byte <= 0x7E) || byte == '\r' || byte == '\n';
}

}  // namespace

int Kv_NMEA_CMD_Composite(std::uint8_t byte, Sentence& sentence, std::uint32_t& length) {
    using Step = Sentence::Step;
    if (!is_sentence_byte(byte)) {
        length = 0;
        return -1;
    }
    const char character = static_cast<char>(byte);
    switch (sentence.step) {
        case Step::before_dollar:
            if (character == '$') {
                sentence.text = "$";
                sentence.step = Step::inside;
            }
            return 0;
        case Step::inside:
            if (character == '\r') {
                sentence.text += character;
                sentence.step = Step::before_line_feed;
                return 0;
            }
            if (sentence.text.size() < teseo::longest_sentence) {
                sentence.text += character;
                return 0;
            }
            sentence = {};
            return -1;
        case Step::before_line_feed:
            if (character == '\n') {
                sentence.text += character;
                length = static_cast<std::uint32_t>(sentence.text.size());
                sentence.step = Step::before_dollar;
                return 1;
            }
            sentence = {};
            return 0;
    }
    return 0;
}

}  // namespace orbix::sta8089
