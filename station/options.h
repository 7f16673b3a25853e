// The station's command line.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "flash_arguments.h"

namespace orbix::station {

struct Options {
    std::vector<std::string> ports;
    std::string watch;          ///< a pattern of ports; empty: no production mode
    FlashArguments flash;       ///< what stands behind "--"
    std::string flash_program;  ///< its path
    std::size_t jobs = 0;       ///< 0: as many as there are ports
    int retries = 0;
    std::chrono::milliseconds time_limit{};     ///< of one run; 0: none
    std::chrono::milliseconds silence_limit{};  ///< 0: none
    std::string json;                           ///< a file, "-", or empty
    std::string log_folder;                     ///< or empty
    std::string http;                           ///< where the page is served, or empty
    bool plain = false;                         ///< plain lines also on a terminal
};

/// Longer than the longest single wait of orbix_flash that has a limit: an erase of three minutes.
inline constexpr std::chrono::seconds default_silence_limit{240};

/// Longer than 4 MiB at 9600 baud, the slowest transfer of the largest image.
inline constexpr std::chrono::seconds default_time_limit{5400};

/// Reads the command line. Nothing when the program is to end at once, with `status`: what has to
/// be said has been said.
std::optional<Options> parse_options(int argc, const char* const* argv, int& status);

}  // namespace orbix::station
