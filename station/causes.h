// Why a run ended as it did, and the station's exit status that tells it.
#pragma once

#include <cstdint>
#include <string_view>

namespace orbix::station {

/// How a run ended. The value is the station's exit status: with several runs the greatest one
/// wins, so what leaves a module in doubt stands above what left it untouched.
enum class Cause : std::uint8_t {
    none = 0,        ///< the module is flashed
    internal = 1,    ///< the station itself failed: no program to start, no room for its files
    usage = 2,       ///< the command line, of the station or of orbix_flash
    port = 3,        ///< the port is absent, busy, forbidden, or no serial device
    file = 4,        ///< an image, a package or an agent that cannot be read or is not fit
    no_sync = 5,     ///< the module did not answer
    refused = 6,     ///< the module answered, and said no
    transfer = 7,    ///< the exchange broke off after the module had answered
    time_limit = 8,  ///< the run was ended: over its time, or silent for too long
    no_result = 9,   ///< orbix_flash was killed, or ended without a result line
    stopped = 10,    ///< the operator stopped the station before the run was over
};

/// The cause as it stands in records and tables: "none", "no_sync", ...
std::string_view cause_name(Cause cause);

/// The cause in words for a person: "the module did not answer", ...
std::string_view cause_words(Cause cause);

/// The worse of two, for the exit status over several runs.
Cause worse(Cause one, Cause other);

}  // namespace orbix::station
