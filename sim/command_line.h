// The options of a program: a table of them, read by one loop.
#pragma once

#include <charconv>
#include <functional>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "faults.h"

namespace orbix::sim {

/// An option, "--NAME" or "--NAME VALUE".
struct Option {
    const char* name;
    bool has_value;

    /// Takes the value. Returns what is to be said against it, or an empty text.
    std::function<std::string(std::string_view value)> take;
};

/// One that is set by being there.
Option flag(const char* name, bool& is_set);

/// One whose value is any text.
Option text(const char* name, std::string& value);

/// One whose value is a list of faults.
Option fault_list(const char* name, std::optional<std::vector<Fault>>& faults);

/// One whose value is a whole number from `least` to `most`.
template <typename Number>
Option number(const char* name, Number& value, Number least = 0,
              Number most = std::numeric_limits<Number>::max()) {
    return {name, true, [&value, least, most](std::string_view digits) -> std::string {
                Number read{};
                const char* const end = digits.data() + digits.size();
                const auto [stop, error] = std::from_chars(digits.data(), end, read);
                if (error != std::errc() || stop != end || read < least || read > most) {
                    return "takes a number from " + std::to_string(least) + " to " +
                           std::to_string(most);
                }
                value = read;
                return {};
            }};
}

/// Reads a command line. Returns the words that are no options; nothing, after a line on standard
/// error, when an option is not understood. "-h" stands for "--help".
std::optional<std::vector<std::string>> read_options(int argc, char** argv,
                                                     std::span<const Option> options);

}  // namespace orbix::sim
