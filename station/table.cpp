#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstdio>

#include "people.h"

namespace orbix::station {

namespace {

constexpr std::string_view red = "\x1B[31m";
constexpr std::string_view green = "\x1B[32m";
constexpr std::string_view yellow = "\x1B[33m";
constexpr std::string_view plain = "\x1B[0m";
constexpr std::string_view hide_cursor = "\x1B[?25l";
constexpr std::string_view show_cursor = "\x1B[?25h";
constexpr std::string_view to_line_end = "\x1B[K";
constexpr std::string_view to_screen_end = "\x1B[J";

constexpr std::size_t bar_width = 20;

/// How many columns a text takes: one for each character, none for what continues one.
std::size_t columns_of(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char letter) {
        return (static_cast<unsigned char>(letter) & 0xC0U) != 0x80;
    }));
}

/// The text in exactly, or at most, so many columns.
std::string cut(std::string_view text, std::size_t columns) {
    std::size_t taken = 0;
    std::size_t at = 0;
    while (at < text.size()) {
        const bool begins = (static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80;
        if (begins && taken++ == columns) {
            break;
        }
        ++at;
    }
    return std::string(text.substr(0, at));
}

std::string padded(std::string_view text, std::size_t columns) {
    std::string result = cut(text, columns);
    result.append(columns - columns_of(result), ' ');
    return result;
}

std::string bar_of(double percent) {
    const double share = std::clamp(percent, 0.0, 100.0) / 100;
    const auto filled = static_cast<std::size_t>(std::lround(share * bar_width));
    return std::string(filled, '#') + std::string(bar_width - filled, '.');
}

std::string clock_of(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%lld:%02lld", whole / 60, whole % 60);
    return text.data();
}

bool has_failed(const Row& row) {
    return row.phase == Phase::done && row.cause != Cause::none;
}

bool is_running(const Row& row) {
    return row.phase != Phase::done && row.phase != Phase::queued;
}

/// With too little room the failed ones are kept, then those that wait for a hand, then the
/// running ones, then the rest.
int importance(const Row& row) {
    if (has_failed(row)) {
        return 0;
    }
    if (is_running(row)) {
        return row.waiting_for.empty() ? 2 : 1;
    }
    return row.phase == Phase::queued ? 3 : 4;
}

/// What stands in the last column, and its colour.
std::string remark_of(const Row& row, std::string_view& colour) {
    colour = {};
    if (has_failed(row)) {
        colour = red;
        std::string text = "FAILED " + std::string(cause_words(row.cause));
        return row.message.empty() ? text : text + ": " + row.message;
    }
    if (row.phase == Phase::done) {
        colour = green;
        return row.message.empty() ? "good" : "good, but: " + row.message;
    }
    if (!row.waiting_for.empty()) {
        colour = yellow;
        return "waiting: " + row.waiting_for;
    }
    return row.attempt > 1 ? "attempt " + std::to_string(row.attempt) : "";
}

double elapsed(const Row& row, Clock::time_point now) {
    if (row.phase == Phase::done) {
        return row.seconds;
    }
    return is_running(row) ? std::chrono::duration<double>(now - row.started).count() : 0;
}

std::string line_of(const Row& row, std::size_t port_columns, std::size_t columns,
                    Clock::time_point now, bool coloured) {
    std::array<char, 64> numbers{};
    std::snprintf(numbers.data(), numbers.size(), "%3.0f%% %6.1f %6s", row.percent,
                  row.kbytes_per_second, clock_of(elapsed(row, now)).c_str());
    std::string line = padded(row.port, port_columns) + " " + padded(row.model, 15) + " " +
                       padded(phase_name(row.phase), 7) + " ";
    // A narrow terminal does without the bar.
    line += columns >= 90 ? bar_of(row.percent) + " " : "";
    line += numbers.data();
    line += " ";
    line = cut(line, columns);
    std::string_view colour;
    const std::string remark = cut(remark_of(row, colour), columns - columns_of(line));
    if (!coloured || colour.empty()) {
        return line + remark;
    }
    return line + std::string(colour) + remark + std::string(plain);
}

std::string heading(std::size_t port_columns, std::size_t columns) {
    std::string line =
        padded("PORT", port_columns) + " " + padded("MODEL", 15) + " " + padded("PHASE", 7) + " ";
    line += columns >= 90 ? padded("", bar_width) + " " : "";
    return cut(line + "   %   KB/s   TIME RESULT", columns);
}

std::vector<Row> most_important(std::vector<Row> rows, std::size_t room) {
    std::stable_sort(rows.begin(), rows.end(), [](const Row& one, const Row& other) {
        return importance(one) < importance(other);
    });
    rows.resize(room);
    std::sort(rows.begin(), rows.end(),
              [](const Row& one, const Row& other) { return one.port < other.port; });
    return rows;
}

std::string totals(const std::vector<Row>& rows, const Counters& counters, std::size_t hidden) {
    const auto running = std::count_if(rows.begin(), rows.end(), is_running);
    const auto queued = std::count_if(rows.begin(), rows.end(),
                                      [](const Row& row) { return row.phase == Phase::queued; });
    std::string text = std::to_string(counters.good) + " good, " + std::to_string(counters.bad) +
                       " bad, " + std::to_string(running) + " running, " + std::to_string(queued) +
                       " queued";
    return hidden == 0 ? text : text + "; " + std::to_string(hidden) + " more not shown";
}

}  // namespace

std::vector<std::string> table_lines(const std::vector<Row>& rows, const Counters& counters,
                                     system::TerminalSize size, Clock::time_point now,
                                     bool coloured) {
    constexpr std::size_t least_columns = 20;
    // The cursor stands in the last line, and a full line must not wrap.
    const std::size_t columns = std::max(size.columns, least_columns) - 1;
    const std::size_t room = std::max<std::size_t>(size.lines, 4) - 3;
    const std::vector<Row> shown = rows.size() > room ? most_important(rows, room) : rows;
    std::size_t port_columns = 4;
    for (const Row& row : shown) {
        port_columns = std::max(port_columns, columns_of(row.port));
    }
    port_columns = std::min(port_columns, columns / 4);
    std::vector<std::string> lines{heading(port_columns, columns)};
    for (const Row& row : shown) {
        lines.push_back(line_of(row, port_columns, columns, now, coloured));
    }
    lines.push_back(cut(totals(rows, counters, rows.size() - shown.size()), columns));
    return lines;
}

LiveTable::LiveTable(const Board& board) : board_(board) {
    std::fwrite(hide_cursor.data(), 1, hide_cursor.size(), stdout);
    std::fflush(stdout);
}

LiveTable::~LiveTable() {
    close();
}

void LiveTable::draw() {
    const Changes changes = board_.changes_since(version_);
    const auto now = Clock::now();
    const auto second =
        std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    const bool clock_moved =
        second != second_ &&
        std::any_of(rows_.begin(), rows_.end(), [](auto& each) { return is_running(each.second); });
    if (changes.version == version_ && !clock_moved && !shown_.empty()) {
        return;
    }
    version_ = changes.version;
    second_ = second;
    for (const Row& row : changes.rows) {
        rows_[row.port] = row;
    }
    std::vector<Row> rows;
    for (const std::string& port : changes.ports) {
        rows.push_back(rows_[port]);
    }
    std::erase_if(rows_, [&changes](const auto& each) {
        return !std::binary_search(changes.ports.begin(), changes.ports.end(), each.first);
    });
    const auto size = system::terminal_size().value_or(system::TerminalSize{});
    const std::vector<std::string> lines = table_lines(rows, changes.counters, size, now);

    // Back to the table's first line, then each line over the old one.
    std::string text;
    if (!shown_.empty()) {
        text += "\x1B[" + std::to_string(shown_.size()) + "A\r";
    }
    for (const std::string& line : lines) {
        text += line + std::string(to_line_end) + "\n";
    }
    text += to_screen_end;
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    shown_ = lines;
}

void LiveTable::erase() {
    if (!shown_.empty()) {
        const std::string text =
            "\x1B[" + std::to_string(shown_.size()) + "A\r" + std::string(to_screen_end);
        std::fwrite(text.data(), 1, text.size(), stdout);
        shown_.clear();
    }
}

void LiveTable::note(const std::string& text) {
    erase();
    std::fwrite((text + "\n").data(), 1, text.size() + 1, stdout);
    draw();
}

void LiveTable::close() {
    if (open_) {
        open_ = false;
        std::fwrite(show_cursor.data(), 1, show_cursor.size(), stdout);
        std::fflush(stdout);
    }
}

}  // namespace orbix::station
