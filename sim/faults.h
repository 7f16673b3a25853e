// Faults of the line between the tool and a module.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model.h"

namespace orbix::sim {

enum class Direction : std::uint8_t { to_module, to_host };

enum class FaultKind : std::uint8_t {
    drop,        ///< `amount` bytes are lost
    flip,        ///< one bit of each of `amount` bytes is turned
    duplicate,   ///< `amount` bytes arrive twice
    noise,       ///< `amount` random bytes arrive in front of the byte
    delay,       ///< the byte, and all behind it, arrive `amount` ms later
    silence,     ///< nothing arrives for `amount` ms (0: ever again)
    unplug,      ///< the port vanishes
    power_cycle  ///< the module restarts
};

/// One fault, at the byte of that number (counted from 0 in its direction) or at a time.
struct Fault {
    FaultKind kind = FaultKind::drop;
    Direction direction = Direction::to_module;
    std::optional<std::uint64_t> byte = std::nullopt;
    Micros time = 0;  ///< since the start, when `byte` is not given
    std::uint64_t amount = 1;
};

/// Reads a comma-separated list such as "drop@100,delay=50@2000ms:to-host". Each fault is
/// KIND[=AMOUNT]@POSITION[:DIRECTION]; the position is a byte number, or a time with "ms".
/// Returns nothing, with the reason in `error`, when the text is not understood.
std::optional<std::vector<Fault>> parse_faults(std::string_view text, std::string& error);

/// The grammar above in a few lines, for a help text.
extern const char* const fault_grammar;

}  // namespace orbix::sim
