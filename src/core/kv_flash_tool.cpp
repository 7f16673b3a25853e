#include "core/kv_flash_tool.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/options.h"
#include "core/support_table.h"

namespace orbix {

namespace {

constexpr const char* version = "V1.0.9";

/// How much of a model or port name counts.
constexpr std::size_t longest_name = 15;

/// The exit status that a family has asked for, instead of a result line.
std::optional<int> requested_status;

/// What `main` itself takes from the command line.
struct Options {
    std::string module;
    std::string port;
    int baud = 0;
    int rts = -1;
    int dtr = -1;
    bool readback = false;
};

void list_models() {
    for (const SupportRow& row : support_table) {
        for (const ModelName& name : row.names) {
            if (name[0] != '\0') {
                std::fprintf(log_stream(), "%s\n", name);
            }
        }
    }
    std::fflush(log_stream());
}

bool has_argument(int argc, char** argv, const char* wanted) {
    for (int index = 1; index < argc; ++index) {
        if (std::strcmp(argv[index], wanted) == 0) {
            return true;
        }
    }
    return false;
}

Options parse_options(int argc, char** argv) {
    Options options;
    OptionScan scan(argc, argv, "a:m:p:d:b:f:s:r:t:v::l:L:c:g:DR:T:o:");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 'p':
                options.port = clipped(scan.value(), longest_name);
                log_info("dev :%s\n", options.port.c_str());
                break;
            case 'R':
                options.rts = to_int(scan.value());
                log_info("RTS :%d\n", options.rts);
                break;
            case 'T':
                options.dtr = to_int(scan.value());
                log_info("DTR :%d\n", options.dtr);
                break;
            case 'b':
                options.baud = to_int(scan.value());
                log_info("Baud rate:%d\n", options.baud);
                break;
            case 'm':
                options.module = clipped(scan.value(), longest_name);
                log_info("name :%s\n", options.module.c_str());
                break;
            case 'o':
                options.readback = true;
                log_info("readback\n");
                break;
            default:
                break;  // a family's own option
        }
    }
    return options;
}

/// The vector that the family gets: without the "-R n" and "-T n" pairs, in the order typed.
std::vector<char*> family_arguments(int argc, char** argv) {
    std::vector<char*> arguments;
    for (int index = 0; index < argc; ++index) {
        if (std::strcmp(argv[index], "-R") == 0 || std::strcmp(argv[index], "-T") == 0) {
            ++index;
            continue;
        }
        // Front ends know this line as it is: the source index with the text at the destination.
        std::fprintf(log_stream(), "new_argv[%d]:%s\n", index, argv[arguments.size()]);
        arguments.push_back(argv[index]);
    }
    return arguments;
}

int run_family(const Options& options, std::vector<char*> arguments) {
    const SupportRow* row = find_model(options.module);
    if (row == nullptr) {
        hints::model_unknown(options.module);
        return -1;
    }
    const FamilyEntry entry = options.readback ? row->readback : row->upgrade;
    if (entry == nullptr) {
        hints::readback_unknown(options.module);
        return -1;
    }
    const int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    const int result = entry(count, arguments.data());
    if (requested_status) {
        return result;
    }
    if (result != 0) {
        hints::explain_failure(options.module, *row, options.readback);
    } else {
        hints::explain_success();
    }
    return result;
}

void report(bool readback, int result) {
    if (readback) {
        if (result == 0) {
            log_plain("[SUCCESS] orbix_flash readback success\n");
        } else {
            log_plain("[FAIL] orbix_flash readback fail,ret:[%d]\n", result);
        }
    } else {
        if (result == 0) {
            log_plain("[SUCCESS] orbix_flash upgrade success\n");
        } else {
            log_plain("[FAIL] orbix_flash upgrade fail,ret:[%d]\n", result);
        }
    }
}

}  // namespace

int flash_tool_main(int argc, char** argv) {
    kv_log_reset();
    kv_uart_reset();
    hints::reset();
    requested_status.reset();
    log_info("%s %s %s\n", version, __DATE__, __TIME__);
    log_info("Enter flash tool \n");
    if (argc <= 1) {
        usage(argc == 1 ? argv[0] : "orbix_flash");
        hints::show_the_way();
        return -1;
    }
    if (has_argument(argc, argv, "-S")) {
        list_models();
        return 0;
    }

    const Options options = parse_options(argc, argv);
    change_serail_dtr_rts(options.port.c_str(), static_cast<unsigned>(options.baud),
                          static_cast<unsigned>(options.dtr), static_cast<unsigned>(options.rts));
    if (options.module.empty()) {
        usage(argv[0]);
        hints::show_the_way();
        return 0;
    }

    const int result = run_family(options, family_arguments(argc, argv));
    if (requested_status) {
        return *requested_status;
    }
    report(options.readback, result);
    return 0;
}

int end_run(int status) {
    requested_status = status;
    return status;
}

int change_serail_dtr_rts(const char* /*port*/, unsigned /*baud*/, unsigned dtr, unsigned rts) {
    serial_CfgDTR(no_port, dtr);
    serial_CfgRTS(no_port, rts);
    return 0;
}

int usage(const char* progname) {
    log_plain(
        " Usage: %s [options...]\n"
        "  -m,  Specify module name,Eg:TR40XBA\n"
        "  -p,  Specify port name,Eg:/dev/ttyUSB0\n"
        "  -b,  Specify handshake Baud rate\n"
        "  -R,  Specify RTS\n"
        "  -d,  Specify firmware path(Partial module support)\n"
        "  -f,  Specify firmware file(Partial module support)\n"
        "  -s,  Specify DA firmware file(Partial module support)\n"
        "  -S,  Print all currently supported modules\n"
        "  -l,  Specify download Baud rate(Partial module support)\n"
        "  -D,  Enable debug mode\n"
        "  -t,  Specify Upgrade mode(Partial module support)\n"
        "  -c,  Specify Upgrade partition(Partial module support)\n",
        progname);
    return 0;
}

}  // namespace orbix
