// The NMEA sentence decoders of the STA8100 and STA8089 families. Both take one byte at a time;
// they differ in what they let pass and in what they return.
#pragma once

#include <cstdint>
#include <string>

namespace orbix::teseo {

/// A sentence that is being received, and how far the decoder has come with it.
struct Sentence {
    enum class Step : std::uint8_t { before_dollar, inside, before_line_feed };

    Step step = Step::before_dollar;
    std::string text;  ///< from '$' on; a complete one stays until the next begins
};

/// How many characters of a sentence are kept, line end left out.
inline constexpr std::size_t longest_sentence = 200;

}  // namespace orbix::teseo

namespace orbix::sta8100 {

/// Takes one byte in. Returns 0 when the sentence is complete, with its `length` (without the line
/// end), and its checksum good; 1 when it is too long; 2 when it is complete and its checksum is
/// bad or absent; 3 when more input is needed. A '$' within a sentence is a character like any
/// other.
int Kv_NMEA_CMD_Composite(std::uint8_t byte, teseo::Sentence& sentence, std::uint32_t& length);

}  // namespace orbix::sta8100

namespace orbix::sta8089 {

using teseo::Sentence;

/// Takes one byte in. Returns 1 when the sentence is complete, with its `length` (carriage return
/// and line feed included); 0 when more input is needed; -1 for a byte that no sentence holds (a
/// blank among them; `length` is 0, the sentence stays as it is) or past 200 characters. The
/// checksum is not tested.
int Kv_NMEA_CMD_Composite(std::uint8_t byte, Sentence& sentence, std::uint32_t& length);

}  // namespace orbix::sta8089
