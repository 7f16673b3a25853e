// The readable form of a run.
#include <algorithm>
#include <array>
#include <cstdio>

#include "campaign.h"
#include "checks.h"
#include "virtual_port.h"

namespace orbix::campaign {

namespace {

constexpr std::size_t bytes_in_line = 16;

/// Bytes further apart than this start a new line.
constexpr sim::Micros pause = sim::milliseconds(3);

sim::Micros since_start(const sim::TracedByte& byte) {
    return byte.time - sim::VirtualPort::start;
}

bool belongs_to(const sim::TracedByte& byte, const sim::TracedByte& before) {
    return byte.direction == before.direction && byte.time - before.time <= pause;
}

std::string row(std::span<const sim::TracedByte> bytes) {
    std::array<char, 64> text{};
    std::snprintf(
        text.data(), text.size(), "%12.6f %s ",
        static_cast<double>(since_start(bytes.front())) / 1e6,
        bytes.front().direction == sim::Direction::to_module ? "tool    >" : "  module <");
    std::string line = text.data();
    std::string letters;
    for (const auto& traced : bytes) {
        std::snprintf(text.data(), text.size(), " %02X", traced.byte);
        line += text.data();
        letters += traced.byte >= ' ' && traced.byte <= '~' ? static_cast<char>(traced.byte) : '.';
    }
    line.append(3 * (bytes_in_line - bytes.size()), ' ');
    return line + "  " + letters + "\n";
}

}  // namespace

std::string readable_trace(const Record& record) {
    // Arrivals at the tool are noted when the tool takes them: in order of time again.
    std::vector<sim::TracedByte> bytes = record.trace;
    std::stable_sort(bytes.begin(), bytes.end(),
                     [](const auto& one, const auto& other) { return one.time < other.time; });
    std::string text;
    std::size_t at = 0;
    const auto put_bytes_before = [&](sim::Micros time) {
        while (at < bytes.size() && since_start(bytes[at]) < time) {
            std::size_t end = at + 1;
            while (end < bytes.size() && end - at < bytes_in_line &&
                   belongs_to(bytes[end], bytes[end - 1]) && since_start(bytes[end]) < time) {
                ++end;
            }
            text += row(std::span(bytes).subspan(at, end - at));
            at = end;
        }
    };
    for (const LogLine& line : split_lines(record.output)) {
        if (line.stamp_ms) {
            put_bytes_before(sim::milliseconds(*line.stamp_ms + 1));
        }
        text += "             log       ";
        text += line.stamp_ms ? "" : "  ";
        text += std::string(line.text) + "\n";
    }
    put_bytes_before(UINT64_MAX);
    return text;
}

}  // namespace orbix::campaign
