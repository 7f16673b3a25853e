// The RX7040 family: the choice between its two ways of being flashed, the download through the
// chip's ROM loader, and the upgrade through the boot loader of firmware already on the module.
#pragma once

#include <string>
#include <string_view>

#include "core/kv_uart.h"

namespace orbix::rx7040 {

/// Chooses by the word after "-t": one that contains "UPG" or "upgrade" starts `upgrade_entry`,
/// else one that contains "DL" or "download" starts `download_entry`. Returns what the procedure
/// returns, or 258 for any other word or none.
int rx7040_entry(int argc, char** argv);

/// The download: loader package, then firmware package, both by XMODEM-1K. Returns 0 or -1; the
/// port stays open.
int download_entry(int argc, char** argv);

/// The application upgrade by command frames. Returns 0 or -1; the port stays open.
int upgrade_entry(int argc, char** argv);

/// Sends a text until an answer contains the expected one. Both times in ms; a read of less than
/// 10 ms is made 10 ms. Returns 0, or 1024 after `total_timeout`.
int download_Sync(SerialHandle handle, std::string_view send_text, std::string_view expected_text,
                  unsigned read_timeout, unsigned total_timeout);

/// Sends a package by XMODEM-1K, a loader without its header of 36 bytes. Returns 0, 263 when the
/// file cannot be opened, or the result of `xmodem_send`.
int download_SendFirmware(SerialHandle handle, const char* path, bool is_loader);

/// Waits at most `total_timeout` ms for the loader's verdict. Returns 0 for "success", 264 for
/// "failed", 1024 when neither came.
int download_firmware_check(SerialHandle handle, unsigned total_timeout);

/// The steps of the upgrade, each on an open port. They return 0 or an error code.

/// Catches the boot loader within 20 s. 1024: no answer; 1025: wrong second answer.
int upgrade_Sync(SerialHandle handle);

/// Asks the boot loader's version, "V<major>.<minor>.<patch>".
int upgrade_GetBootVer(SerialHandle handle, std::string& version);

/// Announces the image; `announced` becomes its size in bytes. 259: the file is not there; 263: it
/// cannot be opened.
int upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced);

int upgrade_EraseAPP_Flash(SerialHandle handle);

/// Sends the image in frames of 5120 bytes, each up to ten times (264). 263: it is not, or does not
/// stay, `announced` bytes long.
int upgrade_SendFirmware(SerialHandle handle, const char* path, int announced);

/// Starts the new application.
int upgrade_Reset(SerialHandle handle);

}  // namespace orbix::rx7040
