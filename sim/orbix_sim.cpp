// orbix_sim: a simulated module on a pseudo-terminal.
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "catalogue.h"
#include "command_line.h"
#include "core/support_table.h"
#include "pty_host.h"

namespace {

using orbix::sim::Model;
using orbix::sim::PtySettings;

constexpr int usage_error = 2;
constexpr std::size_t most_modules = 1000;

void print_help(std::FILE* out) {
    std::fprintf(
        out,
        "orbix_sim: a simulated GNSS module on a pseudo-terminal\n"
        "\n"
        "Usage: orbix_sim MODEL [options]\n"
        "\n"
        "Prints the port to use as its first line, then serves the module of that name\n"
        "until it is stopped (Ctrl-C or SIGTERM). When the port has been closed for a\n"
        "tenth of a second the module restarts; its flash keeps what was written.\n"
        "\n"
        "  --link PATH    make a symbolic link to the port, and print that instead\n"
        "  --count N      serve N modules of that name, each on a port of its own (links and\n"
        "                 dumps then have .1, .2 and so on behind their names)\n"
        "  --rate N       the rate at which the module starts (default 115200)\n"
        "  --pace         let the module's bytes flow at the line's rate too, as the tool's do\n"
        "  --instant      let bytes take no time, for programs that do not wait for the line\n"
        "  --faults LIST  disturb the line, see below\n"
        "  --seed N       seed of everything random (default 1)\n"
        "  --dump FILE    write the whole flash to FILE at the end\n"
        "  --list         print the names of the simulated models\n"
        "  --help         print this text\n"
        "\n"
        "%s",
        orbix::sim::fault_grammar);
}

void list_models() {
    for (const auto& row : orbix::support_table) {
        for (const auto& name : row.names) {
            if (orbix::sim::make_model(name) != nullptr) {
                std::printf("%s\n", name);
            }
        }
    }
}

bool write_dump(const std::string& path, Model& model) {
    const auto cells = model.flash().cells();
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        std::perror(path.c_str());
        return false;
    }
    const bool complete = std::fwrite(cells.data(), 1, cells.size(), file) == cells.size();
    const bool closed = std::fclose(file) == 0;
    if (!complete || !closed) {
        std::perror(path.c_str());
    }
    return complete && closed;
}

}  // namespace

int main(int argc, char** argv) {
    PtySettings settings;
    std::optional<std::vector<orbix::sim::Fault>> faults;
    std::string dump_path;
    unsigned start_rate = 0;
    std::size_t count = 1;
    bool list_wanted = false;
    bool help_wanted = false;
    const std::vector<orbix::sim::Option> options{
        orbix::sim::text("link", settings.link),
        orbix::sim::number<std::size_t>("count", count, 1, most_modules),
        orbix::sim::number("rate", start_rate, 1U),
        orbix::sim::flag("pace", settings.paced),
        orbix::sim::flag("instant", settings.instant),
        orbix::sim::fault_list("faults", faults),
        orbix::sim::number("seed", settings.seed),
        orbix::sim::text("dump", dump_path),
        orbix::sim::flag("list", list_wanted),
        orbix::sim::flag("help", help_wanted),
    };
    const auto words = orbix::sim::read_options(argc, argv, options);
    if (!words) {
        std::fprintf(stderr, "Try 'orbix_sim --help'.\n");
        return usage_error;
    }
    if (help_wanted) {
        print_help(stdout);
        return 0;
    }
    if (list_wanted) {
        list_models();
        return 0;
    }
    if (words->size() != 1) {
        print_help(stderr);
        return usage_error;
    }
    settings.faults = std::move(faults).value_or(std::vector<orbix::sim::Fault>{});
    const std::string& name = words->front();
    std::vector<std::unique_ptr<Model>> models(count);
    for (auto& model : models) {
        model = orbix::sim::make_model(name);
        if (model == nullptr) {
            std::fprintf(stderr, "orbix_sim: no simulated model \"%s\"; --list prints them all\n",
                         name.c_str());
            return usage_error;
        }
        if (start_rate != 0) {
            model->start_baud = start_rate;
        }
    }
    int status = orbix::sim::serve_on_pty(models, settings);
    for (std::size_t number = 0; number < count && !dump_path.empty(); ++number) {
        const std::string path =
            count == 1 ? dump_path : dump_path + "." + std::to_string(number + 1);
        status = write_dump(path, *models[number]) ? status : 1;
    }
    return status;
}
