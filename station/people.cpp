#include "people.h"

#include <algorithm>
#include <array>
#include <cstdarg>

namespace orbix::station {

namespace {

[[gnu::format(printf, 1, 2)]] std::string formatted(const char* format, ...) {
    std::array<char, 256> text{};
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    return text.data();
}

void write_line(std::FILE* file, const std::string& text) {
    const std::string line = text + "\n";
    std::fwrite(line.data(), 1, line.size(), file);
    std::fflush(file);
}

}  // namespace

// --- plain lines ---------------------------------------------------------------------------------

void PlainLines::line(const Row& row, const std::string& text) {
    write_line(file_, row.port + ": " + text);
}

void PlainLines::note(const std::string& text) {
    write_line(file_, text);
}

void PlainLines::started(const Row& row) {
    tenths_[row.port] = 0;
    const std::string again = row.attempt > 1 ? formatted(", attempt %d", row.attempt) : "";
    line(row, "start " + row.model + again);
}

void PlainLines::phase(const Row& row) {
    tenths_[row.port] = 0;
    line(row, std::string(phase_name(row.phase)));
}

void PlainLines::progress(const Row& row) {
    const int tenth = static_cast<int>(row.percent / 10);
    int& told = tenths_[row.port];
    if (row.phase != Phase::write || tenth == told) {
        return;
    }
    told = tenth;
    if (tenth != 0) {
        line(row, formatted("write %d %%, %.1f KB/s", tenth * 10, row.kbytes_per_second));
    }
}

void PlainLines::waiting(const Row& row) {
    line(row, "waiting: " + row.waiting_for);
}

void PlainLines::attempt_failed(const Row& row) {
    line(row, formatted("attempt %d failed: ", row.attempt) + outcome_in_words(row));
}

void PlainLines::result(const Row& row) {
    tenths_.erase(row.port);
    line(row, (row.cause == Cause::none ? "good: " : "FAILED: ") + outcome_in_words(row));
}

std::string outcome_in_words(const Row& row) {
    std::string text(cause_words(row.cause));
    if (row.cause == Cause::none) {
        text += formatted(" in %.1f s", row.seconds);
    }
    if (!row.message.empty()) {
        text += (row.cause == Cause::none ? ", but: " : ": ") + row.message;
    }
    return text;
}

std::vector<std::string> summary_lines(const Counters& counters, const std::vector<Row>& failed) {
    std::vector<std::string> lines{formatted("%llu good, %llu bad",
                                             static_cast<unsigned long long>(counters.good),
                                             static_cast<unsigned long long>(counters.bad))};
    for (const Row& row : failed) {
        lines.push_back("  " + row.port + ": " + outcome_in_words(row));
    }
    return lines;
}

}  // namespace orbix::station
