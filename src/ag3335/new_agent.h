// The framed download agent of the AG3352 modules and of newer AG3335 ones. The host sends a
// command frame, the agent answers with a frame whose byte at offset 6 is a status, 0 for success.
//
//   0     1     2        4         6
//   0x05  0x5A  length   command   payload (and a CRC-32 of all before it, for some commands)
//
// The length counts everything behind it. All fields are little-endian.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "ag3335/package.h"
#include "ag3335/step.h"

namespace orbix::agent {

using loader::Step;

enum class Command : std::uint16_t {
    write = 0x2100,
    read = 0x2101,
    erase = 0x2104,
    flash_address = 0x210E,
    flash_size = 0x210F,
    flash_id = 0x2110,
    baud_rate = 0x2115,
};

inline constexpr std::uint32_t flash_base = 0x08000000;

/// The unit of writes and reads, and of the erase at its end.
inline constexpr std::uint32_t block_size = 4096;

/// How long the agent may take to answer, in ms.
inline constexpr unsigned reply_timeout = 3000;

/// Where a reply carries its status.
inline constexpr std::size_t status_offset = 6;

/// The reply to an erase or a write: header, status, and for a write the block's address.
using Reply = std::array<std::uint8_t, 11>;

/// A command frame without a CRC.
std::vector<std::uint8_t> make_frame(Command command, std::span<const std::uint8_t> payload);

/// A command frame whose payload starts with a flash address and ends with the CRC-32 of all that
/// stands before it: address (4), `field` as it is given, CRC (4).
std::vector<std::uint8_t> make_checked_frame(Command command, std::uint32_t address,
                                             std::span<const std::uint8_t> field);

/// Asks the flash's address, size and identifier, as every run does before it uses the agent. Only
/// the status of the answers counts. Returns 0 or -1.
int query_flash(const Step& step);

/// Erases `length` bytes from the start of the flash: blocks of 64 KiB while more than that
/// remains, then blocks of 4 KiB, the last one whole. Prints PROGRESS. Returns 0 or -1.
int erase_flash(const Step& step, std::uint32_t length);

/// Writes the selected images of a package, with PROGRESS and SPEED. `reply_ms` is how long the
/// answer to each full block of an image is awaited; the last one of each has `reply_timeout`.
///
/// The third refused block of an image ends it. A refused block is not sent again: the next one
/// goes to the same address.
///
/// Returns 0 or -1; a port that fails, an answer that stays away and an image that cannot be read
/// end it without a line.
int write_package(SerialHandle handle, package::Package& package, unsigned reply_ms);

/// A part of the flash that is read back.
struct Region {
    std::uint32_t address;
    std::uint32_t size;  ///< bytes
};

/// How far a family's agent may be asked to read.
struct ReadBounds {
    std::uint32_t largest_size;
    std::uint32_t highest_address;  ///< at which a region may start
};

/// Reads a region into a new file, block by block, with PROGRESS and SPEED. A bad reply is asked
/// for again; the fifth one ends it, and the file keeps the blocks that were read.
/// Returns 0 or -1.
int read_region(SerialHandle handle, const Region& region, const char* path,
                const ReadBounds& bounds);

}  // namespace orbix::agent
