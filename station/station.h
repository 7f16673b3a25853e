// The station: which ports are flashed when, and what is told of it.
#pragma once

#include "board.h"
#include "causes.h"
#include "options.h"

namespace orbix::station {

/// Flashes all ports, or in production mode each one that appears until it is stopped, and tells
/// of it on standard output, in the records and on the board. Returns the worst cause.
Cause run_station(const Options& options, Board& board);

}  // namespace orbix::station
