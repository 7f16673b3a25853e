// orbix_sim: a simulated module on a pseudo-terminal.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "catalogue.h"
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
    enum Option : int {
        o_link = 1,
        o_count,
        o_rate,
        o_pace,
        o_instant,
        o_faults,
        o_seed,
        o_dump,
        o_list,
        o_help
    };
    const option long_options[] = {
        {"link", required_argument, nullptr, o_link},
        {"count", required_argument, nullptr, o_count},
        {"rate", required_argument, nullptr, o_rate},
        {"pace", no_argument, nullptr, o_pace},
        {"instant", no_argument, nullptr, o_instant},
        {"faults", required_argument, nullptr, o_faults},
        {"seed", required_argument, nullptr, o_seed},
        {"dump", required_argument, nullptr, o_dump},
        {"list", no_argument, nullptr, o_list},
        {"help", no_argument, nullptr, o_help},
        {nullptr, 0, nullptr, 0},
    };
    PtySettings settings;
    std::string dump_path;
    unsigned start_rate = 0;
    std::size_t count = 1;
    for (int letter = getopt_long(argc, argv, "h", long_options, nullptr); letter != -1;
         letter = getopt_long(argc, argv, "h", long_options, nullptr)) {
        switch (letter) {
            case o_link:
                settings.link = optarg;
                break;
            case o_count:
                count = std::strtoul(optarg, nullptr, 10);
                if (count == 0 || count > most_modules) {
                    std::fprintf(stderr, "orbix_sim: --count takes a number from 1 to %zu\n",
                                 most_modules);
                    return usage_error;
                }
                break;
            case o_rate:
                start_rate = static_cast<unsigned>(std::strtoul(optarg, nullptr, 10));
                if (start_rate == 0) {
                    std::fprintf(stderr, "orbix_sim: --rate takes a number of bits a second\n");
                    return usage_error;
                }
                break;
            case o_pace:
                settings.paced = true;
                break;
            case o_instant:
                settings.instant = true;
                break;
            case o_faults: {
                std::string error;
                const auto parsed = orbix::sim::parse_faults(optarg, error);
                if (!parsed) {
                    std::fprintf(stderr, "orbix_sim: --faults: %s\n", error.c_str());
                    return usage_error;
                }
                settings.faults = *parsed;
                break;
            }
            case o_seed:
                settings.seed = std::strtoull(optarg, nullptr, 10);
                break;
            case o_dump:
                dump_path = optarg;
                break;
            case o_list:
                list_models();
                return 0;
            case 'h':
            case o_help:
                print_help(stdout);
                return 0;
            default:
                std::fprintf(stderr, "Try 'orbix_sim --help'.\n");
                return usage_error;
        }
    }
    if (optind + 1 != argc) {
        print_help(stderr);
        return usage_error;
    }
    std::vector<std::unique_ptr<Model>> models(count);
    for (auto& model : models) {
        model = orbix::sim::make_model(argv[optind]);
        if (model == nullptr) {
            std::fprintf(stderr, "orbix_sim: no simulated model \"%s\"; --list prints them all\n",
                         argv[optind]);
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
