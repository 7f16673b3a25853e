// Serves models on pseudo-terminals, in real time.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "faults.h"
#include "model.h"

namespace orbix::sim {

struct PtySettings {
    /// A symbolic link to the port, made and removed again; empty for none. Several modules have
    /// ".1", ".2" and so on behind it.
    std::string link;
    bool paced = false;    ///< the module's bytes take their time on the line
    bool instant = false;  ///< the tool's bytes take none
    std::vector<Fault> faults;
    std::uint64_t seed = 1;
};

/// Prints the name of each module's port on a line of its own, then serves them all until SIGINT or
/// SIGTERM, or until faults have unplugged all ports. When a port has been closed for a tenth of a
/// second its module restarts, as one whose reset hangs on DTR. Returns 0, or 1 after a line on
/// standard error.
int serve_on_pty(std::span<const std::unique_ptr<Model>> models, const PtySettings& settings);

}  // namespace orbix::sim
