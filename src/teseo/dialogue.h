// What the dialogues with the boot loaders and the boot ROM of a Teseo chip have in common: the
// acknowledgement byte, the search for an answer word, the image CRC, the raw transfer of an image
// and its PROGRESS and SPEED lines.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/kv_uart.h"

namespace orbix::teseo {

/// The byte by which boot ROM and boot loaders agree to each step.
inline constexpr std::uint8_t ack = 0xCC;

/// The rate at which boot ROM and boot loaders are caught.
inline constexpr unsigned loader_baud = 115200;

/// Waits `timeout_ms` for a burst of at most `most` bytes (up to 1024) whose first byte is the
/// acknowledgement. Silence and any other byte are an ERROR line and false.
bool await_ack(SerialHandle handle, unsigned timeout_ms, std::size_t most = 1);

/// Looks for a 4-byte word among received bytes, across reads. A byte that does not fit sets the
/// search back to the word's start and is not itself tried as a first byte.
class WordSearch {
  public:
    explicit WordSearch(const std::array<std::uint8_t, 4>& word) : word_(word) {}

    /// Takes received bytes in; true when the word's last byte is among them.
    bool found_in(std::span<const std::uint8_t> received);

  private:
    std::array<std::uint8_t, 4> word_;
    std::size_t matched_ = 0;
};

/// The CRC that the module checks: CRC-32 over the file's size as 4 little-endian bytes, continued
/// over its content. Sets `file_len` to the size in bytes. Returns 0 after an ERROR line when the
/// path is empty or the file cannot be opened, and leaves `file_len` alone.
std::uint32_t get_crc32_with_filesize(const char* path, int& file_len);

/// The PROGRESS and SPEED lines behind each acknowledged piece. The rate is counted over the
/// clock's whole time, not over the transfer's.
void log_transfer(int done, int total);

/// How an image travels unframed, and how long each answer may take, in ms.
struct RawTransfer {
    std::size_t piece;      ///< bytes between two acknowledgements
    std::size_t reply;      ///< bytes of an answer that are read; the first one counts
    unsigned piece_ack_ms;  ///< programming one piece
    unsigned crc_ack_ms;    ///< checking the whole image
};

/// Sends a file piece by piece and waits until the module has checked it. `file_len` is what the
/// PROGRESS lines are measured by. Returns 0 or -1.
int send_raw_image(SerialHandle handle, const char* path, int file_len,
                   const RawTransfer& transfer);

}  // namespace orbix::teseo
