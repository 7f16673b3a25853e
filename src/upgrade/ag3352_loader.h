// The ROM loader and the download agent of AG3352: the steps of AG3335 with this chip's values.
// None of them prints an ERROR line of its own; the mode that takes them says what failed.
#pragma once

#include <cstdint>

#include "ag3335/package.h"
#include "core/kv_uart.h"

namespace orbix::ag3352 {

/// The rate at which every ROM loader starts.
inline constexpr unsigned loader_baud = 115200;

/// Catches a module that is being reset, within about 40 s. Negative on failure, as all steps.
int ag3352_handshake(SerialHandle handle);

/// Writes a register of one of the two watchdogs.
int ag3352_disable_module_WDT(SerialHandle handle, std::uint32_t address, std::uint16_t value);

/// Tells the ROM loader to go on at another rate. The port's own rate is the caller's business.
int modify_baud_rate(SerialHandle handle, std::uint32_t baud);

/// Loads the agent into RAM. `length` is what the loader is told; the file goes out whole. A file
/// of another length cannot succeed, which a hint on standard error tells.
int ag3352_send_Da_file(SerialHandle handle, std::uint32_t load_address, const char* path,
                        std::uint32_t length);

int ag3352_jump_to_Da(SerialHandle handle, std::uint32_t load_address);

/// Asks the running agent for its flash's address, size and identifier.
int ag3352_sync_with_Da(SerialHandle handle);

/// Erases the flash from its start, all but its last 32 KiB.
int format_module_flash(SerialHandle handle);

/// Writes the selected images of a package.
int send_fw_file(SerialHandle handle, package::Package& package);

/// The way of both modes to a running agent: handshake, watchdogs off, rate, agent, jump, sync,
/// each with its announcement and, on failure, an ERROR line that names `entry`. `baud` is 115200
/// or 921600; another one is refused once the watchdogs are off. Returns whether all succeeded.
bool start_agent(SerialHandle handle, const char* entry, const char* agent_path, int baud);

}  // namespace orbix::ag3352
