#include "teseo/entry.h"

#include <cerrno>
#include <cstring>

#include "core/firmware_file.h"
#include "core/kv_log.h"
#include "core/options.h"

namespace orbix::teseo {

namespace {

constexpr std::size_t longest_path = 255;
constexpr std::size_t longest_port = 20;

}  // namespace

bool take_common_option(int letter, const char* value, CommonOptions& options) {
    switch (letter) {
        case 'm':
            log_info("Module: %s\n", value);
            return true;
        case 'p':
            options.port = clipped(value, longest_port);
            log_info("Port: %s\n", options.port.c_str());
            return true;
        case 'f':
            options.firmware = clipped(value, longest_path);
            log_info("Firmware: %s\n", options.firmware.c_str());
            return true;
        case 'b':
            options.baud = to_int(value);
            log_info("Baud rate:%d\n", options.baud);
            return true;
        case 'D':
            serial_enable_debug();
            log_plain(" debug mode\n");
            return true;
        default:
            return false;
    }
}

int open_module(const CommonOptions& options, const char* missing, SerialHandle& handle) {
    if (options.firmware.empty() || options.port.empty() || options.baud == 0) {
        log_error("%s", missing);
        return parameters_missing;
    }
    // Opened to be sure: a module must not be erased for a folder, or for an image that cannot be
    // read.
    if (!FirmwareFile(options.firmware.c_str()).is_open()) {
        log_error("Fail to access %s, errno: %d (%s)\n", options.firmware.c_str(), errno,
                  std::strerror(errno));
        return firmware_not_readable;
    }
    handle = serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Fail to open %s\n", options.port.c_str());
        return port_not_opened;
    }
    return 0;
}

}  // namespace orbix::teseo
