#include "flash_lines.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace orbix::station {

namespace {

constexpr std::string_view success_lines[] = {"[SUCCESS] orbix_flash upgrade success",
                                              "[SUCCESS] orbix_flash readback success"};
constexpr std::string_view failure_starts[] = {"[FAIL] orbix_flash upgrade fail,ret:[",
                                               "[FAIL] orbix_flash readback fail,ret:["};

/// How much of the failure's lines is told.
constexpr std::size_t failures_told = 3;

bool is_digit(char letter) {
    return letter >= '0' && letter <= '9';
}

std::string_view without_line_end(std::string_view text) {
    while (text.ends_with('\r') || text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return text;
}

/// Length of the stamp "[SSS.mmm]" that the text begins with, 0 without one.
std::size_t stamp_length(std::string_view text) {
    if (!text.starts_with('[')) {
        return 0;
    }
    std::size_t at = 1;
    while (at < text.size() && is_digit(text[at])) {
        ++at;
    }
    const bool whole = at >= 4 && at + 4 < text.size() && text[at] == '.' &&
                       is_digit(text[at + 1]) && is_digit(text[at + 2]) && is_digit(text[at + 3]) &&
                       text[at + 4] == ']';
    return whole ? at + 5 : 0;
}

/// Where the next stamp begins, from `from` on. A few lines of the tool have no end: the next one
/// stands behind them.
std::size_t next_stamp(std::string_view text, std::size_t from) {
    for (std::size_t at = text.find('[', from); at != std::string_view::npos;
         at = text.find('[', at + 1)) {
        if (stamp_length(text.substr(at)) != 0) {
            return at;
        }
    }
    return text.size();
}

bool take_prefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix)) {
        return false;
    }
    text.remove_prefix(prefix.size());
    return true;
}

template <typename Number>
bool take_number(std::string_view& text, Number& number) {
    Number value{};
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc()) {
        return false;
    }
    number = value;
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
    return true;
}

/// A program in the tool's place may print what it likes, "nan" too.
double per_cent(double read) {
    return read >= 0 ? std::min(read, 100.0) : 0;
}

/// The first row whose pattern fits, or null.
template <typename Row>
const Row* find_text(std::span<const Row> table, std::string_view text) {
    const auto row = std::find_if(table.begin(), table.end(),
                                  [text](const Row& each) { return fits(text, each.pattern); });
    return row != table.end() ? &*row : nullptr;
}

Meaning meaning_of(std::string_view failure) {
    const ErrorText* const known = find_text(error_texts(), failure);
    return known != nullptr ? known->meaning : Meaning::broke_off;
}

/// The cause that lies before any dialogue with the module, and is certain; none for a meaning that
/// leaves it open.
Cause certain_cause(Meaning meaning) {
    switch (meaning) {
        case Meaning::usage:
            return Cause::usage;
        case Meaning::port:
            return Cause::port;
        case Meaning::file:
            return Cause::file;
        case Meaning::no_sync:
        case Meaning::refused:
        case Meaning::broke_off:
        case Meaning::remark:
            break;
    }
    return Cause::none;
}

}  // namespace

bool fits(std::string_view text, std::string_view pattern) {
    const std::size_t star = pattern.find('*');
    if (star == std::string_view::npos) {
        return text == pattern;
    }
    if (!take_prefix(text, pattern.substr(0, star))) {
        return false;
    }
    pattern.remove_prefix(star + 1);
    // What stands between two stars is taken where it first occurs; what is behind the last one
    // ends the text.
    for (std::size_t next = pattern.find('*'); next != std::string_view::npos;
         next = pattern.find('*')) {
        const std::size_t at = text.find(pattern.substr(0, next));
        if (at == std::string_view::npos) {
            return false;
        }
        text.remove_prefix(at + next);
        pattern.remove_prefix(next + 1);
    }
    return text.ends_with(pattern);
}

void FlashLines::take(std::string_view line) {
    line = without_line_end(line);
    if (result_ != Result::none) {
        result_ = Result::spoilt;
        return;
    }
    const std::size_t stamp = stamp_length(line);
    if (stamp != 0 && take_result(line.substr(stamp))) {
        return;
    }
    if (line.starts_with("new_argv[")) {
        arguments_shown_ = true;
        return;
    }
    for (std::size_t begin = next_stamp(line, 0); begin < line.size();) {
        const std::size_t end = next_stamp(line, begin + 1);
        std::string_view part = line.substr(begin, end - begin);
        part.remove_prefix(stamp_length(part));
        take_part(part);
        begin = end;
    }
}

bool FlashLines::take_result(std::string_view line) {
    if (std::find(std::begin(success_lines), std::end(success_lines), line) !=
        std::end(success_lines)) {
        result_ = Result::success;
        return true;
    }
    for (const std::string_view start : failure_starts) {
        std::string_view rest = line;
        if (take_prefix(rest, start) && take_number(rest, code) && rest == "]") {
            result_ = Result::failure;
            return true;
        }
    }
    return false;
}

/// A line of the tool, or what stands of it between two stamps; without its stamp.
void FlashLines::take_part(std::string_view text) {
    if (text.starts_with("[DEBUG]")) {
        return;
    }
    family_spoke_ = family_spoke_ || arguments_shown_;
    if (take_prefix(text, "[ERROR] ")) {
        failures_.emplace_back(without_line_end(text));
        const Cause certain = certain_cause(meaning_of(failures_.back()));
        // A few families report success where nothing was flashed.
        nothing_flashed_ = certain != Cause::none ? certain : nothing_flashed_;
        return;
    }
    if (take_prefix(text, "[PROGRESS] ")) {
        double read = 0;
        if (take_number(text, read)) {
            percent = per_cent(read);
        }
        go_on();
        return;
    }
    if (take_prefix(text, "[SPEED] ")) {
        take_speed(text);
        go_on();
        return;
    }
    take_prefix(text, "[INFO] ");
    if (text.starts_with(" Usage: ")) {
        usage_shown_ = true;
        nothing_flashed_ = Cause::usage;
    }
    if (fits(text, "Invalid upgrade mode:*")) {
        failures_.emplace_back(text);  // the one refusal of a command line without an ERROR tag
    }
    if (const auto* const kind = find_text(context_texts(), text)) {
        contexts_.push_back(kind->context);
    }
    for (const StepText& step : step_texts()) {
        if ((step.only_in.empty() || is_in(step.only_in)) && fits(text, step.pattern)) {
            take_step(step);
            return;
        }
    }
}

void FlashLines::take_step(const StepText& step) {
    const Phase before = phase;
    phase = std::max(phase, step.phase);
    answered_ = answered_ || step.answered;
    if (phase != before) {
        percent = 0;
    }
    go_on();
    waiting_for = step.hand;
}

/// "4096 Bytes/400123 Bytes    13.8 KBps"
void FlashLines::take_speed(std::string_view text) {
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    double rate = 0;
    if (!take_number(text, done) || !take_prefix(text, " Bytes/") || !take_number(text, total) ||
        !take_prefix(text, " Bytes    ") || !take_number(text, rate)) {
        return;
    }
    if (phase == Phase::write) {
        if (bytes_flashed > bytes_before_ + done) {
            bytes_before_ = bytes_flashed;  // the next image of a package
        }
        bytes_flashed = bytes_before_ + done;
    }
    bytes_done = done;
    bytes_total = total;
    kbytes_per_second = rate;
    if (total != 0) {
        percent = per_cent(100.0 * static_cast<double>(done) / static_cast<double>(total));
    }
}

/// What was wrong before this has been got over.
void FlashLines::go_on() {
    failures_.clear();
    waiting_for.clear();
}

bool FlashLines::is_in(std::string_view context) const {
    return std::find(contexts_.begin(), contexts_.end(), context) != contexts_.end();
}

void FlashLines::take_error_output(std::string_view line) {
    line = without_line_end(line);
    if (line.starts_with("fopen: ") || line.starts_with("fread: ") ||
        line.starts_with("hint: the image has changed its length during the run")) {
        file_failed_ = true;
    }
    if (take_prefix(line, "hint: ")) {
        hint = line;
        if (line.starts_with("the package has no image to write")) {
            failures_.emplace_back(line);
            nothing_flashed_ = Cause::file;
        }
    }
}

bool FlashLines::has_result() const {
    return result_ == Result::success || result_ == Result::failure;
}

void FlashLines::end(std::string_view unfinished, bool port_gone) {
    if (!unfinished.empty()) {
        result_ = Result::spoilt;
    }
    waiting_for.clear();
    message = failure_in_words();
    switch (result_) {
        case Result::success:
            cause = nothing_flashed_;
            break;
        case Result::failure:
            cause = cause_of_failure(port_gone);
            break;
        case Result::none:
            cause = usage_shown_ ? Cause::usage : Cause::no_result;
            break;
        case Result::spoilt:
            cause = Cause::no_result;
            message = "the result line is not the last line";
            break;
    }
}

Cause FlashLines::cause_of_failure(bool port_gone) const {
    const Cause broke_off = answered_ ? Cause::transfer : Cause::no_sync;
    if (failures_.empty() && arguments_shown_ && !family_spoke_) {
        return Cause::usage;  // a model that the tool does not know, or cannot read back
    }
    Cause found = broke_off;
    for (const std::string& failure : failures_) {
        const Meaning meaning = meaning_of(failure);
        if (const Cause certain = certain_cause(meaning); certain != Cause::none) {
            return certain;
        }
        if (meaning == Meaning::refused) {
            found = port_gone ? broke_off : Cause::refused;
        } else if (meaning == Meaning::no_sync && found != Cause::refused) {
            found = Cause::no_sync;
        }
    }
    return file_failed_ ? Cause::file : found;
}

/// The last lines of the failure, each of them once.
std::string FlashLines::failure_in_words() const {
    std::vector<std::string_view> told;
    for (auto failure = failures_.rbegin();
         failure != failures_.rend() && told.size() < failures_told; ++failure) {
        if (std::find(told.begin(), told.end(), *failure) == told.end()) {
            told.insert(told.begin(), *failure);
        }
    }
    std::string words;
    for (const std::string_view text : told) {
        words += (words.empty() ? "" : "; ") + std::string(text);
    }
    return words;
}

}  // namespace orbix::station
