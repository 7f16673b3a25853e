// The upgrade frame protocol: the host's side of the binary dialogue with an application-level
// boot loader. The host sends one command frame, the boot loader answers with one response frame.
//
//   0      1        2        3            5        5+N          9+N
//   0xAA   address  command  length N     payload  CRC-32       0x55
//                            big-endian            big-endian
//
// The CRC-32 (IEEE 802.3, started with 0) covers address to payload: 4+N bytes. A frame is N+10
// bytes long. All multi-byte fields are big-endian.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "core/firmware_file.h"
#include "core/kv_uart.h"

namespace orbix::upgrade {

inline constexpr std::uint8_t frame_head = 0xAA;
inline constexpr std::uint8_t frame_tail = 0x55;

/// Bytes of a frame that are not payload.
inline constexpr std::size_t frame_overhead = 10;

/// Command bytes.
enum class Command : std::uint8_t {
    address = 0x01,
    info = 0x02,
    erase = 0x03,
    firmware = 0x04,
    read = 0x11,
    format = 0x21,
    reboot = 0x31,
    boot_version = 0x71,
};

/// Return codes of this layer. A slave state other than 0 is passed up as it came.
enum Result : int {
    frame_malformed = 1,       ///< wrong head, tail, or length of a general acknowledgement
    frame_crc_wrong = 2,       ///< CRC of a response wrong, found by a decoder
    version_length_wrong = 5,  ///< boot-version answer whose payload is not 7 bytes
    receive_failed = 263,      ///< no buffer, no port, or the port vanished while waiting
    received_tail_wrong = 1026,
    received_crc_wrong = 1027,
};

/// What the boot loader is told of an image before it arrives.
struct FirmwareInfo {
    std::uint32_t leading = 0;       ///< neither sent nor used
    std::uint32_t size = 0;          ///< bytes
    std::uint32_t crc = 0;           ///< as `Kv_FW_CRC` returns it
    std::uint32_t load_address = 0;  ///< in the module's flash
    std::uint32_t reserved = 0;
};

/// A buffer for every command but a firmware block.
using CommandBuffer = std::array<std::uint8_t, 32>;

/// A buffer for every response.
using ResponseBuffer = std::array<std::uint8_t, 64>;

/// Writes a frame whose payload is the concatenation of `parts` and returns its length. The buffer
/// must hold the whole frame; the payload is at most 65535 bytes.
std::int32_t encode_frame(std::span<std::uint8_t> buffer, std::uint8_t address,
                          std::uint8_t command,
                          std::initializer_list<std::span<const std::uint8_t>> parts);

/// The encoders write one frame for the given device address and return its length in bytes.
std::int32_t Kv_Upgrade_EncodeAddr(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   std::uint32_t address);
std::int32_t Kv_Upgrade_EncodeInfo(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   const FirmwareInfo& info);
std::int32_t Kv_Upgrade_EncodeErase(std::uint8_t device, std::span<std::uint8_t> buffer);
/// At most 65531 bytes of data; the frame is 14 bytes longer.
std::int32_t Kv_Upgrade_EncodeFW(std::uint8_t device, std::span<std::uint8_t> buffer,
                                 std::span<const std::uint8_t> data, std::uint32_t sequence);
std::int32_t Kv_Upgrade_EncodeReboot(std::uint8_t device, std::span<std::uint8_t> buffer,
                                     std::uint8_t mode, std::uint8_t argument);
std::int32_t Kv_Upgrade_EncodeBootVer(std::uint8_t device, std::span<std::uint8_t> buffer);
std::int32_t Kv_Upgrade_EncodeFormat(std::uint8_t device, std::span<std::uint8_t> buffer,
                                     std::uint32_t address, std::uint32_t length);
std::int32_t Kv_Upgrade_EncodeRead(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   std::uint32_t address, std::uint32_t length);

/// Reads one response frame byte by byte, each read limited to `byte_timeout_ms`, without a limit
/// on the whole: a silent boot loader (one that erases, say) keeps it waiting, and so does a frame
/// whose CRC is wrong, which is never completed. It ends with `receive_failed` when the port has
/// vanished, and, with a `silence_limit_ms` other than 0, when nothing has arrived for that long.
/// Bytes past the end of the buffer are counted and not stored.
/// Returns 0, `received_tail_wrong` or `receive_failed`.
int receive_frame(SerialHandle handle, std::span<std::uint8_t> buffer, unsigned byte_timeout_ms,
                  unsigned silence_limit_ms = 0);

/// `receive_frame` with 500 ms a byte. A missing buffer or port is an ERROR line and
/// `receive_failed`.
int Kv_Upgrade_ReceiveFrame(SerialHandle handle, std::span<std::uint8_t> buffer);

/// Checks a general acknowledgement (payload of 4 bytes). Returns 0 or an error code, after an
/// ERROR line.
int Kv_Upgrade_DecodeMsg(std::span<const std::uint8_t> frame);

/// Checks a boot-version answer (payload of 7 bytes) and copies major, minor and patch.
int Kv_Upgrade_DecodeBootVer(std::span<const std::uint8_t> frame,
                             std::span<std::uint8_t, 3> version);

/// Checks a format answer (payload of 5 bytes; another length is logged and let pass) and copies
/// its result byte.
int Kv_Upgrade_DecodeFormatMsg(std::span<const std::uint8_t> frame,
                               std::span<std::uint8_t, 1> result);

/// The image CRC that modules check: CRC-32 over the size as 4 little-endian bytes, continued over
/// the file's content from its current position. `info` gives the size.
std::uint32_t Kv_FW_CRC(FirmwareFile& file, const FirmwareInfo& info);

}  // namespace orbix::upgrade
