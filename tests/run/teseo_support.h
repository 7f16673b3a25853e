// What the tests of the Teseo upgrades share: modules that answer wrongly, and what is said then.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "run/harness.h"
#include "teseo_loader.h"

namespace orbix::test {

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
    const char* summary;  ///< or empty
};

/// What such a run says: the lines before the failure, what is wrong with the answer, and what
/// comes of it.
inline Lines failed_lines(const Lines& option_lines, const Lines& loader_lines,
                          const LoaderFailure& failure, const std::string& fault) {
    Lines lines = joined(option_lines, loader_lines);
    lines.resize(option_lines.size() + failure.lines);
    lines.push_back(fault);
    if (*failure.summary != '\0') {
        lines.emplace_back(failure.summary);
    }
    return lines;
}

/// What the boot loader's dialogue says where a person is asked for power.
inline Lines prompted(Lines loader_lines) {
    loader_lines.insert(loader_lines.begin() + 1, "[INFO] Please power up the module within 5s.");
    return loader_lines;
}

/// The progress of an image of 20,000 bytes through the boot loader: counted per piece, the rate
/// taken over the whole dialogue.
inline void expect_progress_per_piece(const ToolRun& run) {
    const Lines lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "[PROGRESS] 81.92%");
    EXPECT_EQ(lines[2], "[PROGRESS] 100.00%");
    const long since_sync = time_of(run, "[SPEED] 20000 Bytes/") - time_of(run, "Synchronize...");
    std::array<char, 64> expected{};
    std::snprintf(expected.data(), expected.size(), "[SPEED] 20000 Bytes/20000 Bytes    %.1f KBps",
                  20'000.0 / 1024.0 * 1000.0 / static_cast<double>(since_sync));
    EXPECT_EQ(lines[3], expected.data());
}

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
