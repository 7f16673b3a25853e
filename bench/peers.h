// Other programs that hold the same dialogue, for comparison.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "measured.h"
#include "transfers.h"

namespace orbix::bench {

struct Peer {
    std::string name;
    std::string program;   ///< its path
    std::string transfer;  ///< the name of the transfer that it does too
    std::vector<unsigned> rates;

    /// Whether its blocks are as large as the tool's, so that the tool must not be slower.
    bool same_blocks;

    /// How many bytes the tool's dialogue has on the line that the peer's has not, in both
    /// directions, for an image of `size` bytes.
    std::size_t (*more_bytes)(std::size_t size);

    /// Does the transfer over `port`, with the files and the arguments that were prepared for the
    /// tool. Returns what it took; a status other than 0 when it failed.
    Measured (*run)(const Peer& peer, const std::string& port, unsigned rate,
                    const Arguments& arguments, const std::string& folder);
};

/// Those of the peers that are installed.
std::vector<Peer> installed_peers();

}  // namespace orbix::bench
