// The NMEA sentence decoder of the STA8089 family.
#pragma once

#include <cstdint>
#include <string>

namespace orbix::sta8089 {

/// A sentence that is being received, and how far the decoder has come with it.
struct Sentence {
    enum class Step : std::uint8_t { before_dollar, inside, before_line_feed };

    Step step = Step::before_dollar;
    std::string text;  ///< from '$' on, with carriage return and line feed once complete
};

/// Takes one byte in. Returns 1 when the sentence is complete, with its `length`; 0 when more input
/// is needed; -1 for a byte that no sentence holds (a blank among them; `length` is 0, the sentence
/// stays as it is) or past 200 characters. The checksum is not tested.
int Kv_NMEA_CMD_Composite(std::uint8_t byte, Sentence& sentence, std::uint32_t& length);

}  // namespace orbix::sta8089
