// The steps of an application upgrade by upgrade frames, shared by the families whose boot loaders
// differ only in the values below: boot version, firmware information, erase, firmware, reset.
#pragma once

#include <cstdint>
#include <string>

#include "core/kv_uart.h"

namespace orbix::upgrade {

/// What differs between the boot loaders.
struct FramedTarget {
    std::uint8_t address;        ///< device address byte of every frame
    std::uint32_t load_address;  ///< announced with the firmware information
    std::size_t block_size;      ///< bytes of firmware in a frame
    std::uint8_t reboot_mode;
    bool logs_whole_record;  ///< size and load address are logged beside the CRC
};

inline constexpr int firmware_not_accessible = 259;
inline constexpr int firmware_not_opened = 263;
inline constexpr int response_refused = 264;

/// How often a firmware frame is sent before the transfer is given up.
inline constexpr int firmware_attempts = 10;

/// Each step sends its frame, waits 20 ms and takes the response. All return 0,
/// `response_refused` after an ERROR line when the response says no, or the code of a reception
/// that failed.
int get_boot_version(SerialHandle handle, const FramedTarget& target, std::string& version);

/// Announces the image. `announced` becomes its size, in bytes. Also returns
/// `firmware_not_accessible` or `firmware_not_opened`.
int send_firmware_info(SerialHandle handle, const FramedTarget& target, const char* path,
                       int& announced);

int erase_application(SerialHandle handle, const FramedTarget& target);

/// Sends the image in frames of `block_size` bytes, numbered from 0, each up to
/// `firmware_attempts` times, with PROGRESS and SPEED lines. Also returns `firmware_not_opened`,
/// with a hint where the file is not, or does not stay, `announced` bytes long.
int send_firmware(SerialHandle handle, const FramedTarget& target, const char* path, int announced);

int reset_module(SerialHandle handle, const FramedTarget& target);

}  // namespace orbix::upgrade
