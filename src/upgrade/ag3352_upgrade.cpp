#include <cerrno>
#include <cstring>

#include "core/kv_log.h"
#include "core/options.h"
#include "upgrade/ag3352.h"
#include "upgrade/framed_upgrade.h"
#include "upgrade/sync_words.h"

namespace orbix::ag3352 {

namespace {

constexpr upgrade::FramedTarget target{
    .address = 2,
    .load_address = 0x08009000,
    .block_size = 4096,
    .reboot_mode = 2,
    .logs_whole_record = false,
};

constexpr upgrade::SyncTiming sync_timing{.pause = 20, .byte = 50};

struct Options {
    std::string device;
    std::string firmware;
    int baud = 0;
};

/// Returns whether the line can be used at all; the parameters are checked afterwards.
bool parse_options(int argc, char** argv, Options& options) {
    OptionScan scan(argc, argv, "m:p:f:b:l:tD");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 'p':
                options.device = device_of_port(scan.value());
                if (options.device.empty()) {
                    return false;
                }
                log_plain(" will use device: %s\n", options.device.c_str());
                break;
            case 'b':
                options.baud = to_int(scan.value());
                log_plain(" baud_rate:%d\n", options.baud);
                break;
            case 'f':
                options.firmware = scan.value();
                log_info("Firmware:%s\n", options.firmware.c_str());
                break;
            case 'm':
                log_plain(" module type: %s\n", clipped(scan.value(), 31).c_str());
                break;
            case 'D':
                serial_enable_debug();
                log_info("debug mode\n");
                break;
            default:
                break;  // -l and -t belong to the download mode
        }
    }
    return true;
}

/// The dialogue. Returns whether all steps succeeded.
bool run_steps(SerialHandle handle, const char* firmware) {
    log_info("Waiting for Sync...\n");
    if (Ag3352_Upgrade_Sync(handle) != 0) {
        log_error("Sync failed!\n");
        return false;
    }
    log_info("Sync success!\n");

    std::string version;
    if (Ag3352_Upgrade_BootVer(handle, version) != 0) {
        log_error("Get Boot Version failed!\n");
        return false;
    }
    log_info("Boot Version:%s\n", version.c_str());

    int announced = 0;
    if (Ag3352_Upgrade_SendFirmwareInfo(handle, firmware, announced) != 0) {
        log_error("Send Firmware Info failed!\n");
        return false;
    }
    log_info("Send Firmware Info success!\n");

    log_info("Start to EraseAPP...\n");
    if (Ag3352_Upgrade_EraseAPP_Flash(handle) != 0) {
        log_error("Erase Flash failed!\n");
        return false;
    }
    log_info("Erase Flash success!\n");

    if (Ag3352_Upgrade_SendFirmware(handle, firmware, announced) != 0) {
        log_error("Send Firmware failed!\n");
        return false;
    }
    if (Ag3352_Upgrade_Reset(handle) != 0) {
        log_error("Reset failed!\n");
        return false;
    }
    log_info("Upgrade success!\n");
    return true;
}

}  // namespace

int Ag3352_Upgrade_Sync(SerialHandle handle) {
    return upgrade::sync_boot_loader(handle, sync_timing, sync_timing);
}

int Ag3352_Upgrade_BootVer(SerialHandle handle, std::string& version) {
    return upgrade::get_boot_version(handle, target, version);
}

int Ag3352_Upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced) {
    return upgrade::send_firmware_info(handle, target, path, announced);
}

int Ag3352_Upgrade_EraseAPP_Flash(SerialHandle handle) {
    return upgrade::erase_application(handle, target);
}

int Ag3352_Upgrade_SendFirmware(SerialHandle handle, const char* path, int announced) {
    return upgrade::send_firmware(handle, target, path, announced);
}

int Ag3352_Upgrade_Reset(SerialHandle handle) {
    return upgrade::reset_module(handle, target);
}

int ag3352_upgrade(int argc, char** argv) {
    Options options;
    if (!parse_options(argc, argv, options)) {
        return -1;
    }
    if (options.device.empty() || options.baud == 0) {
        log_error("Invalid parameter!\n");
        log_error("Ex: .\\orbix_flash -m TR52G -p COM6 -b 115200 -f //TR52GXXNR01A01S.bin\"\n");
        return -1;
    }
    const SerialHandle handle =
        serial_open(options.device.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Error opening %s: %s\n", options.device.c_str(), std::strerror(errno));
        return -1;
    }
    if (run_steps(handle, options.firmware.c_str())) {
        return 0;  // the port stays open until the process ends
    }
    serial_close(handle);
    if (handle > 0) {
        serial_close(handle);  // the common exit closes whatever handle it is given
    }
    return -1;
}

}  // namespace orbix::ag3352
