// What the campaign runs: one entry for every family and mode.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "draw.h"
#include "flash.h"
#include "model.h"
#include "temp_dir.h"

namespace orbix::campaign {

using sim::Bytes;

/// What a flash must hold after SUCCESS.
struct Held {
    sim::Flash* flash;
    std::uint32_t address;
    Bytes content;
};

/// What a file must hold after SUCCESS.
struct Written {
    std::string path;
    Bytes content;
};

/// Where a run may change a flash: from `begin` to before `end`.
struct Region {
    const sim::Flash* flash;
    std::uint32_t begin;
    std::uint32_t end;
};

/// One run, ready to go: the module, the command line, the files in place, and what must come of
/// it. Nothing in it is known to the tool but the arguments.
struct Rig {
    std::unique_ptr<sim::Model> module;
    std::vector<std::string> arguments;

    std::vector<Held> held;        ///< compared after SUCCESS
    std::vector<Written> written;  ///< compared after SUCCESS
    std::vector<Region> regions;   ///< everything else stays as it was

    /// Further flashes whose changes are looked at (those of `held` and `regions` are, always).
    std::vector<const sim::Flash*> flashes;

    /// Without a fault: true for SUCCESS, false for FAIL, nothing where either may be.
    std::optional<bool> success_expected = true;

    /// About how many bytes go each way, for where the faults strike.
    std::uint64_t bytes_to_module = 1000;
    std::uint64_t bytes_to_host = 200;

    void option(const char* letter, const std::string& value) {
        arguments.emplace_back(letter);
        arguments.push_back(value);
    }
};

struct Scenario {
    const char* family;
    const char* mode;

    /// Draws a run. Files go to the working folder, by their bare names.
    Rig (*make)(Draw& draw);

    /// The codes that a FAIL line may carry.
    std::vector<int> codes;
};

/// All of them, family by family.
const std::vector<Scenario>& scenarios();

/// The families' own, one function per file.
std::vector<Scenario> ag33xx_scenarios();
std::vector<Scenario> teseo_scenarios();
std::vector<Scenario> hd8xx0_scenarios();
std::vector<Scenario> board_scenarios();

/// Common to all scenarios: model, port and rate, sometimes DTR, RTS and the dump of the traffic.
void begin_arguments(Rig& rig, Draw& draw, const std::string& model, unsigned baud);

/// Writes a file into the working folder and returns its name.
std::string put_file(const std::string& name, std::span<const std::uint8_t> content);

}  // namespace orbix::campaign
