#include "families/hd8xx0.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/options.h"
#include "families/cyfm.h"
#include "families/fwup.h"

namespace orbix::hd8xx0 {

namespace {

constexpr int parameters_missing = 258;
constexpr int package_not_accessible = 259;
constexpr int port_not_opened = 260;
constexpr int package_not_unpacked = 262;

constexpr int unknown_variant = -1;

/// How much of a path counts.
constexpr std::size_t longest_path = 255;

struct ModelPrefix {
    char prefix[20];
    int variant;
};

/// Walked to its end: of the prefixes that match, the last one counts (MX260C behind MX260).
constexpr ModelPrefix allystar_modules[] = {
    {"MX210", 0}, {"MX211", 0}, {"MX220", 0}, {"MX221", 0}, {"MX230", 0},
    {"MX260", 0}, {"MX240", 1}, {"MX241", 1}, {"MX250", 1}, {"MX260C", 1},
    {"MX270", 1}, {"MX280", 2}, {"MX285", 2},
};

struct ModeWord {
    const char* literal;
    std::size_t compared;  ///< characters that count; what follows in the argument does not
    UpdateMode mode;
    bool enters_boot;  ///< whether the boot loader is entered by a command
};

/// The first that matches counts. "s_boot" is known by its first four characters.
constexpr ModeWord mode_words[] = {
    {"boot", 4, UpdateMode::boot, false},
    {"s_boot", 4, UpdateMode::boot, true},
    {"user", 4, UpdateMode::user, false},
    {"master_user", 11, UpdateMode::master_user, false},
    {"slave_user", 10, UpdateMode::slave_user, false},
    {"all_user", 8, UpdateMode::all_user, false},
};

struct Options {
    int variant = unknown_variant;
    std::string device;
    std::string package;
    std::string slave_package;
    int baud = 0;
    UpdateMode mode = UpdateMode::user;
    int boot_command_flag = 1;  ///< 0: enter the boot loader by a command
};

/// A model that no prefix matches leaves the variant as it was.
void choose_variant(const char* model, Options& options) {
    for (const ModelPrefix& known : allystar_modules) {
        if (std::strncmp(known.prefix, model, std::strlen(known.prefix)) == 0) {
            options.variant = known.variant;
        }
    }
}

/// A word that is not known leaves the mode as it was.
void choose_mode(const char* word, Options& options) {
    for (const ModeWord& known : mode_words) {
        if (std::strncmp(known.literal, word, known.compared) == 0) {
            options.mode = known.mode;
            if (known.enters_boot) {
                options.boot_command_flag = 0;
            }
            return;
        }
    }
}

/// Returns false when the line only asks for the version.
bool parse_options(int argc, char** argv, Options& options) {
    OptionScan scan(argc, argv, "m:p:f:s:b:t:v::D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 'm':
                choose_variant(scan.value(), options);
                log_info("Module: %s\n", scan.value());
                break;
            case 'p':
                options.device = clipped(scan.value(), 20);
                log_info("Port: %s\n", options.device.c_str());
                break;
            case 'f':
                options.package = clipped(scan.value(), longest_path);
                log_info("Firmware: %s\n", options.package.c_str());
                break;
            case 's':
                options.slave_package = clipped(scan.value(), longest_path);
                log_info("Slave device firmware: %s\n", options.slave_package.c_str());
                break;
            case 'b':
                options.baud = to_int(scan.value());
                log_info("Baud rate:%d\n", options.baud);
                break;
            case 't':
                choose_mode(scan.value(), options);
                log_info("Mode: %s\n", scan.value());
                break;
            case 'v':
                log_info("Version: HD8xx0_Flash_Tool_V%s\n", "1.1");
                return false;
            case 'D':
                serial_enable_debug();
                log_plain(" debug mode\n");
                break;
            default:
                break;
        }
    }
    return true;
}

bool is_readable(const std::string& path) {
    if (access(path.c_str(), R_OK) == 0) {
        return true;
    }
    const int reason = errno;
    log_error("Fail to access %s, errno: %d (%s)\n", path.c_str(), reason, std::strerror(reason));
    return false;
}

/// Unpacks a package and hands its image to the procedure that the mode names. Returns the
/// procedure's result, or `package_not_unpacked`.
int update_from(const std::string& package, SerialHandle handle, const Options& options,
                UpdateMode mode) {
    std::span<const std::uint8_t> image;
    if (uzip_cyfm(package.c_str(), image, mode) != 0) {
        return package_not_unpacked;
    }
    switch (mode) {
        case UpdateMode::boot:
            return fw_update_boot(handle, image, options.variant, options.boot_command_flag);
        case UpdateMode::user:
            return fw_update_user(handle, image);
        case UpdateMode::slave_user:
            return fw_update_master(handle, image, Processor::slave);
        case UpdateMode::master_user:
        case UpdateMode::all_user:
            break;
    }
    return fw_update_master(handle, image, Processor::master);
}

/// The packages of the mode, one after the other.
int update(SerialHandle handle, const Options& options) {
    const int result = update_from(options.package, handle, options, options.mode);
    if (result != 0 || options.mode != UpdateMode::all_user) {
        return result;
    }
    return update_from(options.slave_package, handle, options, UpdateMode::slave_user);
}

}  // namespace

int hd8xx0_upgrade(int argc, char** argv) {
    reset_frame_decoder();
    Options options;
    if (!parse_options(argc, argv, options)) {
        return end_run(-1);
    }
    if (options.package.empty() || options.device.empty() || options.baud == 0) {
        log_error(
            "Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m MX260B00 "
            "-f firmware -p /dev/ttyUSB0 -b 115200 -t user\n");
        return parameters_missing;
    }
    if (!is_readable(options.package) ||
        (options.mode == UpdateMode::all_user && !is_readable(options.slave_package))) {
        return package_not_accessible;
    }
    const SerialHandle handle =
        serial_open(options.device.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Fail to open %s\n", options.device.c_str());
        return port_not_opened;
    }
    serial_change_br(handle, static_cast<unsigned>(options.baud));

    const int result = update(handle, options);
    if (result == package_not_unpacked) {
        return result;  // the port stays open until the program ends
    }
    serial_close(handle);
    return result;
}

}  // namespace orbix::hd8xx0
