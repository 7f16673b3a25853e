// The AG3335 family: a package of images written through the mask-ROM loader and a download agent.
// Two generations of agents exist, told apart by the size of the agent file: the old one speaks
// single bytes, the new one frames.
#pragma once

#include <cstdint>
#include <string>

#include "ag3335/package.h"
#include "core/kv_uart.h"

namespace orbix::ag3335 {

/// Writes a package. Returns 0, or -1 on any failure.
int ag3335_upgrade(int argc, char** argv);

/// Reads flash back into files. Returns 0 or -1.
int ag3335_readback(int argc, char** argv);

/// The rate of the mask-ROM loader.
inline constexpr unsigned loader_baud = 115200;

/// The steps, in the order of a run, each on an open port. They announce themselves with an INFO
/// line and return 0, or -1 after an ERROR line (a few short answers fail without one).

/// Whether a module of that name must be restarted by `soft_reset` (its first 12 characters count).
bool needs_soft_reset(const char* model);

/// Restarts running firmware into its loader, on a port of its own: sends the vendor's reboot
/// sentence until the module answers. There is no limit but the port's own failure.
int soft_reset(const std::string& port, unsigned baud);

/// Waits about 40 s for a module that is being reset. Returns 1 on success.
int ag3335_handshake(SerialHandle handle);

/// Switches the watchdog off, which would cut the download short.
int ag3335_disable_module_WDT(SerialHandle handle);

/// The size of a file in bytes, or -1 (the reason goes to standard error).
int get_file_size(const char* path);

/// Loads the agent into RAM. An agent of more than 65536 bytes is refused before a byte is sent.
/// The download rate plays no part.
int ag3335_send_Da_file(SerialHandle handle, const char* da_path, unsigned baud);

/// 1 when `ag3335_send_Da_file` has sent a new agent in this run, else 0.
int ag3335_Get_Da_Type();

/// Forgets the kind of agent; once at the start of each run.
void ag3335_forget_Da_Type();

int ag3335_jump_to_Da(SerialHandle handle);

/// Synchronises with the old or the new agent and leaves both sides at `baud`.
int ag3335_sync_with_Da(SerialHandle handle, unsigned baud);
int ag3335_sync_with_New_Da(SerialHandle handle, unsigned baud);

/// What upgrade and readback have in common, each step with an ERROR line that names `driver`.
/// Both return whether all succeeded.

/// Restarts running firmware into its loader.
bool restart_into_loader(const char* driver, const std::string& port, unsigned baud);

/// From the handshake to the jump into the agent.
bool start_agent(SerialHandle handle, const char* driver, const char* da_path, unsigned baud);

/// Erases `length` bytes from the start of the flash.
int format_module_flash(SerialHandle handle, std::uint32_t length);
int format_module_flash_New_Da(SerialHandle handle, std::uint32_t length);

/// Writes the selected images of a package.
int send_fw_file(SerialHandle handle, package::Package& package);
int send_fw_file_New_Da(SerialHandle handle, package::Package& package);

/// Read a region, both its ends multiples of 4096, into a new file; with the old or the new agent.
/// Return 0 or -1; the file keeps what was read.
int readback_flash_data(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                        const char* path);
int readback_flash_data_New_Da(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                               const char* path);

}  // namespace orbix::ag3335
