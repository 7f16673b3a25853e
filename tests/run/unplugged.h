// What the readback tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "run/harness.h"

namespace orbix::test {

/// `run_under` runs a readback under conditions. It succeeds, and fails soon wherever the device
/// vanishes; every `interval_ms` of the run is tried.
template <typename RunUnder>
void expect_end_wherever_unplugged(RunUnder run_under, std::uint64_t interval_ms) {
    const ToolRun whole_run = run_under(Conditions{});
    ASSERT_EQ(whole_run.result(), readback_success);
    const std::uint64_t whole = whole_run.duration_ms;
    for (std::uint64_t time = 1; time < whole; time += interval_ms) {
        const ToolRun result = run_under(unplugged_after_ms(time));
        EXPECT_EQ(result.result(), readback_failure(-1)) << time;
        EXPECT_FALSE(result.hit_time_limit);
        EXPECT_LT(result.duration_ms, 60'000U);
    }
}

}  // namespace orbix::test
