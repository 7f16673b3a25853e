#include "options.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>

#include "causes.h"
#include "system.h"

namespace orbix::station {

namespace {

constexpr const char* description =
    "Flashes many modules at once: runs one orbix_flash for each port, side by side,\n"
    "shows how far they are, and tells how they ended.";

constexpr const char* usage_line =
    "orbix_station [OPTIONS] PORT... -- ARGUMENTS\n"
    "  orbix_station [OPTIONS] --watch PATTERN -- ARGUMENTS\n"
    "\n"
    "ARGUMENTS are orbix_flash's own, without -p PORT. For example:\n"
    "  orbix_station ttyUSB0 ttyUSB1 -- -m TR52G -b 115200 -f app.bin -t UPG";

constexpr const char* footer =
    "--stall is longer than the longest stated silence of orbix_flash, an erase of three\n"
    "minutes; it also ends waits that have no limit of their own, such as for a button that\n"
    "nobody presses. --timeout is longer than 4 MiB take at 9600 baud.\n"
    "\n"
    "Exit status, of several causes the greatest: 0 all flashed, 1 the station itself failed,\n"
    "2 wrong arguments, 3 port, 4 file, 5 no answer, 6 refused by the module, 7 transfer broke\n"
    "off, 8 time limit, 9 orbix_flash ended without a result, 10 stopped by the operator.\n"
    "\n"
    "Ctrl-C lets the running ones finish and starts no more; a second one ends them at once.";

/// The usage line is ours: the library does not know of what stands behind "--".
class Help : public CLI::Formatter {
  public:
    std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
        return std::string("Usage: ") + usage_line + "\n";
    }
};

/// A check that does not tell its range in the help.
template <typename Number>
CLI::Validator between(Number least, Number most) {
    return CLI::Range(least, most).description("");
}

/// The longest limit of a run that can be set, about eleven days.
constexpr double most_seconds = 1e6;

/// A limit in milliseconds; a shorter one is no reason for none at all. The library lets "nan"
/// through.
std::chrono::milliseconds limit_of(const char* option, double seconds) {
    if (std::isnan(seconds)) {
        throw std::invalid_argument(std::string(option) + ": nan is no number of seconds");
    }
    return std::chrono::ceil<std::chrono::milliseconds>(std::chrono::duration<double>(seconds));
}

/// Where the program is: the path that was asked for, beside this program, or in the PATH.
std::string find_flash_program(const std::string& wanted) {
    namespace fs = std::filesystem;
    std::error_code failure;
    if (!wanted.empty()) {
        const fs::path path = fs::absolute(wanted, failure);
        if (!fs::is_regular_file(path, failure)) {
            throw std::runtime_error("--flash-program: there is no file " + wanted);
        }
        return path.string();
    }
    const std::string name = system::program_name("orbix_flash");
    std::string beside = system::own_folder() + name;
    if (fs::is_regular_file(beside, failure)) {
        return beside;
    }
    for (const std::string& folder : system::search_folders()) {
        const fs::path path = fs::path(folder) / name;
        if (fs::is_regular_file(path, failure)) {
            return path.string();
        }
    }
    throw std::runtime_error(
        "orbix_flash is neither beside orbix_station nor in the PATH; "
        "--flash-program FILE names it");
}

void check_ports(const Options& options) {
    if (options.ports.empty() && options.watch.empty()) {
        throw std::invalid_argument("name at least one port, or --watch PATTERN");
    }
    if (!options.ports.empty() && !options.watch.empty()) {
        throw std::invalid_argument("either ports or --watch, not both");
    }
    std::map<std::string, std::string> devices;
    for (const std::string& port : options.ports) {
        const auto [other, is_new] = devices.emplace(system::device_of(port), port);
        if (!is_new) {
            throw std::invalid_argument(port == other->second ? port + " is named twice"
                                                              : port + " and " + other->second +
                                                                    " are the same port");
        }
    }
    if (options.flash.readback && (options.ports.size() != 1 || !options.watch.empty())) {
        throw std::invalid_argument("-o reads one module back: several would write the same file");
    }
}

/// A line for standard error and the exit status that goes with it.
int refuse(const std::string& why, Cause cause) {
    std::cerr << "orbix_station: " << why << "\n";
    return static_cast<int>(cause);
}

}  // namespace

std::optional<Options> parse_options(int argc, const char* const* argv, int& status) {
    std::vector<std::string> own;
    std::vector<std::string> passed_on;
    bool divided = false;
    for (int index = 1; index < argc; ++index) {
        const std::string word = argv[index];
        if (!divided && word == "--") {
            divided = true;
        } else {
            (divided ? passed_on : own).push_back(word);
        }
    }

    Options options;
    double time_limit = std::chrono::duration<double>(default_time_limit).count();
    double silence_limit = std::chrono::duration<double>(default_silence_limit).count();
    std::string program;
    CLI::App app(description, "orbix_station");
    app.footer(footer);
    const auto help = std::make_shared<Help>();
    help->column_width(26);
    app.formatter(help);
    app.set_version_flag("--version", ORBIX_STATION_VERSION, "print the version");
    app.add_option("PORT", options.ports, "the ports, as orbix_flash takes them");
    app.add_option("--jobs", options.jobs, "at most N runs side by side (default: all)")
        ->type_name("N")
        ->check(between(1, 1024));
    app.add_option("--retries", options.retries,
                   "N more attempts after a failure (default 0),\n"
                   "none where the command line or a file is at fault")
        ->type_name("N")
        ->check(between(0, 100));
    app.add_option("--timeout", time_limit,
                   "end a run that takes longer (default 5400, 0: no limit)")
        ->type_name("SECONDS")
        ->check(between(0.0, most_seconds));
    app.add_option("--stall", silence_limit,
                   "end a run that writes nothing for so long\n(default 240, 0: no limit)")
        ->type_name("SECONDS")
        ->check(between(0.0, most_seconds));
    app.add_option("--watch", options.watch,
                   "production: flash each port that matches once it\n"
                   "appears, those that are there already too, none\n"
                   "twice without being unplugged; Ctrl-C ends")
        ->type_name("PATTERN");
    app.add_option("--json", options.json,
                   "append a record of each event to FILE, one JSON\n"
                   "object a line; - is standard output")
        ->type_name("FILE");
    app.add_option("--log-dir", options.log_folder, "keep the full output of each run in FOLDER")
        ->type_name("FOLDER");
    app.add_option("--http", options.http, "serve the live table as a page")
        ->type_name("[ADDRESS:]PORT");
    app.add_flag("--plain", options.plain, "plain lines also on a terminal");
    app.add_option("--flash-program", program,
                   "the orbix_flash to run (default: the one beside\nthis program, then the PATH)")
        ->type_name("FILE");

    try {
        std::vector<std::string> reversed(own.rbegin(), own.rend());
        app.parse(reversed);
    } catch (const CLI::ParseError& error) {
        const int result = app.exit(error, std::cout, std::cerr);
        status = result == 0 ? 0 : static_cast<int>(Cause::usage);
        return std::nullopt;
    }
    try {
        options.time_limit = limit_of("--timeout", time_limit);
        options.silence_limit = limit_of("--stall", silence_limit);
        if (passed_on.empty()) {
            throw std::invalid_argument(
                "put the arguments of orbix_flash behind \"--\"; "
                "--help shows an example");
        }
        options.flash = read_flash_arguments(passed_on);
        check_ports(options);
    } catch (const std::invalid_argument& error) {
        status = refuse(error.what(), Cause::usage);
        return std::nullopt;
    }
    try {
        options.flash_program = find_flash_program(program);
    } catch (const std::runtime_error& error) {
        status = refuse(error.what(), Cause::internal);
        return std::nullopt;
    }
    return options;
}

}  // namespace orbix::station
