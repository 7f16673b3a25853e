// What the tests of the Teseo upgrades share: modules that answer wrongly, and what is said then.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "run/harness.h"
#include "teseo_loader.h"

namespace orbix::test {

using Lines = std::vector<std::string>;

inline Lines joined(Lines first, const Lines& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

using Tamper = std::function<void(sim::TeseoStep step, Bytes& answer)>;

/// Replaces the answer to a step, and silences all after it.
inline Tamper answering_wrongly(sim::TeseoStep wrong, Bytes replacement) {
    return [wrong, replacement = std::move(replacement), failed = false](sim::TeseoStep step,
                                                                         Bytes& answer) mutable {
        if (failed) {
            answer.clear();
        } else if (step == wrong) {
            answer = replacement;
            failed = true;
        }
    };
}

/// Does something when a step is answered; the answer stays as it is.
inline Tamper when_answering(sim::TeseoStep wanted, std::function<void()> act) {
    return [wanted, act = std::move(act)](sim::TeseoStep step, Bytes& /*answer*/) {
        if (step == wanted) {
            act();
        }
    };
}

/// A step of the boot loader that goes wrong, and what the tool says then.
struct LoaderFailure {
    sim::TeseoStep step;
    std::size_t lines;  ///< of `loader_lines`, before the failure
    const char* limit;
    const char* summary;
};

inline const char* const options_failed =
    "[ERROR] Write binary image options failed, upgrade failed.";
inline const char* const image_failed = "[ERROR] Send the firmware package failed, upgrade failed.";

/// The run said exactly this, failed, and closed the port.
inline void expect_failed_run(const ToolRun& run, const Lines& family_lines) {
    EXPECT_EQ(run.family_lines(), family_lines);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 1);
}

}  // namespace orbix::test
