#include "teseo/options.h"

#include "core/firmware_file.h"
#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/options.h"

namespace orbix::teseo {

namespace {

constexpr std::size_t longest_port = 20;
constexpr std::size_t longest_path = 255;

}  // namespace

bool take_common_option(int letter, const char* value, CommonOptions& options) {
    switch (letter) {
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

bool firmware_readable(const std::string& path) {
    return FirmwareFile(path.c_str()).is_open();
}

}  // namespace orbix::teseo
