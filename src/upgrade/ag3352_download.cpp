#include <cerrno>
#include <cstring>
#include <string>

#include "ag3335/access.h"
#include "ag3335/package.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "upgrade/ag3352.h"
#include "upgrade/ag3352_loader.h"

namespace orbix::ag3352 {

namespace {

constexpr std::size_t longest_path = 255;

struct Options {
    std::string device;
    std::string agent;
    package::Package package;
    int baud = 0;
};

/// Returns whether the line can be used at all; the parameters are checked afterwards.
bool parse_options(int argc, char** argv, Options& options) {
    OptionScan scan(argc, argv, "a:t:r:m:p:f:b:d:s:g:l:tD");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 's':
                options.agent = clipped(scan.value(), longest_path);
                break;
            case 'p':
                options.device = device_of_port(scan.value());
                if (options.device.empty()) {
                    return false;
                }
                log_plain(" will use device: %s\n", options.device.c_str());
                break;
            case 'g':
                options.package.flash_download_name = clipped(scan.value(), longest_path);
                log_plain(" flash download file: %s\n",
                          options.package.flash_download_name.c_str());
                break;
            case 'f':
                package::parse_upgrade_list(clipped(scan.value(), longest_path).c_str(),
                                            options.package.list);
                break;
            case 'd':
                options.package.directory = clipped(scan.value(), longest_path);
                break;
            case 'D':
                serial_enable_debug();
                log_plain(" debug mode\n");
                break;
            case 'b':
                options.baud = to_int(scan.value());
                log_plain(" baud_rate:%d\n", options.baud);
                break;
            default:
                break;  // letters of the other modes and families
        }
    }
    return true;
}

bool check_options(const Options& options) {
    if (options.agent.empty() || options.package.directory.empty() || options.device.empty() ||
        options.baud == 0) {
        log_error("Invalid parameter!\n");
        log_error(
            "Ex: .\\orbix_flash -m TR52G -p COM6 -b 115200 -d .\\ -s .\\da_uart_115200.bin -f "
            "\"bootloader.bin,partition_table.bin,TR52GXXNR01A01S.bin,gnss_config.bin\"\n");
        return false;
    }
    return check_access(options.package.directory.c_str()) && check_access(options.agent.c_str());
}

/// The dialogue behind the running agent.
bool replace_firmware(SerialHandle handle, const char* entry, package::Package& package) {
    log_info("Format flash...\n");
    if (format_module_flash(handle) < 0) {
        log_error("%s format_module_flash error\n", entry);
        return false;
    }
    log_info("Send Firmware...\n");
    if (send_fw_file(handle, package) < 0) {
        log_error("%s send_fw_file error\n", entry);
        return false;
    }
    sleep_ms(2000);  // the last block settles before the lines may drop
    return true;
}

bool download(int argc, char** argv) {
    static constexpr const char* entry = "ag3352_download";
    Options options;
    if (!parse_options(argc, argv, options) || !check_options(options)) {
        return false;
    }
    const SerialPort port(options.device.c_str(), loader_baud);
    if (!port.is_open()) {
        log_error("Error opening %s: %s\n", options.device.c_str(), std::strerror(errno));
        return false;
    }
    return start_agent(port.handle(), entry, options.agent.c_str(), options.baud) &&
           replace_firmware(port.handle(), entry, options.package);
}

}  // namespace

int ag3352_download(int argc, char** argv) {
    if (!download(argc, argv)) {
        log_plain(" Flash upgrade failed\n");
        return -1;
    }
    log_plain(" Flash upgrade successfully\n");
    return 0;
}

}  // namespace orbix::ag3352
