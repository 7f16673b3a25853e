#include "checks.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

#include "knowledge.h"

namespace orbix::campaign {

namespace {

constexpr std::string_view success_marks[] = {"[SUCCESS] orbix_flash upgrade success",
                                              "[SUCCESS] orbix_flash readback success"};
constexpr std::string_view failure_marks[] = {"[FAIL] orbix_flash upgrade fail,ret:[",
                                              "[FAIL] orbix_flash readback fail,ret:["};

bool is_success(std::string_view text) {
    return std::find(std::begin(success_marks), std::end(success_marks), text) !=
           std::end(success_marks);
}

/// The code of a FAIL line, if it is one.
std::optional<int> failure_code(std::string_view text) {
    for (const std::string_view mark : failure_marks) {
        int code = 0;
        if (text.starts_with(mark) && text.ends_with("]")) {
            const char* const end = text.data() + text.size() - 1;
            const auto [stop, error] = std::from_chars(text.data() + mark.size(), end, code);
            if (error == std::errc() && stop == end) {
                return code;
            }
        }
    }
    return std::nullopt;
}

bool is_result(std::string_view text) {
    return text.starts_with("[SUCCESS]") || text.starts_with("[FAIL]");
}

std::string quoted(std::string_view text) {
    std::string result = "\"";
    for (const char letter : text) {
        std::array<char, 8> escape{};
        if (letter < ' ' || letter > '~') {
            std::snprintf(escape.data(), escape.size(), "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(letter)));
            result += escape.data();
        } else {
            result += letter;
        }
    }
    return result + "\"";
}

/// Collects what the checks find, and tells violations from exceptions.
class Findings {
  public:
    Findings(Record& record, const Rig& rig) : record_(record), rig_(rig) {}

    void add(Check check, std::string what) {
        const bool excepted =
            std::any_of(exceptions.begin(), exceptions.end(), [&](const Exception& exception) {
                return exception.check == check &&
                       concerns(exception.family, record_.scenario->family) &&
                       concerns(exception.mode, record_.scenario->mode) &&
                       exception.applies({record_, rig_});
            });
        (excepted ? record_.excepted : record_.violations).push_back({check, std::move(what)});
    }

  private:
    Record& record_;
    const Rig& rig_;
};

// --- the result ----------------------------------------------------------------------------------

void check_agreement(const Record& record, const std::vector<LogLine>& lines, int status,
                     Findings& findings) {
    const auto results = std::count_if(lines.begin(), lines.end(),
                                       [](const LogLine& line) { return is_result(line.text); });
    if (results != 1 || !is_result(lines.back().text)) {
        findings.add(Check::agrees, std::to_string(results) + " result lines, the last line is " +
                                        quoted(lines.back().text));
        return;
    }
    if (status != 0) {
        findings.add(Check::agrees, "exit status " + std::to_string(status));
    }
    if (is_success(lines.back().text)) {
        return;
    }
    const auto code = failure_code(lines.back().text);
    const auto& codes = record.scenario->codes;
    if (!code || std::find(codes.begin(), codes.end(), *code) == codes.end()) {
        findings.add(Check::agrees, "no result of this mode: " + quoted(lines.back().text));
    }
}

/// The last line that a family has said; the dumps of the traffic are none.
std::string_view last_said(std::span<const LogLine> lines) {
    const auto line = std::find_if(lines.rbegin(), lines.rend(), [](const LogLine& candidate) {
        return candidate.stamp_ms && !candidate.text.starts_with("[DEBUG]");
    });
    return line != lines.rend() ? line->text : "";
}

/// The entry of a table that is for this mode and for a run whose last line this is.
template <typename Entry>
const Entry* find_entry(const std::vector<Entry>& table, const Scenario& scenario,
                        std::string_view last_line) {
    const auto entry = std::find_if(table.begin(), table.end(), [&](const Entry& candidate) {
        return concerns(candidate.family, scenario.family) &&
               concerns(candidate.mode, scenario.mode) &&
               last_line.starts_with(candidate.last_line);
    });
    return entry != table.end() ? &*entry : nullptr;
}

void check_failure_is_named(Record& record, const std::vector<LogLine>& lines, Findings& findings) {
    const bool error = std::any_of(lines.begin(), lines.end(), [](const LogLine& line) {
        return line.text.find("[ERROR]") != std::string_view::npos;
    });
    if (error) {
        return;
    }
    const std::string_view last = last_said(std::span(lines).first(lines.size() - 1));
    record.silent_step = find_entry(silent_steps, *record.scenario, last);
    if (record.silent_step == nullptr) {
        findings.add(Check::names_failure, "FAIL without an ERROR line behind " + quoted(last));
    }
}

// --- where it stood ------------------------------------------------------------------------------

void check_end(Record& record, const std::vector<LogLine>& lines, bool cut_off,
               Findings& findings) {
    if (!record.waited) {
        return;
    }
    // What was said before the device was taken away.
    const auto after = std::find_if(lines.begin(), lines.end(), [](const LogLine& line) {
        return line.stamp_ms && *line.stamp_ms >= patience_ms;
    });
    const std::string_view last = last_said({lines.begin(), after});
    record.wait = find_entry(unlimited_waits, *record.scenario, last);
    if (record.wait == nullptr) {
        findings.add(Check::ends, "still running behind " + quoted(last));
    }
    if (cut_off) {
        findings.add(Check::ends, "does not end once the device is gone, behind " + quoted(last));
    }
}

// --- the flash -----------------------------------------------------------------------------------

std::string hex(std::uint64_t value) {
    std::array<char, 20> text{};
    std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(value));
    return text.data();
}

void check_image(const Rig& rig, Findings& findings) {
    for (const Held& held : rig.held) {
        if (!held.flash->contains(held.address, held.content.size())) {
            findings.add(Check::holds_image, "SUCCESS, but the image reaches past the flash");
            continue;
        }
        const auto cells = held.flash->read(held.address, held.content.size());
        const auto differs = std::mismatch(cells.begin(), cells.end(), held.content.begin());
        if (differs.first != cells.end()) {
            const auto offset = static_cast<std::uint64_t>(differs.first - cells.begin());
            findings.add(Check::holds_image, "SUCCESS, but the flash differs at " +
                                                 hex(held.address + offset) + ", byte " +
                                                 std::to_string(offset) + " of " +
                                                 std::to_string(held.content.size()));
        }
    }
    for (const Written& written : rig.written) {
        if (sim::read_file(written.path) != written.content) {
            findings.add(Check::holds_image, "SUCCESS, but " + written.path + " differs");
        }
    }
}

void check_flash_outside(const Rig& rig, const sim::Flash& flash, Findings& findings) {
    for (const auto& range : flash.touched()) {
        const bool inside =
            std::any_of(rig.regions.begin(), rig.regions.end(), [&](const Region& region) {
                return region.flash == &flash && range.begin >= region.begin &&
                       range.end <= region.end;
            });
        if (!inside) {
            findings.add(Check::stays_inside, "changes " + hex(range.begin) + " to before " +
                                                  hex(range.end) + ", outside the region");
        }
    }
}

void check_outside(const Rig& rig, Findings& findings) {
    std::vector<const sim::Flash*> flashes = rig.flashes;
    for (const Region& region : rig.regions) {
        flashes.push_back(region.flash);
    }
    std::sort(flashes.begin(), flashes.end());
    flashes.erase(std::unique(flashes.begin(), flashes.end()), flashes.end());
    for (const sim::Flash* flash : flashes) {
        check_flash_outside(rig, *flash, findings);
    }
}

// --- the lines -----------------------------------------------------------------------------------

constexpr std::string_view level_tags[] = {"[INFO] ",  "[ERROR] ",   "[DEBUG]", "[PROGRESS] ",
                                           "[SPEED] ", "[SUCCESS] ", "[FAIL] "};

bool is_number(std::string_view text, double least, double most) {
    double value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && stop == text.data() + text.size() && value >= least &&
           value <= most;
}

bool is_progress(std::string_view text) {
    text.remove_prefix(std::string_view("[PROGRESS] ").size());
    if (text.ends_with('\r')) {
        text.remove_suffix(1);
    }
    return text.ends_with('%') && is_number(text.substr(0, text.size() - 1), 0, 100);
}

bool is_speed(std::string_view text) {
    int done = 0;
    int total = 0;
    double rate = -1;
    std::array<char, 8> tail{};
    const std::string line(text);
    return std::sscanf(line.c_str(), "[SPEED] %d Bytes/%d Bytes    %lf KBp%2[s]", &done, &total,
                       &rate, tail.data()) == 4 &&
           done >= 0 && done <= total && rate >= 0;
}

std::string fault_of(const LogLine& line, bool dumps) {
    std::string_view text = line.text;
    if (text.ends_with('\r')) {
        text.remove_suffix(1);
    }
    const bool readable = std::all_of(text.begin(), text.end(), [](char letter) {
        return letter == '\t' || (letter >= ' ' && letter <= '~');
    });
    if (!readable) {
        return "unreadable characters";
    }
    if (!line.stamp_ms) {
        // The images of a package are parted by an empty line.
        const bool known = line.text.empty() || line.text.starts_with("new_argv[") || dumps;
        return known ? "" : "no time stamp";
    }
    if (text.starts_with("[PROGRESS]")) {
        return is_progress(line.text) ? "" : "no percentage";
    }
    if (text.starts_with("[SPEED]")) {
        return is_speed(text) ? "" : "no speed";
    }
    const bool tagged = std::any_of(std::begin(level_tags), std::end(level_tags),
                                    [text](std::string_view tag) { return text.starts_with(tag); });
    return tagged || text.starts_with(' ') ? "" : "no level tag";
}

void check_form(const Record& record, const std::vector<LogLine>& lines, Findings& findings) {
    if (!record.output.ends_with('\n')) {
        findings.add(Check::well_formed, "the last line does not end");
    }
    // With -D the dumps of the traffic stand between the lines, without stamps.
    const bool dumps =
        std::find(record.arguments.begin(), record.arguments.end(), "-D") != record.arguments.end();
    std::uint64_t time = 0;
    for (const LogLine& line : lines) {
        if (const std::string fault = fault_of(line, dumps); !fault.empty()) {
            findings.add(Check::well_formed, fault + " in " + quoted(line.text));
        }
        if (line.stamp_ms) {
            if (*line.stamp_ms < time) {
                findings.add(Check::well_formed, "the clock steps back at " + quoted(line.text));
            }
            time = *line.stamp_ms;
        }
    }
}

}  // namespace

const char* name_of(Check check) {
    switch (check) {
        case Check::ends:
            return "ends";
        case Check::holds_image:
            return "holds the image";
        case Check::stays_inside:
            return "stays inside its region";
        case Check::names_failure:
            return "names its failure";
        case Check::agrees:
            return "line and code agree";
        case Check::well_formed:
            return "well-formed lines";
        case Check::undisturbed:
            return "succeeds undisturbed";
    }
    return "";
}

std::vector<LogLine> split_lines(std::string_view output) {
    std::vector<LogLine> lines;
    while (!output.empty()) {
        const std::size_t end = std::min(output.find('\n'), output.size());
        LogLine line{output.substr(0, end), std::nullopt};
        output.remove_prefix(std::min(end + 1, output.size()));
        unsigned seconds = 0;
        unsigned thousandths = 0;
        const char* const begin = line.text.data();
        const char* const stop = begin + line.text.size();
        if (line.text.starts_with('[')) {
            const auto whole = std::from_chars(begin + 1, stop, seconds);
            if (whole.ec == std::errc() && whole.ptr != stop && *whole.ptr == '.') {
                const auto part = std::from_chars(whole.ptr + 1, stop, thousandths);
                if (part.ec == std::errc() && part.ptr == whole.ptr + 4 && part.ptr != stop &&
                    *part.ptr == ']') {
                    line.stamp_ms = std::uint64_t{seconds} * 1000 + thousandths;
                    line.text.remove_prefix(static_cast<std::size_t>(part.ptr + 1 - begin));
                }
            }
        }
        lines.push_back(line);
    }
    return lines;
}

bool concerns(std::string_view pattern, std::string_view name) {
    return pattern == "*" || pattern == name;
}

void judge(Record& record, const Rig& rig, const sim::ToolRun& run) {
    Findings findings(record, rig);
    const auto lines = split_lines(record.output);
    if (lines.empty()) {
        findings.add(Check::agrees, "no output");
        return;
    }
    record.succeeded = is_success(lines.back().text);
    check_end(record, lines, run.hit_time_limit, findings);
    check_outside(rig, findings);
    check_form(record, lines, findings);
    if (run.hit_time_limit) {
        return;
    }
    check_agreement(record, lines, run.status, findings);
    if (record.succeeded) {
        check_image(rig, findings);
    } else {
        check_failure_is_named(record, lines, findings);
    }
    if (record.faults.empty() && rig.success_expected &&
        *rig.success_expected != record.succeeded) {
        findings.add(Check::undisturbed, std::string(record.succeeded ? "SUCCESS" : "FAIL") +
                                             " without a fault: " + quoted(lines.back().text));
    }
}

}  // namespace orbix::campaign
