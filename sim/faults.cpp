#include "faults.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace orbix::sim {

namespace {

struct KindName {
    std::string_view name;
    FaultKind kind;
    std::uint64_t default_amount;
};

constexpr std::array<KindName, 8> kind_names{{
    {"drop", FaultKind::drop, 1},
    {"flip", FaultKind::flip, 1},
    {"duplicate", FaultKind::duplicate, 1},
    {"noise", FaultKind::noise, 8},
    {"delay", FaultKind::delay, 100},
    {"silence", FaultKind::silence, 0},
    {"unplug", FaultKind::unplug, 0},
    {"power-cycle", FaultKind::power_cycle, 0},
}};

bool parse_number(std::string_view text, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

/// Cuts `text` at the first `mark` and returns what stood behind it, if it stands there.
std::optional<std::string_view> cut(std::string_view& text, char mark) {
    const std::size_t at = text.find(mark);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view tail = text.substr(at + 1);
    text = text.substr(0, at);
    return tail;
}

std::optional<Fault> parse_fault(std::string_view text, std::string& error) {
    const std::string whole(text);
    Fault fault;
    std::string_view kind = text;
    auto position = cut(kind, '@');
    if (!position) {
        error = "no position in \"" + whole + "\"";
        return std::nullopt;
    }
    if (const auto direction = cut(*position, ':')) {
        if (*direction != "to-host" && *direction != "to-module") {
            error = "unknown direction in \"" + whole + "\"";
            return std::nullopt;
        }
        fault.direction = *direction == "to-host" ? Direction::to_host : Direction::to_module;
    }
    const auto amount = cut(kind, '=');
    const auto* const known =
        std::find_if(kind_names.begin(), kind_names.end(),
                     [kind](const auto& entry) { return entry.name == kind; });
    if (known == kind_names.end()) {
        error = "unknown kind in \"" + whole + "\"";
        return std::nullopt;
    }
    fault.kind = known->kind;
    fault.amount = known->default_amount;
    if (amount && !parse_number(*amount, fault.amount)) {
        error = "bad amount in \"" + whole + "\"";
        return std::nullopt;
    }
    const bool is_time = position->size() > 2 && position->substr(position->size() - 2) == "ms";
    std::uint64_t number = 0;
    if (!parse_number(is_time ? position->substr(0, position->size() - 2) : *position, number)) {
        error = "bad position in \"" + whole + "\"";
        return std::nullopt;
    }
    if (is_time) {
        fault.time = milliseconds(number);
    } else {
        fault.byte = number;
    }
    return fault;
}

}  // namespace

const char* const fault_grammar =
    "  FAULTS is a comma-separated list of KIND[=AMOUNT]@POSITION[:DIRECTION].\n"
    "    KIND       drop, flip, duplicate, noise   (AMOUNT bytes)\n"
    "               delay, silence                 (AMOUNT ms; silence=0 lasts for ever)\n"
    "               unplug, power-cycle\n"
    "    POSITION   number of a byte, counted from 0, or a time such as 1500ms\n"
    "    DIRECTION  to-module (the default) or to-host\n"
    "  For example: --faults drop@4000,delay=50@2000ms:to-host,unplug@90000\n";

std::optional<std::vector<Fault>> parse_faults(std::string_view text, std::string& error) {
    std::vector<Fault> faults;
    std::optional<std::string_view> rest = text;
    while (rest) {
        std::string_view item = *rest;
        rest = cut(item, ',');
        const auto fault = parse_fault(item, error);
        if (!fault) {
            return std::nullopt;
        }
        faults.push_back(*fault);
    }
    return faults;
}

}  // namespace orbix::sim
