// What the bench transfers: for each family and way the model, the rates, and the arguments.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "temp_dir.h"

namespace orbix::bench {

using Arguments = std::vector<std::string>;

struct Transfer {
    std::string name;
    std::string model;

    /// The rates at which the image can go over the line, in baud.
    std::vector<unsigned> rates;

    /// Whether the module listens at that rate from its start; otherwise it starts at 115200 and
    /// changes as its dialogue says.
    bool starts_at_rate;

    /// Writes an image of `size` bytes, with what goes with it, into the folder. Returns the
    /// arguments behind model and port.
    Arguments (*prepare)(const sim::TempDir& folder, unsigned rate, std::size_t size);

    /// Whether the line has even parity. A pseudo-terminal cannot tell the simulated module.
    bool even_parity = false;

    /// Whether the module is so slow to erase and to program that the image has the size for 115200
    /// at every rate.
    bool slow_module = false;
};

/// All of them, family by family.
const std::vector<Transfer>& transfers();

/// The transfer of that name.
const Transfer& transfer_named(const std::string& name);

/// How large an image is: about eight seconds of a line at 115200, four of a faster one. The last
/// kilobyte is not full, but so full that XMODEM-1K sends a large block for it.
std::size_t image_size(const Transfer& transfer, unsigned rate);

}  // namespace orbix::bench
