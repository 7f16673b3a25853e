// The download through the boot ROM of a Teseo chip, and the STA9100 entry. The boot ROM takes a
// small boot loader into RAM and starts it; that one erases and programs the flash. STA9100 and
// STA8100 use it in upgrade mode 1, STA8089 in upgrade mode 0.
#pragma once

#include "core/kv_uart.h"

namespace orbix::sta9100 {

/// The STA9100 family's entry. Returns 0, 260 when the port cannot be opened, -1 on other failures.
int sta9100_upgrade(int argc, char** argv);

/// The whole download on an open port, at 115200. `mode` is 0 for the STA8089 dialogue; any other
/// value is the STA9100 one. Returns 0, or -1 after the failing step's ERROR line.
int process_sta9100_upgrade(SerialHandle handle, const char* firmware_path, int mode);

/// The steps of the download, each 0 or -1, in the upgrade mode of the last
/// `process_sta9100_upgrade` (1 before any).

/// Repeats the sync word until the boot ROM answers, 100 times.
int Kv_Sync_Module(SerialHandle handle);

/// Confirms the rate `baud` with the boot ROM. The host's own port keeps its rate.
int Kv_Change_Baudrate(SerialHandle handle, unsigned baud);

/// Loads the RAM boot loader and starts it.
int Kv_Send_Bootloader(SerialHandle handle);

/// Describes the image to the RAM boot loader, waits until it has erased, and sends the image.
int Kv_Send_Firmware(SerialHandle handle, const char* firmware_path);

}  // namespace orbix::sta9100
