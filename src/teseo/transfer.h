// What the dialogues with Teseo receivers share: the image CRC that the modules check, the PROGRESS
// and SPEED lines, and the search for a synchronisation word.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace orbix::teseo {

/// The CRC-32 of an image file: over its size as 4 little-endian bytes, continued over its content.
/// Also stores the size in `file_len`. Returns 0 after an ERROR line when the path is absent (null
/// or empty) or the file cannot be opened; `file_len` then keeps its value. A file that cannot be
/// read to its end is reported on standard error and gives 0 as well.
std::uint32_t get_crc32_with_filesize(const char* path, std::int32_t& file_len);

/// The PROGRESS and SPEED lines after `sent` bytes of `file_len`. The rate is taken over the
/// seconds since the clock's first use, which is where the dialogue began.
void log_transfer(std::int32_t sent, std::int32_t file_len);

/// "ACK time out %d ms\n"
void log_ack_timeout(unsigned timeout_ms);

/// "ACK not expected [%02x]\n"
void log_ack_not_expected(std::uint8_t received);

/// Finds a word of 4 bytes in what arrives, across reads. A byte that does not continue the match
/// starts the search again behind it, so a word directly behind its own first byte is missed.
/// Modules repeat the word, and the dialogues repeat the question.
class WordSearch {
  public:
    explicit WordSearch(std::array<std::uint8_t, 4> word) : word_(word) {}

    /// Whether the word is complete within `bytes`. The rest behind it is dropped.
    bool found_in(std::span<const std::uint8_t> bytes);

  private:
    std::array<std::uint8_t, 4> word_;
    std::size_t matched_ = 0;
};

}  // namespace orbix::teseo
