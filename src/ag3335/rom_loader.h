// The mask-ROM loader (BROM) of the AG3335 and AG3352 chips: a module that is reset while the host
// sends the start pattern stays in it. It can write registers, take a small program (the download
// agent) into RAM and start it. All multi-byte fields are big-endian; every item is echoed.
//
// The steps announce nothing: the family does. Their ERROR lines are AG3335's, letter for letter,
// including those that name another byte or address than the one in use.
#pragma once

#include <cstdint>

#include "ag3335/step.h"

namespace orbix::rom_loader {

using loader::Step;

/// Catches a module that is being reset: up to 499 times the first byte, about 40 s in all, then
/// the rest of the start pattern. Returns 1 or -1.
int handshake(const Step& step);

/// Writes one 16-bit register. Returns 0 or -1.
int write_register(const Step& step, std::uint32_t address, std::uint16_t value);

/// A download agent on its way into the module's RAM.
struct AgentTransfer {
    const char* path;
    int size;  ///< of the file in bytes, -1 when it could not be measured
    std::uint32_t load_address;
    std::uint32_t announced_length;  ///< the length field of the command
};

/// Sends the agent, with its PROGRESS and SPEED lines, and compares the checksum that comes back.
/// Returns 0 or -1.
int send_agent(const Step& step, const AgentTransfer& transfer);

/// Whether an agent greets with 0xC0 as soon as it runs.
enum class Greeting : std::uint8_t { none, expected };

/// Starts the agent at `address`. Returns 0 or -1.
int jump(const Step& step, std::uint32_t address, Greeting greeting);

}  // namespace orbix::rom_loader
