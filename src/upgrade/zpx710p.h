// The ZPX710P family. A module carries several processors: the main controller, a GNSS receiver and
// a LoRa radio. The main controller can be written through the boot loader in its ROM (the download
// mode); each of the three can be upgraded through an application-level boot loader (the upgrade
// mode), the receiver and the radio with the main controller passing the bytes on.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "core/kv_uart.h"
#include "upgrade/framed_upgrade.h"

namespace orbix::zpx710p {

/// The word after "-t" contains neither a mode nor, for the upgrade mode, a processor.
inline constexpr int mode_unusable = 258;

/// Chooses by the word after "-t": one that contains "UPG" or "upgrade" starts `ZPX710P_Upgrade`,
/// one that contains "DL" or "download" starts `ZPX710P_Download`. There is no default: any other
/// word, or none, is `mode_unusable`. Returns what the mode returns.
int zpx710p_entry(int argc, char** argv);

/// Writes an image into the main controller from address 0x08000000 on, through its ROM boot loader
/// (the STM32 system-memory boot loader's USART protocol, ST application note AN3155, at even
/// parity). Returns 0, -1, or `upgrade::firmware_not_opened`.
int ZPX710P_Download(int argc, char** argv);

/// The steps of the download, each on an open port at even parity. They return 0 or -1; the two
/// that read the image also return `upgrade::firmware_not_opened`.

/// Sends 0x7F until it is acknowledged. 101 refusals end it; silence does not.
int ZPX710P_Handshake(SerialHandle handle);

/// Sends a command byte with its complement, up to 6 times, until it is acknowledged.
int ZPX710P_SendCmd(SerialHandle handle, std::uint8_t command);

/// Sends at most 255 bytes with their XOR checksum, up to 6 times, until they are acknowledged.
int ZPX710P_SendData(SerialHandle handle, std::span<const std::uint8_t> data);

/// Erases one page of 2048 bytes after the other, as many as the image needs. The number of pages
/// is counted in 8 bits.
int ZPX710P_Erase(SerialHandle handle, const char* path);

/// Writes the image in blocks of at most 240 bytes.
int ZPX710P_SendFW(SerialHandle handle, const char* path);

/// Writes the upper half of a 32-bit value, most significant byte first. The erase sends its page
/// numbers this way, so that they are 0 for every page; the modules count the pages themselves.
void int16_to_big_endian(std::uint32_t value, std::span<std::uint8_t, 2> out);

/// A processor of the module, as the upgrade mode sees it.
struct Processor {
    const char* mode_word;        ///< chosen by a "-t" word that contains it
    bool behind_main_controller;  ///< reached only after a pass-through request
    bool tells_boot_version;
    upgrade::FramedTarget frames;
};

/// All processors, in the order in which the "-t" word is searched for them.
extern const std::array<Processor, 3> processors;

/// The application upgrade. Returns 0, `mode_unusable`, or the code of the step that failed. A port
/// that cannot be opened is an ERROR line and 0; front ends have come to rely on it.
int ZPX710P_Upgrade(int argc, char** argv);

/// The steps of the upgrade, each on an open port. They return 0 or an error code.

/// Has the bytes passed through to the processor where it needs that, within 20 s (else 1024), then
/// the handshake.
int ZPX_Upgrade_Sync(SerialHandle handle, const Processor& processor);

/// Catches the boot loader within 20 s (else 1024) and has it confirm within 2 s (else 1025).
int ZPX_Upgrade_HandShake(SerialHandle handle);

/// Asks the boot loader's version, "V<major>.<minor>.<patch>".
int ZPX_Upgrade_GetBootVer(SerialHandle handle, const Processor& processor, std::string& version);

/// Announces the image: size, CRC and load address. `announced` becomes the size in bytes.
int ZPX_Upgrade_SendFirmwareInfo(SerialHandle handle, const Processor& processor, const char* path,
                                 int& announced);

int ZPX_Upgrade_EraseAPP_Flash(SerialHandle handle, const Processor& processor);

/// Sends the image of `announced` bytes in frames of the processor's block size.
int ZPX_Upgrade_SendFirmware(SerialHandle handle, const Processor& processor, const char* path,
                             int announced);

/// Reboots the processor into the new application.
int ZPX_Upgrade_Reset(SerialHandle handle, const Processor& processor);

/// Writes an upgrade frame with command 0x01 and no payload, and returns its length, 10 bytes. No
/// step sends it.
std::int32_t ZPX710P_Upgrade_EncodeSync(std::uint8_t address, std::span<std::uint8_t> buffer);

}  // namespace orbix::zpx710p
