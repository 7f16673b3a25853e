// The checks after a run.
#pragma once

#include "campaign.h"
#include "scenario.h"
#include "tool_run.h"

namespace orbix::campaign {

/// Makes all checks and enters what they find into the record: as violations, or as excepted.
void judge(Record& record, const Rig& rig, const sim::ToolRun& run);

/// A line of the output with its time stamp taken off.
struct LogLine {
    std::string_view text;
    std::optional<std::uint64_t> stamp_ms;  ///< nothing for a line without a stamp
};

/// Splits an output; a line feed ends each line.
std::vector<LogLine> split_lines(std::string_view output);

}  // namespace orbix::campaign
