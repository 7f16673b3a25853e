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

template <typename Event>
sim::Micros since_start(const Event& event) {
    return event.time - sim::VirtualPort::start;
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

/// The faults of one kind that struck one after the other.
std::string row(std::span<const sim::Strike> strikes) {
    const sim::Strike& first = strikes.front();
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%12.6f fault     ",
                  static_cast<double>(since_start(first)) / 1e6);
    std::string line = text.data() + std::string(name_of(first.kind));
    if (first.kind != sim::FaultKind::unplug && first.kind != sim::FaultKind::power_cycle) {
        line += first.direction == sim::Direction::to_module ? " to the module" : " to the tool";
        line += strikes.size() > 1 ? ", " + std::to_string(strikes.size()) + " bytes" : "";
    }
    return line + "\n";
}

}  // namespace

std::string readable_trace(const Record& record) {
    // Arrivals at the tool are noted when the tool takes them: in order of time again.
    std::vector<sim::TracedByte> bytes = record.trace;
    std::stable_sort(bytes.begin(), bytes.end(),
                     [](const auto& one, const auto& other) { return one.time < other.time; });
    std::vector<sim::Strike> strikes = record.strikes;
    std::stable_sort(strikes.begin(), strikes.end(),
                     [](const auto& one, const auto& other) { return one.time < other.time; });
    std::string text;
    std::size_t at = 0;
    std::size_t struck = 0;
    const auto put_strikes_before = [&](sim::Micros time) {
        while (struck < strikes.size() && since_start(strikes[struck]) <= time) {
            const std::size_t begin = struck;
            while (struck < strikes.size() && strikes[struck].kind == strikes[begin].kind &&
                   strikes[struck].direction == strikes[begin].direction) {
                ++struck;
            }
            text += row(std::span(strikes).subspan(begin, struck - begin));
        }
    };
    const auto strikes_before = [&](const sim::TracedByte& byte) {
        return struck < strikes.size() && strikes[struck].time <= byte.time;
    };
    const auto put_bytes_before = [&](sim::Micros time) {
        while (at < bytes.size() && since_start(bytes[at]) < time) {
            put_strikes_before(since_start(bytes[at]));
            std::size_t end = at + 1;
            while (end < bytes.size() && end - at < bytes_in_line &&
                   belongs_to(bytes[end], bytes[end - 1]) && since_start(bytes[end]) < time &&
                   !strikes_before(bytes[end])) {
                ++end;
            }
            text += row(std::span(bytes).subspan(at, end - at));
            at = end;
        }
    };
    for (const LogLine& line : split_lines(record.output)) {
        if (line.stamp_ms) {
            put_bytes_before(sim::milliseconds(*line.stamp_ms + 1));
            put_strikes_before(sim::milliseconds(*line.stamp_ms));
        }
        text += "             log       ";
        text += line.stamp_ms ? "" : "  ";
        text += std::string(line.text) + "\n";
    }
    put_bytes_before(UINT64_MAX);
    put_strikes_before(UINT64_MAX);
    return text;
}

}  // namespace orbix::campaign
