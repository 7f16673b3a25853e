// What every family has to keep: wherever the device vanishes, the run fails, and soon.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>

#include "run/harness.h"

namespace orbix::test {

/// A run of its own module under conditions; without any it succeeds.
using RunUnder = std::function<ToolRun(Conditions conditions)>;

/// Which times of a run are tried, and how long it may go on behind each.
struct UnpluggedTimes {
    std::uint64_t interval_ms;
    std::uint64_t most_ms_behind;
};

inline void expect_failure_whenever_unplugged(const RunUnder& run_under, UnpluggedTimes times) {
    const ToolRun whole = run_under({});
    const bool reads = whole.result() == readback_success;
    ASSERT_TRUE(reads || whole.result() == upgrade_success) << whole.result();
    for (std::uint64_t time = 1; time < whole.duration_ms; time += times.interval_ms) {
        const ToolRun run = run_under(unplugged_after_ms(time));
        ASSERT_FALSE(run.hit_time_limit) << "unplugged after " << time << " ms";
        ASSERT_EQ(run.result(), reads ? readback_failure(-1) : upgrade_failure(-1))
            << "unplugged after " << time << " ms";
        ASSERT_TRUE(reads || run.family_lines().back().find("[ERROR] ") != std::string::npos);
        ASSERT_LE(run.duration_ms, time + times.most_ms_behind);
    }
}

/// Which bytes of each direction are tried: of the short messages at the start more than of the
/// image. How often a run that fails closes its port, and how long it may be.
struct UnpluggedBytes {
    std::size_t start;
    std::size_t step_at_start;
    std::size_t step;
    int closes;
    std::uint64_t most_ms;
};

inline void expect_failure_wherever_unplugged(const RunUnder& run_under, UnpluggedBytes bytes) {
    const ToolRun whole = run_under({});
    ASSERT_EQ(whole.result(), upgrade_success);
    for (const auto direction : {sim::Direction::to_module, sim::Direction::to_host}) {
        const bool sends = direction == sim::Direction::to_module;
        const std::size_t end = sends ? whole.sent.size() : whole.received.size();
        for (std::size_t byte = 0; byte < end;
             byte += byte < bytes.start ? bytes.step_at_start : bytes.step) {
            const ToolRun run = run_under(
                {.faults = {
                     {.kind = sim::FaultKind::unplug, .direction = direction, .byte = byte}}});
            ASSERT_FALSE(run.hit_time_limit) << "byte " << byte;
            ASSERT_EQ(run.result(), upgrade_failure(-1)) << "byte " << byte;
            ASSERT_FALSE(run.left_open) << "byte " << byte;
            ASSERT_EQ(run.closes, bytes.closes) << "byte " << byte;
            ASSERT_LE(run.duration_ms, bytes.most_ms) << "byte " << byte;
        }
    }
}

}  // namespace orbix::test
