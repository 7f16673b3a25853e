#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "ag3335/access.h"
#include "ag3335/ag3335.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"

namespace orbix::ag3335 {

namespace {

constexpr std::array<std::string_view, 2> full_flash_models{"TR71KXM", "TR71LXM"};
constexpr std::array<std::string_view, 5> csa_models{"TR40XBB", "TR41XBA", "TR42XBA", "TR45XBA",
                                                     "TR50XBA"};

/// How much of the flash is erased, in bytes.
constexpr std::uint32_t usual_format_length = 0x3E0000;
constexpr std::uint32_t full_format_length = 0x400000;
constexpr std::uint32_t chosen_format_length = 0x3EF000;

constexpr std::size_t longest_string = 255;

/// The command line, read.
struct Request {
    std::string device;
    std::string da_path;
    package::Package package;
    int download_baud = 0;
    int communication_baud = 0;
    std::uint32_t format_length = usual_format_length;
    bool erase_type = false;
    bool soft_reset = false;
};

void take_model(const char* model, Request& request) {
    const std::string_view name(model);
    if (std::ranges::any_of(full_flash_models,
                            [name](std::string_view full) { return name.starts_with(full); })) {
        request.format_length = full_format_length;
    }
    if (needs_soft_reset(model)) {
        log_info("Need soft reset\n");
        request.soft_reset = true;
    }
    log_plain(" format_length: %02x\n", request.format_length);
}

/// Returns whether the line can be used at all; the parameters are checked afterwards.
bool parse_options(int argc, char** argv, Request& request) {
    OptionScan scan(argc, argv, "c:m:p:f:b:d:s:l:g:t:D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 't':
                request.erase_type = true;
                break;
            case 's':
                request.da_path = clipped(scan.value(), longest_string);
                log_plain(" DA_Path:%s\n", request.da_path.c_str());
                break;
            case 'p':
                request.device = device_of_port(scan.value());
                if (request.device.empty()) {
                    return false;
                }
                log_plain(" will use device: %s\n", request.device.c_str());
                break;
            case 'm':
                take_model(scan.value(), request);
                break;
            case 'l':
                request.download_baud = to_int(scan.value());
                log_plain(" DownLoad_Baud:%d\n", request.download_baud);
                break;
            case 'g':
                request.package.flash_download_name = clipped(scan.value(), longest_string);
                log_plain(" flash download file: %s\n",
                          request.package.flash_download_name.c_str());
                break;
            case 'f':
                package::parse_upgrade_list(scan.value(), request.package.list);
                break;
            case 'd':
                request.package.directory = clipped(scan.value(), longest_string);
                log_plain(" DownLoad_Dir:%s\n", request.package.directory.c_str());
                break;
            case 'D':
                serial_enable_debug();
                log_plain(" debug mode\n");
                break;
            case 'b':
                request.communication_baud = to_int(scan.value());
                log_plain(" Communition_Baud:%d\n", request.communication_baud);
                break;
            default:
                break;  // -c has no meaning here
        }
    }
    return true;
}

bool check_request(const Request& request) {
    if (request.package.directory.empty() || request.device.empty() ||
        request.communication_baud == 0) {
        log_error(
            "Please input parameters correctly, such as ./orbix_flash -d directory "
            "-p /dev/ttyUSB0 -b 115200 -f "
            "\"bootloader.bin,partition_table.bin,TR71KXMNR11A03S.bin,gnss_config.bin\" "
            "-s slave_da_UARTXXX.bin\n");
        return false;
    }
    return check_access(request.package.directory.c_str()) && check_access(request.da_path.c_str());
}

/// Whether a package leaves the flash's end alone when an old agent writes it: all do, except those
/// that are named after one of some models and not marked "CSA".
bool csa_flag(const std::string& directory) {
    const bool names_a_model = std::ranges::any_of(csa_models, [&](std::string_view model) {
        return directory.find(model) != std::string::npos;
    });
    return !names_a_model || directory.find("CSA") != std::string::npos;
}

std::uint32_t old_agent_format_length(const Request& request) {
    if (request.erase_type) {
        return chosen_format_length;
    }
    return csa_flag(request.package.directory) ? usual_format_length : request.format_length;
}

/// From the new agent's start to the last image. Returns whether all steps succeeded.
bool flash_by_new_agent(SerialHandle handle, Request& request, const char* driver) {
    if (ag3335_sync_with_New_Da(handle, static_cast<unsigned>(request.download_baud)) < 0) {
        log_error("%s sync_with_New_Da error\n", driver);
        return false;
    }
    if (format_module_flash_New_Da(handle, request.format_length) < 0) {
        log_error("%s format_module_flash_new_Da error\n", driver);
        return false;
    }
    if (send_fw_file_New_Da(handle, request.package) < 0) {
        log_error("%s send_fw_file_new_Da error\n", driver);
        return false;
    }
    return true;
}

/// The same with the old agent.
bool flash_by_old_agent(SerialHandle handle, Request& request, const char* driver) {
    if (ag3335_sync_with_Da(handle, static_cast<unsigned>(request.download_baud)) < 0) {
        log_error("%s sync_with_Da error\n", driver);
        return false;
    }
    if (format_module_flash(handle, old_agent_format_length(request)) < 0) {
        log_error("%s format_module_flash error\n", driver);
        return false;
    }
    if (send_fw_file(handle, request.package) < 0) {
        log_error("%s send_fw_file error\n", driver);
        return false;
    }
    return true;
}

/// The dialogue on the open port. Returns whether all steps succeeded.
bool run_steps(SerialHandle handle, Request& request, const char* driver) {
    if (!start_agent(handle, driver, request.da_path.c_str(),
                     static_cast<unsigned>(request.download_baud))) {
        return false;
    }
    return ag3335_Get_Da_Type() != 0 ? flash_by_new_agent(handle, request, driver)
                                     : flash_by_old_agent(handle, request, driver);
}

bool upgrade(Request& request, const char* driver) {
    if (request.soft_reset &&
        !restart_into_loader(driver, request.device,
                             static_cast<unsigned>(request.communication_baud))) {
        return false;
    }
    SerialPort port(request.device.c_str(), loader_baud);
    if (!port.is_open()) {
        log_error("Error opening %s: %s\n", request.device.c_str(), std::strerror(errno));
        return false;
    }
    if (!run_steps(port.handle(), request, driver)) {
        return false;
    }
    sleep_ms(2000);  // the module finishes before the port's lines move
    return true;
}

}  // namespace

int ag3335_upgrade(int argc, char** argv) {
    ag3335_forget_Da_Type();
    Request request;
    if (parse_options(argc, argv, request) && check_request(request)) {
        if (request.download_baud == 0) {
            request.download_baud = loader_baud;
        }
        if (upgrade(request, __func__)) {
            log_plain(" Flash upgrade successfully\n");
            return 0;
        }
    }
    log_plain(" Flash upgrade failed\n");
    return -1;
}

}  // namespace orbix::ag3335
