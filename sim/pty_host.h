// Serves a model on a pseudo-terminal, in real time.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "faults.h"
#include "model.h"

namespace orbix::sim {

struct PtySettings {
    std::string link;      ///< a symbolic link to the port, made and removed again; empty for none
    bool paced = false;    ///< the module's bytes take their time on the line
    bool instant = false;  ///< the tool's bytes take none
    std::vector<Fault> faults;
    std::uint64_t seed = 1;
};

/// Prints the port's name as the first line of standard output, then serves until SIGINT or
/// SIGTERM, or until a fault unplugs the port. When the port has been closed for a tenth of a
/// second the module restarts, as one whose reset hangs on DTR. Returns 0, or 1 after a line on
/// standard error.
int serve_on_pty(Model& model, const PtySettings& settings);

}  // namespace orbix::sim
