// The AG3352 family: the choice between its two ways of being flashed, and the upgrade through the
// application-level boot loader in the module's flash.
#pragma once

#include <cstdint>
#include <string>

#include "core/kv_uart.h"

namespace orbix::ag3352 {

/// Chooses by the word after "-t": one that contains "UPG" or "upgrade" starts `ag3352_upgrade`,
/// any other (or none) the download through the ROM loader. Returns what the mode returns.
int ag3352_entry(int argc, char** argv);

/// The application upgrade. Returns 0, or -1 on any failure.
int ag3352_upgrade(int argc, char** argv);

/// The download through the ROM loader and a download agent. Returns 0 or -1.
int ag3352_download(int argc, char** argv);

/// Reads flash back into files. Returns 0 or -1.
int ag3352_readback(int argc, char** argv);

/// Reads one region, both its ends multiples of 4096, into a new file. Returns 0 or -1.
int readback_flash_data(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                        const char* path);

/// The steps of the upgrade, each on an open port. They return 0 or an error code.

/// Catches the boot loader within 20 s. 1024: no answer; 1025: wrong second answer.
int Ag3352_Upgrade_Sync(SerialHandle handle);

/// Asks the boot loader's version, "V<major>.<minor>.<patch>".
int Ag3352_Upgrade_BootVer(SerialHandle handle, std::string& version);

/// Announces the image: size, CRC and load address 0x08009000. `announced` becomes the size.
int Ag3352_Upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced);

int Ag3352_Upgrade_EraseAPP_Flash(SerialHandle handle);

/// Sends the image of `announced` bytes in frames of 4096.
int Ag3352_Upgrade_SendFirmware(SerialHandle handle, const char* path, int announced);

/// Reboots into the new application.
int Ag3352_Upgrade_Reset(SerialHandle handle);

}  // namespace orbix::ag3352
