// The VNC framing, by which the main controller of a ZPX710P module is asked to pass the bytes of
// an upgrade through to another of its processors.
//
//   0     1     2      3       4         6        6+L  7+L
//   'V'   'N'   group  number  length L  payload  A    B
//                              little-endian      8-bit Fletcher checksum
//
// The checksum covers group to payload: L+4 bytes. Group and number together are the message id.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/kv_uart.h"

namespace orbix::zpx710p {

/// Bytes of a frame that are not payload.
inline constexpr std::size_t vnc_overhead = 8;

/// The longest payload that a frame from the module may announce.
inline constexpr std::size_t vnc_longest_payload = 1024;

/// Message ids: group in the upper byte, number in the lower. The request's payload is the
/// processor and three zeros; the acknowledgement's is the id that it answers, group first, and an
/// error code of 16 bits, least significant byte first.
inline constexpr std::uint16_t vnc_pass_through = 0x0355;
inline constexpr std::uint16_t vnc_acknowledgement = 0x0101;

/// A buffer for every frame from the module.
using VncBuffer = std::array<std::uint8_t, vnc_longest_payload + vnc_overhead>;

/// The 8-bit Fletcher checksum: A + 256 * B, where A sums the bytes and B sums A after each byte,
/// both modulo 256.
std::uint16_t ZPX710P_VNC_Check_Fletcher(std::span<const std::uint8_t> bytes);

/// Writes a frame and returns its length. The buffer must hold the payload and 8 bytes more.
std::int32_t ZPX710P_VNC_EncodeData(std::span<std::uint8_t> buffer, std::uint16_t id,
                                    std::span<const std::uint8_t> payload);

/// Receives an acknowledgement of a pass-through request within `timeout_ms`. Returns 0, or -1 on a
/// time-out or, after an ERROR line, at a byte that does not belong to one.
int Vn_Framer_VNC(SerialHandle handle, VncBuffer& buffer, unsigned timeout_ms);

/// Checks an acknowledgement of a pass-through request, of 12 bytes. Returns 0, or -1 after an
/// ERROR line.
int ZPX710P_VNC_DecodeData(std::span<const std::uint8_t> frame);

}  // namespace orbix::zpx710p
