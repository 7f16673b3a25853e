#include "families/gnss_module_evb.h"

#include "core/kv_log.h"
#include "families/command_frames.h"

namespace orbix::evb {

namespace {

constexpr command_frames::Dialect dialect{
    .first_sync = {.pause = 0, .byte = 10},
    .second_sync = {.pause = 0, .byte = 50},
    .response_byte_timeout = 50,
    .checks_length_and_status = false,
    .firmware_attempts = 1,
};

/// Boards with an old boot loader do not know this command and stay silent.
constexpr command_frames::VersionQuery version_query{
    .command_class = 0xF0, .id = 0x01, .silence_limit = 3000};

constexpr command_frames::ImageWords image_words{.third = 0, .fourth = 0x01000000};

}  // namespace

int GNSS_MODULE_EVB_Upgrade(int argc, char** argv) {
    log_plain(" Enter GNSS_EVB_upgrade\n");
    const command_frames::Options options = command_frames::parse_options(argc, argv);
    const char* const firmware = options.firmware.c_str();

    log_info("Connect...\n");
    const SerialHandle handle =
        serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return -1;
    }

    // Up to the erase a failure leaves the port open until the process ends.
    log_info("Synchronize...\n");
    int result = Kv_GNSS_MODULE_EVB_Sync(handle);
    if (result != 0) {
        log_error("Sync the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    std::string version;
    result = Kv_GNSS_MODULE_EVB_GetBootVer(handle, version);
    if (result != 0) {
        log_plain(" [WARN] Get boot ver failed,err: 0x%X\n", static_cast<unsigned>(result));
    }
    log_info("Boot Version: %s\n", version.c_str());

    log_info("Send Firmware Information...\n");
    int announced = 0;
    result = Kv_GNSS_MODULE_EVB_SendFirmwareInfo(handle, firmware, announced);
    if (result != 0) {
        log_error("Send fw info failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    result = Kv_GNSS_MODULE_EVB_EraseAppFlash(handle);
    if (result != 0) {
        log_error("Erase Flash app area failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Send Firmware...\n");
    result = Kv_GNSS_MODULE_EVB_SendFirmwareBin(handle, firmware, announced);
    serial_close(handle);
    if (result != 0) {
        log_error("Send bin failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }
    return 0;
}

int Kv_GNSS_MODULE_EVB_Sync(SerialHandle handle) {
    return command_frames::synchronise(handle, dialect);
}

int Kv_GNSS_MODULE_EVB_GetBootVer(SerialHandle handle, std::string& version) {
    return command_frames::get_boot_version(handle, dialect, version_query, version);
}

int Kv_GNSS_MODULE_EVB_SendFirmwareInfo(SerialHandle handle, const char* path, int& announced) {
    return command_frames::send_firmware_info(handle, dialect, path, image_words, announced);
}

int Kv_GNSS_MODULE_EVB_EraseAppFlash(SerialHandle handle) {
    return command_frames::erase(handle, dialect);
}

int Kv_GNSS_MODULE_EVB_SendFirmwareBin(SerialHandle handle, const char* path, int announced) {
    return command_frames::send_firmware(handle, dialect, path, announced);
}

}  // namespace orbix::evb
