// The GNSS module evaluation board: an upgrade of its application by command frames, in the
// monitors' timing and without a reset.
#pragma once

#include <string>

#include "core/kv_uart.h"

namespace orbix::evb {

/// The upgrade. Returns 0 or -1.
int GNSS_MODULE_EVB_Upgrade(int argc, char** argv);

/// The steps, each on an open port. They return 0 or an error code.

/// Catches the boot loader within 20 s. 1024: no answer; 1025: wrong second answer.
int Kv_GNSS_MODULE_EVB_Sync(SerialHandle handle);

/// Asks the boot loader's version, "V<major>.<minor>.<patch>". 263: no answer within 3 s, or
/// another one.
int Kv_GNSS_MODULE_EVB_GetBootVer(SerialHandle handle, std::string& version);

/// Announces the image; `announced` becomes its size in bytes. 259: the file is not there; 263: it
/// cannot be opened, or the answer is another.
int Kv_GNSS_MODULE_EVB_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced);

int Kv_GNSS_MODULE_EVB_EraseAppFlash(SerialHandle handle);

/// Sends the image in frames of 5120 bytes, each once. 263: an answer is another, or the image is
/// not, or does not stay, `announced` bytes long.
int Kv_GNSS_MODULE_EVB_SendFirmwareBin(SerialHandle handle, const char* path, int announced);

}  // namespace orbix::evb
