#include "core/kv_log.h"
#include "core/options.h"
#include "upgrade/zpx710p.h"
#include "upgrade/zpx710p_options.h"

namespace orbix::zpx710p {

void take_common_option(int letter, const char* value, Options& options) {
    switch (letter) {
        case 'p':
            options.port = value;
            log_info("Port: %s\n", value);
            break;
        case 'b':
            options.baud = to_int(value);
            log_info("Baud rate:%d\n", options.baud);
            break;
        case 'f':
            options.firmware = value;
            log_info("Firmware:%s\n", value);
            break;
        case 'm':
            log_info("Module: %s\n", value);
            break;
        case 'D':
            serial_enable_debug();
            log_plain(" debug mode\n");
            break;
        default:
            break;
    }
}

int zpx710p_entry(int argc, char** argv) {
    log_info("ZPX710P entry function\n");
    const std::string mode = mode_word(argc, argv);
    if (contains_either(mode, "UPG", "upgrade")) {
        return ZPX710P_Upgrade(argc, argv);
    }
    if (contains_either(mode, "DL", "download")) {
        return ZPX710P_Download(argc, argv);
    }
    log_error("Invalid upgrade mode\n");
    return mode_unusable;
}

}  // namespace orbix::zpx710p
