// One round of the station's campaign: a station with several simulated modules, drawn from a seed,
// with faults on their lines and among its children, and the checks that must hold whatever
// happens. Rounds run in real time: a seed draws the same round again, but not the same
// microseconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "campaign/scenario.h"
#include "campaign/station/records_check.h"
#include "faults.h"

namespace orbix::campaign {

/// What is drawn for one port.
struct Place {
    enum class Kind : std::uint8_t {
        sound,      ///< a module on an undisturbed line
        disturbed,  ///< a module, with faults on its line
        killed,     ///< a sound one, whose orbix_flash is killed once
        absent,     ///< there is no such port
        busy,       ///< another process holds the port
        impostor,   ///< a program that is no orbix_flash runs in its place
    };
    Kind kind = Kind::sound;
    std::vector<sim::Fault> faults;
    std::chrono::milliseconds killed_after{};
    std::size_t impostor = 0;  ///< which one
};

/// What is drawn for a round.
struct Plan {
    const Scenario* scenario = nullptr;
    std::uint64_t rig_seed = 0;  ///< all modules of a round are alike
    double healthy_seconds = 0;  ///< how long an undisturbed run takes
    double stall_seconds = 0;
    double time_limit_seconds = 0;
    bool short_limit = false;  ///< also a sound run may be over the time limit
    int retries = 0;
    std::size_t jobs = 0;  ///< 0: as many as there are ports
    std::vector<Place> places;
};

/// The built programs.
struct Programs {
    std::string station;
    std::string flash;
};

struct RoundReport {
    Plan plan;
    Findings findings;
    std::size_t good = 0;
    std::size_t bad = 0;
    std::size_t attempts = 0;
    std::size_t records = 0;
    std::size_t page_events = 0;
    std::size_t flashed_but_failed = 0;  ///< the answer to the last step was lost
};

/// Draws a round. The current folder takes the files of the rig.
Plan draw_plan(std::uint64_t seed);

/// What is drawn, in a few lines.
std::string describe(const Plan& plan);

/// Draws, runs and checks, in the current folder, which must be empty and this round's alone.
RoundReport run_round(std::uint64_t seed, const Programs& programs);

}  // namespace orbix::campaign
