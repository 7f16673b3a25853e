#include "teseo/sta_decode.h"

namespace orbix::sta8089 {

namespace {

constexpr std::size_t longest_sentence = 200;

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
            if (sentence.text.size() < longest_sentence) {
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
