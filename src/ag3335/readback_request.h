// What the command line of a readback asks for: three lists, of flash addresses, sizes and output
// paths, of which the entries with the same place belong together.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orbix::readback {

/// What differs between the families' command lines.
struct Rules {
    std::uint32_t largest_size;  ///< of a region, in bytes
    std::size_t most_regions;
    /// The size list is full when the address list is, whatever it holds itself.
    bool addresses_limit_sizes;
    const char* too_many_sizes;
    bool tags_size_count;  ///< the line that counts the sizes is an INFO line
    /// Whether a module of that name has to be restarted by the reboot sentence; null: none has.
    bool (*needs_soft_reset)(const char* model);
};

struct Request {
    std::vector<std::uint32_t> addresses;
    std::vector<std::uint32_t> sizes;
    std::vector<std::string> paths;
    std::string agent;
    std::string device;
    int baud = 0;           ///< 0 when not given
    int download_baud = 0;  ///< 0 when not given
    bool soft_reset = false;
};

/// Reads the command line. Returns false, after an ERROR line, at the first value that is refused.
bool parse(int argc, char** argv, const Rules& rules, Request& request);

/// Whether the three lists have the same length and the agent file can be read; ERROR lines when
/// not.
bool check(const Request& request);

}  // namespace orbix::readback
