#include "command_line.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace orbix::sim {

namespace {

/// getopt names an option of the table by its place in it, counted from here: behind all letters.
constexpr int first_code = 256;

/// The option that getopt has found, or null for one that it does not know.
const Option* find(std::span<const Option> options, int code) {
    if (code >= first_code) {
        return &options[static_cast<std::size_t>(code - first_code)];
    }
    const auto help = std::find_if(options.begin(), options.end(), [](const Option& each) {
        return std::string_view(each.name) == "help";
    });
    return code == 'h' && help != options.end() ? &*help : nullptr;
}

}  // namespace

Option flag(const char* name, bool& is_set) {
    return {name, false, [&is_set](std::string_view /*none*/) -> std::string {
                is_set = true;
                return {};
            }};
}

Option text(const char* name, std::string& value) {
    return {name, true, [&value](std::string_view word) -> std::string {
                value = word;
                return {};
            }};
}

Option fault_list(const char* name, std::optional<std::vector<Fault>>& faults) {
    return {name, true, [&faults](std::string_view list) -> std::string {
                std::string error;
                faults = parse_faults(list, error);
                return faults ? "" : "is not understood: " + error;
            }};
}

std::optional<std::vector<std::string>> read_options(int argc, char** argv,
                                                     std::span<const Option> options) {
    std::vector<option> known;
    for (const Option& each : options) {
        known.push_back({each.name, each.has_value ? required_argument : no_argument, nullptr,
                         first_code + static_cast<int>(known.size())});
    }
    known.push_back({nullptr, 0, nullptr, 0});
    for (int code = getopt_long(argc, argv, "h", known.data(), nullptr); code != -1;
         code = getopt_long(argc, argv, "h", known.data(), nullptr)) {
        const Option* const found = find(options, code);
        if (found == nullptr) {
            return std::nullopt;  // getopt has said so
        }
        const std::string objection = found->take(optarg != nullptr ? optarg : "");
        if (!objection.empty()) {
            std::fprintf(stderr, "%s: --%s %s\n", program_invocation_short_name, found->name,
                         objection.c_str());
            return std::nullopt;
        }
    }
    return std::vector<std::string>(argv + optind, argv + argc);
}

}  // namespace orbix::sim
