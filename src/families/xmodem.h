// The sending side of XMODEM-1K with CRC, as RX7040's loaders take their packages.
//
// Source: Chuck Forsberg, "XMODEM/YMODEM Protocol Reference" (1988). What the loaders of this
// family have made of it: blocks are always of 1024 bytes, each 'C' asks for block 1, and a file
// whose length is a multiple of 1024 is followed by one more block that repeats the last one.
#pragma once

#include <cstdint>

#include "core/firmware_file.h"
#include "core/kv_uart.h"

namespace orbix::rx7040 {

/// One transfer.
struct XmodemContext {
    SerialHandle port;
    FirmwareFile& file;              ///< sent from its current position to its end
    std::uint32_t block_number = 0;  ///< of the block sent last, 0 before the first
    int total;                       ///< bytes to send, for the PROGRESS and SPEED lines
};

/// More than 10000 bytes that mean nothing, or the port vanished.
inline constexpr int xmodem_no_receiver = -203;
/// A block was refused 26 times in a row.
inline constexpr int xmodem_refused = -205;
/// The file could not be read to its end.
inline constexpr int xmodem_file_unreadable = 263;

/// Sends the file and ends the transfer. A receiver that stays silent is waited for without a
/// limit, and so is its answer to the end of the transfer; only a port that vanished ends the wait.
/// Returns 0 or one of the codes above.
int xmodem_send(XmodemContext& context);

}  // namespace orbix::rx7040
