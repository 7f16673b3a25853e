// What orbix_flash's lines mean: where a run is, how far, what a person has to do now, and at the
// end how it went. Pure: takes the lines one at a time, knows no clock and no process.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "board.h"
#include "causes.h"

namespace orbix::station {

/// Whether a text fits a pattern, in which each '*' stands for any number of any characters.
bool fits(std::string_view text, std::string_view pattern);

/// What an ERROR line says about the reason of a failure.
enum class Meaning : std::uint8_t {
    // As the causes of these names.
    usage,
    port,
    file,
    no_sync,
    refused,
    broke_off,  ///< the module fell silent or out of step: no_sync before its first answer, else
                ///< transfer
    remark,     ///< says nothing about the reason; a line beside it does
};

/// A kind of ERROR line.
struct ErrorText {
    std::string_view pattern;  ///< of the text behind the tag
    Meaning meaning;
};

/// All ERROR lines of orbix_flash. The first pattern that fits counts.
std::span<const ErrorText> error_texts();

/// What a line of the tool says about the run, besides its errors.
struct StepText {
    std::string_view pattern;  ///< of the text behind the stamp and the tag
    Phase phase;               ///< the run is here now
    bool answered = false;     ///< the module has answered when the tool is here
    std::string_view hand;     ///< what a person has to do now, or empty

    /// Counts only in runs of this kind (see `ContextText`); empty: in all.
    std::string_view only_in;
};

/// A line that tells of what kind a run is.
struct ContextText {
    std::string_view pattern;  ///< of the text behind the stamp and the tag
    std::string_view context;
};

/// All of them. The first that fits counts; one run may be of several kinds.
std::span<const ContextText> context_texts();

/// All lines that move a run on. The first that fits counts.
std::span<const StepText> step_texts();

/// One run, followed by its lines.
class FlashLines {
  public:
    /// Takes a line of standard output, without its line feed.
    void take(std::string_view line);

    /// Takes a line of standard error.
    void take_error_output(std::string_view line);

    /// The output has ended; `unfinished` is what came behind the last line feed. `port_gone`: the
    /// device has vanished, which some families report as a refusal.
    void end(std::string_view unfinished, bool port_gone = false);

    /// Whether a result line has come, and nothing behind it.
    [[nodiscard]] bool has_result() const;

    // Where it is.
    Phase phase = Phase::connect;
    std::string waiting_for;  ///< what a person has to do now, or empty
    double percent = 0;       ///< of the step, 0 to 100
    std::uint64_t bytes_done = 0;
    std::uint64_t bytes_total = 0;
    double kbytes_per_second = 0;

    // How it went; all of it meant after `end`.
    Cause cause = Cause::no_result;
    int code = 0;                     ///< of the FAIL line
    std::string message;              ///< the failure in the tool's own words
    std::string hint;                 ///< the tool's hint on standard error, without "hint: "
    std::uint64_t bytes_flashed = 0;  ///< in all transfers of the phase write

  private:
    bool take_result(std::string_view line);
    void take_part(std::string_view text);
    void take_step(const StepText& step);
    void take_speed(std::string_view text);
    void go_on();
    [[nodiscard]] bool is_in(std::string_view context) const;
    [[nodiscard]] Cause cause_of_failure(bool port_gone) const;
    [[nodiscard]] std::string failure_in_words() const;

    enum class Result : std::uint8_t { none, success, failure, spoilt };

    Result result_ = Result::none;
    bool arguments_shown_ = false;
    bool family_spoke_ = false;  ///< behind its arguments
    bool usage_shown_ = false;
    Cause nothing_flashed_ = Cause::none;     ///< why a success would not be one
    bool answered_ = false;                   ///< by the module
    bool file_failed_ = false;                ///< standard error says so
    std::uint64_t bytes_before_ = 0;          ///< flashed by the transfers that are over
    std::vector<std::string_view> contexts_;  ///< of this run
    std::vector<std::string> failures_;       ///< ERROR texts since the run last went on
};

}  // namespace orbix::station
