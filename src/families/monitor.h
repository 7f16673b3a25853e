// The two monitor variants: an upgrade of the application or of the boot image by command frames,
// after a reset that the tool asks for or that a hand does.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "core/kv_uart.h"

namespace orbix::monitor {

/// The upgrade of a module of the first or the second variant. They differ only in the header of
/// the reset acknowledgement. Both return 0 or -1.
int monitor1_entry(int argc, char** argv);
int monitor2_entry(int argc, char** argv);

/// What acknowledgements of a variant begin with.
struct ResetHeader {
    std::uint8_t first;
    std::uint8_t second;
};

/// Asks the running application for a restart into its boot loader. Returns 0, 258 for an
/// acknowledgement of something else, or 1024 when no good one came.
int Kv_Upgrade_SoftReset(SerialHandle handle, ResetHeader header);

/// Reads a frame of the reset dialogue within 200 ms and gives its payload. Returns 0 or 1024.
///
///   0 .. 1   2      3   4 .. 5          6        6+N  7+N
///   header   class  id  length N, LE    payload  A    B
///
/// A and B are the 8-bit Fletcher pair over class to payload.
int Kv_Upgrade_RecvAndParseRspFormat2(SerialHandle handle, ResetHeader header,
                                      std::vector<std::uint8_t>& payload);

/// The 8-bit Fletcher pair A + B * 256 as the Internet protocols define it for 8 bits modulo 256:
/// A sums the bytes, B sums the A's (RFC 1145).
std::uint16_t Vn_Check_Fletcher(std::span<const std::uint8_t> bytes);

/// The steps of the upgrade, each on an open port. They return 0 or an error code.

/// Catches the boot loader within 20 s. 1024: no answer; 1025: wrong second answer.
int Kv_Upgrade_Sync(SerialHandle handle);

/// Announces the image as an application or a boot image, as the mode's word says; `announced`
/// becomes its size in bytes. 259: the file is not there; 263: it cannot be opened, or the answer
/// is another.
int Kv_Upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, const std::string& mode,
                                int& announced);

int Kv_Upgrade_EraseFlash(SerialHandle handle);

/// Sends the image in frames of 5120 bytes, each once. 263: an answer is another, or the image is
/// not, or does not stay, `announced` bytes long.
int Kv_Upgrade_SendFirmwareBin(SerialHandle handle, const char* path, int announced);

}  // namespace orbix::monitor
