// The steps that the boot loaders and the boot ROM of a Teseo chip have in common: the
// acknowledgement byte, and the raw transfer of an image.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/kv_uart.h"

namespace orbix::teseo {

/// The byte by which boot ROM and boot loaders agree to each step.
inline constexpr std::uint8_t ack = 0xCC;

/// The rate at which boot ROM and boot loaders are caught.
inline constexpr unsigned loader_baud = 115200;

/// Waits `timeout_ms` for a burst of at most `most` bytes (up to 1024) and judges the first one;
/// the others are dropped. Returns false after an ERROR line, for silence and for any byte but the
/// acknowledgement.
bool await_ack(SerialHandle handle, unsigned timeout_ms, std::size_t most = 1);

/// How an image travels unframed, and how long each answer may take, in ms.
struct RawTransfer {
    std::size_t piece;      ///< bytes between two acknowledgements
    std::size_t reply;      ///< bytes of an answer that are read; the first one counts
    unsigned piece_ack_ms;  ///< programming one piece
    unsigned crc_ack_ms;    ///< checking the whole image
};

/// Sends a file piece by piece and waits until the module has checked it. Where several bytes of an
/// answer are read, a verdict in one burst with the answer to the last piece is dropped. `file_len`
/// is what the PROGRESS lines are measured by. Returns 0, or -1 after an ERROR line.
int send_raw_image(SerialHandle handle, const char* path, int file_len,
                   const RawTransfer& transfer);

}  // namespace orbix::teseo
