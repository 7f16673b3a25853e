// The dialogues by which an image is written into an HD8xx0 module, on a port that is open, and the
// frames that two of them use.
//
//   0     1     2      3   4           6        6+N         7+N
//   0xF1  0xD9  class  id  length N    payload  checksum A  checksum B
//                          little-endian
//
// Checksums A and B are those of Fletcher's algorithm in 8 bits (as in RFC 1145), over class to
// payload. A module answers a frame by class 0x05 with id 0x01 (ACK) or 0x00 (NAK) and, as payload,
// the class and the id of the frame it answers.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/kv_uart.h"

namespace orbix::hd8xx0 {

/// The longest frame that the decoder accepts: 4 bytes of payload.
inline constexpr std::size_t longest_reply = 12;
using ReplyFrame = std::array<std::uint8_t, longest_reply>;

/// What a byte did to the frame that the decoder gathers.
enum DecoderResult : int {
    frame_complete = 0,
    frame_bad = 1,
    frame_incomplete = 2,
};

/// Which processor of a dual-processor module is addressed.
enum class Processor : std::uint8_t { master = 2, slave = 4 };

/// Checksum B * 256 + A over the bytes from index 2 on. 0 for an absent buffer or one of less than
/// 4 bytes.
constexpr std::uint16_t Kv_Check_Korvane(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 4) {
        return 0;
    }
    std::uint8_t a = 0;
    std::uint8_t b = 0;
    for (const std::uint8_t byte : bytes.subspan(2)) {
        a = static_cast<std::uint8_t>(a + byte);
        b = static_cast<std::uint8_t>(b + a);
    }
    return static_cast<std::uint16_t>(b * 256 + a);
}

/// Takes one byte of a reply. The decoder keeps its state from call to call, there is one in the
/// program; `frame` gathers the bytes and must be the same until a frame is complete. Returns
/// `frame_complete` with `length` set, `frame_bad` (it then waits for a new frame), or
/// `frame_incomplete`. A payload of 5 bytes or more is bad: no reply of this protocol has one.
int Kv_FWUP_STEP_Composite(std::uint8_t byte, ReplyFrame& frame, std::size_t& length);

/// Puts the decoder to its initial state; once at each run.
void reset_frame_decoder();

/// Waits for a reply: 3 reads of its length, 1000 ms each. A flash-ID answer of the same length
/// will do as well, whatever it holds. Returns 0, or -1 when it did not come.
int fw_update_ack_check(SerialHandle handle, std::span<const std::uint8_t> expected);

/// Asks the boot loader, up to 3 times, 1000 ms each, for the text that has "BOOT" in it. Returns
/// 0, or -1 after an ERROR line.
int is_in_boot_mode(SerialHandle handle);

/// Writes an image block by block through the boot loader at 460800 baud; its first block goes
/// last. `variant` is the chip's (0 to 2). With a `boot_command_flag` of 0 the running firmware is
/// told to enter the boot loader first. Returns 0, -1, or 512 when a block was refused 4 times.
int fw_update_boot(SerialHandle handle, std::span<const std::uint8_t> image, int variant,
                   int boot_command_flag);

/// Has the running firmware receive an image as a YMODEM batch at 460800 baud. Returns 0, -1 before
/// the first block is taken, 770 or 771 for a block (the last one) that was refused, 772 when the
/// end of the batch was not confirmed.
int fw_update_user(SerialHandle handle, std::span<const std::uint8_t> image);

/// Updates one processor of a dual-processor module by the NMEA-command upgrade. Returns 0 or -1.
int fw_update_master(SerialHandle handle, std::span<const std::uint8_t> image, Processor processor);

}  // namespace orbix::hd8xx0
