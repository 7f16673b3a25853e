#include <array>

#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "families/command_frames.h"
#include "families/monitor.h"

namespace orbix::monitor {

namespace {

constexpr ResetHeader first_variant{0x4B, 0x47};
constexpr ResetHeader second_variant{0x56, 0x4E};

constexpr command_frames::Dialect dialect{
    .first_sync = {.pause = 0, .byte = 10},
    .second_sync = {.pause = 0, .byte = 50},
    .response_byte_timeout = 50,
    .checks_length_and_status = false,
    .firmware_attempts = 1,
};

/// What the boot loader calls the two images.
constexpr std::uint32_t application_image = 65;
constexpr std::uint32_t boot_image = 66;

constexpr unsigned bad_mode = 258;

/// The application may run at any of these rates. Attempt 1 asks at the first.
constexpr std::array<unsigned, 3> reset_rates{115200, 230400, 460800};
constexpr int reset_attempts = 9;

/// What a hand needs to reset the module.
constexpr unsigned manual_reset_ms = 1000;

struct Options : command_frames::Options {
    std::string upgrade_mode;
    std::string reset_mode;
};

Options parse_options(int argc, char** argv) {
    Options options;
    OptionScan scan(argc, argv, "m:p:f:b:t:r:D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        if (letter == 't') {
            options.upgrade_mode = clipped(scan.value(), command_frames::longest_option);
            log_info("upgrade mdoe: %s\n", options.upgrade_mode.c_str());
        } else if (letter == 'r') {
            options.reset_mode = clipped(scan.value(), command_frames::longest_option);
            log_info("reset mdoe: %s\n", options.reset_mode.c_str());
        } else {
            command_frames::take_option(letter, scan.value(), options);
        }
    }
    return options;
}

bool is_for_application(const std::string& mode) {
    return contains_either(mode, "APP", "app");
}

bool is_for_boot_loader(const std::string& mode) {
    return contains_either(mode, "BOOT", "boot");
}

/// Asks for a reset at one rate after the other. Returns whether the module has acknowledged one;
/// the port is closed again.
bool reset_automatically(const char* port, ResetHeader header) {
    log_info("Auto-reset\n");
    for (int attempt = 1; attempt <= reset_attempts; ++attempt) {
        const unsigned rate =
            reset_rates[static_cast<std::size_t>(attempt - 1) % reset_rates.size()];
        log_info("Auto-reset %d times, baudrate %d...\n", attempt, static_cast<int>(rate));
        SerialPort line(port, rate);
        if (!line.is_open()) {
            log_error("Open & config the serial failed\n");
            return false;
        }
        const int result = Kv_Upgrade_SoftReset(line.handle(), header);
        if (result == 0) {
            log_info("Auto-reset finish...\n");
            return true;
        }
        log_error("Auto-reset fail %d times,err: 0x%X\n", attempt, static_cast<unsigned>(result));
    }
    return false;
}

bool reset_as_chosen(const Options& options, ResetHeader header) {
    if (contains_either(options.reset_mode, "AUTO", "auto")) {
        return reset_automatically(options.port.c_str(), header);
    }
    if (contains_either(options.reset_mode, "MANUAL", "manual")) {
        log_info("Manual reset\n");
        sleep_ms(manual_reset_ms);
        return true;
    }
    log_error("Invalid reset mode(ex: AUTO / MANUAL),err: 0x%X\n", bad_mode);
    return false;
}

int upgrade_module(int argc, char** argv, ResetHeader header) {
    log_plain(" Enter GNSS_EVB_upgrade\n");
    const Options options = parse_options(argc, argv);
    const char* const mode = options.upgrade_mode.c_str();
    const char* const firmware = options.firmware.c_str();

    if (is_for_application(options.upgrade_mode)) {
        log_info("Ready to upgrade the APP...\n");
    } else if (is_for_boot_loader(options.upgrade_mode)) {
        log_info("Ready to upgrade the BOOT...\n");
    } else {
        log_error("Invalid upgrade mode(ex: APP / BOOT),err: 0x%X\n", bad_mode);
        return -1;
    }
    if (!reset_as_chosen(options, header)) {
        return -1;
    }

    log_info("Connect...\n");
    const SerialHandle handle =
        serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return -1;
    }

    // Up to the erase a failure leaves the port open until the process ends.
    log_info("Synchronize...\n");
    int result = Kv_Upgrade_Sync(handle);
    if (result != 0) {
        log_error("Sync the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Send %s Firmware Information...\n", mode);
    int announced = 0;
    result = Kv_Upgrade_SendFirmwareInfo(handle, firmware, options.upgrade_mode, announced);
    if (result != 0) {
        log_error("Send fw info failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Erase Flash...\n");
    result = Kv_Upgrade_EraseFlash(handle);
    if (result != 0) {
        log_error("Erase Flash area failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Send %s Firmware...\n", mode);
    result = Kv_Upgrade_SendFirmwareBin(handle, firmware, announced);
    serial_close(handle);
    if (result != 0) {
        log_error("Send bin failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }
    return 0;
}

}  // namespace

int monitor1_entry(int argc, char** argv) {
    return upgrade_module(argc, argv, first_variant);
}

int monitor2_entry(int argc, char** argv) {
    return upgrade_module(argc, argv, second_variant);
}

int Kv_Upgrade_Sync(SerialHandle handle) {
    return command_frames::synchronise(handle, dialect);
}

int Kv_Upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, const std::string& mode,
                                int& announced) {
    const std::uint32_t kind = is_for_application(mode) ? application_image : boot_image;
    return command_frames::send_firmware_info(handle, dialect, path, {.third = kind, .fourth = 0},
                                              announced);
}

int Kv_Upgrade_EraseFlash(SerialHandle handle) {
    return command_frames::erase(handle, dialect);
}

int Kv_Upgrade_SendFirmwareBin(SerialHandle handle, const char* path, int announced) {
    return command_frames::send_firmware(handle, dialect, path, announced);
}

}  // namespace orbix::monitor
