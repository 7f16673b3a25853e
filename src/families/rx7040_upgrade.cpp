#include "core/kv_log.h"
#include "families/command_frames.h"
#include "families/rx7040.h"

namespace orbix::rx7040 {

namespace {

constexpr command_frames::Dialect dialect{
    .first_sync = {.pause = 20, .byte = 50},
    .second_sync = {.pause = 20, .byte = 50},
    .response_byte_timeout = 500,
    .checks_length_and_status = true,
    .firmware_attempts = 10,
};

constexpr command_frames::VersionQuery version_query{
    .command_class = 0x02, .id = 0x71, .silence_limit = 0};

}  // namespace

int upgrade_entry(int argc, char** argv) {
    log_plain(" Enter upgrade\n");
    const command_frames::Options options = command_frames::parse_options(argc, argv);

    log_info("Connect...\n");
    const SerialHandle handle =
        serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return -1;
    }

    log_info("Synchronize...\n");
    int result = upgrade_Sync(handle);
    if (result != 0) {
        log_error("Sync the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    std::string version;
    result = upgrade_GetBootVer(handle, version);
    if (result != 0) {
        log_plain(" [WARN] Get boot ver failed,err: 0x%X\n", static_cast<unsigned>(result));
    }
    log_info("Boot Version: %s\n", version.c_str());

    log_info("Send Firmware Information...\n");
    int announced = 0;
    result = upgrade_SendFirmwareInfo(handle, options.firmware.c_str(), announced);
    if (result != 0) {
        log_error("Send fw info failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    result = upgrade_EraseAPP_Flash(handle);
    if (result != 0) {
        log_error("Erase Flash app area failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Send Firmware...\n");
    result = upgrade_SendFirmware(handle, options.firmware.c_str(), announced);
    if (result != 0) {
        log_error("Send firmware failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    result = upgrade_Reset(handle);
    if (result != 0) {
        log_error("Reset the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }
    return 0;  // the port stays open until the process ends, here and on every failure
}

int upgrade_Sync(SerialHandle handle) {
    return command_frames::synchronise(handle, dialect);
}

int upgrade_GetBootVer(SerialHandle handle, std::string& version) {
    return command_frames::get_boot_version(handle, dialect, version_query, version);
}

int upgrade_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced) {
    return command_frames::send_firmware_info(handle, dialect, path, {.third = 0, .fourth = 0},
                                              announced);
}

int upgrade_EraseAPP_Flash(SerialHandle handle) {
    return command_frames::erase(handle, dialect);
}

int upgrade_SendFirmware(SerialHandle handle, const char* path, int announced) {
    return command_frames::send_firmware(handle, dialect, path, announced);
}

int upgrade_Reset(SerialHandle handle) {
    return command_frames::reset(handle, dialect);
}

}  // namespace orbix::rx7040
