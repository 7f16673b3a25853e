#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "upgrade/kv_upgrade_protocol.h"
#include "upgrade/sync_words.h"
#include "upgrade/zpx710p.h"
#include "upgrade/zpx710p_options.h"
#include "upgrade/zpx710p_vnc.h"

namespace orbix::zpx710p {

const std::array<Processor, 3> processors{{
    {.mode_word = "LORA",
     .behind_main_controller = true,
     .tells_boot_version = false,
     .frames = {.address = 4,
                .load_address = 0x08000000,
                .block_size = 1024,
                .reboot_mode = 4,
                .logs_whole_record = true}},
    {.mode_word = "GNSS",
     .behind_main_controller = true,
     .tells_boot_version = true,
     .frames = {.address = 3,
                .load_address = 0,
                .block_size = 1024,
                .reboot_mode = 3,
                .logs_whole_record = true}},
    {.mode_word = "MCU",
     .behind_main_controller = false,
     .tells_boot_version = true,
     .frames = {.address = 2,
                .load_address = 0,
                .block_size = 5120,
                .reboot_mode = 2,
                .logs_whole_record = true}},
}};

namespace {

constexpr upgrade::SyncTiming first_phase{.pause = 20, .byte = 50};
constexpr upgrade::SyncTiming second_phase{.pause = 500, .byte = 50};

/// Limits in ms: of the pass-through requests and of the second phase together, and of the answer
/// to one request.
constexpr unsigned pass_through_limit = 20000;
constexpr unsigned second_phase_limit = 2000;
constexpr unsigned acknowledgement_wait = 500;

const Processor* processor_of(const std::string& mode) {
    for (const Processor& processor : processors) {
        if (mode.find(processor.mode_word) != std::string::npos) {
            return &processor;
        }
    }
    return nullptr;
}

/// Asks the main controller to pass everything through to a processor, until it says that it does.
int request_pass_through(SerialHandle handle, const Processor& processor) {
    const std::array<std::uint8_t, 4> payload{processor.frames.address};
    std::array<std::uint8_t, vnc_overhead + payload.size()> request{};
    ZPX710P_VNC_EncodeData(request, vnc_pass_through, payload);

    const std::uint64_t deadline = monotonic_ms() + pass_through_limit;
    while (monotonic_ms() <= deadline) {
        VncBuffer answer{};
        serial_write(handle, request);
        if (Vn_Framer_VNC(handle, answer, acknowledgement_wait) != 0) {
            continue;
        }
        const int result = ZPX710P_VNC_DecodeData(answer);
        if (result == 0) {
            hints::synchronised();
            hints::answer_awaited();  // of the processor behind the main controller
            log_info("ZPX_Upgrade_Sync VNC success Start handshake\n");
            return 0;
        }
        log_error("Sync --- Kv_Upgrade_DecodeMsg failed errro code %d\n", result);
    }
    return upgrade::sync_timed_out;
}

/// The dialogue. Returns 0 or the code of the step that failed.
int run_steps(SerialHandle handle, const Processor& processor, const char* firmware) {
    log_info("Synchronize...\n");
    int result = ZPX_Upgrade_Sync(handle, processor);
    if (result != 0) {
        log_error("Sync the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return result;
    }
    if (processor.tells_boot_version) {
        std::string version;
        result = ZPX_Upgrade_GetBootVer(handle, processor, version);
        if (result != 0) {
            log_plain(" [WARN] Get boot ver failed,err: 0x%X\n", static_cast<unsigned>(result));
            return result;
        }
        log_info("Boot Version: %s\n", version.c_str());
    }
    log_info("Send Firmware Information...\n");
    int announced = 0;
    result = ZPX_Upgrade_SendFirmwareInfo(handle, processor, firmware, announced);
    if (result != 0) {
        log_error("Send fw info failed,err: 0x%X\n", static_cast<unsigned>(result));
        return result;
    }
    result = ZPX_Upgrade_EraseAPP_Flash(handle, processor);
    if (result != 0) {
        log_error("Erase Flash app area failed,err: 0x%X\n", static_cast<unsigned>(result));
        return result;
    }
    log_info("Send Firmware...\n");
    result = ZPX_Upgrade_SendFirmware(handle, processor, firmware, announced);
    if (result != 0) {
        log_error("Send firmware failed,err: 0x%X\n", static_cast<unsigned>(result));
        return result;
    }
    result = ZPX_Upgrade_Reset(handle, processor);
    if (result != 0) {
        log_error("Reset the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
    }
    return result;
}

}  // namespace

int ZPX_Upgrade_Sync(SerialHandle handle, const Processor& processor) {
    if (processor.behind_main_controller) {
        const int result = request_pass_through(handle, processor);
        if (result != 0) {
            return result;
        }
    }
    return ZPX_Upgrade_HandShake(handle);
}

int ZPX_Upgrade_HandShake(SerialHandle handle) {
    std::uint64_t last_attempt = 0;
    const int result = upgrade::catch_boot_loader(handle, first_phase, &last_attempt);
    if (result != 0) {
        return result;
    }
    log_info("ZPX_Upgrade_Sync --- rsp1 = %x success\n", upgrade::first_answer_word);

    const std::uint64_t deadline = last_attempt + second_phase_limit;
    while (monotonic_ms() <= deadline) {
        const std::uint32_t answer = upgrade::second_sync_answer(handle, second_phase);
        log_info("ZPX_Upgrade_Sync --- rsp2 = %x\n", answer);
        if (answer == upgrade::second_answer_word) {
            return 0;
        }
    }
    return upgrade::sync_answer_wrong;
}

int ZPX_Upgrade_GetBootVer(SerialHandle handle, const Processor& processor, std::string& version) {
    return upgrade::get_boot_version(handle, processor.frames, version);
}

int ZPX_Upgrade_SendFirmwareInfo(SerialHandle handle, const Processor& processor, const char* path,
                                 int& announced) {
    return upgrade::send_firmware_info(handle, processor.frames, path, announced);
}

int ZPX_Upgrade_EraseAPP_Flash(SerialHandle handle, const Processor& processor) {
    return upgrade::erase_application(handle, processor.frames);
}

int ZPX_Upgrade_SendFirmware(SerialHandle handle, const Processor& processor, const char* path,
                             int announced) {
    return upgrade::send_firmware(handle, processor.frames, path, announced);
}

int ZPX_Upgrade_Reset(SerialHandle handle, const Processor& processor) {
    return upgrade::reset_module(handle, processor.frames);
}

std::int32_t ZPX710P_Upgrade_EncodeSync(std::uint8_t address, std::span<std::uint8_t> buffer) {
    return upgrade::encode_frame(buffer, address,
                                 static_cast<std::uint8_t>(upgrade::Command::address), {});
}

int ZPX710P_Upgrade(int argc, char** argv) {
    log_plain(" Enter upgrade\n");
    Options options;
    const Processor* processor = nullptr;
    std::string mode;
    OptionScan scan(argc, argv, "m:p:f:b:t:D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        if (letter != 't') {
            take_common_option(letter, scan.value(), options);
            continue;
        }
        mode = scan.value();
        log_info("Upgrade mode: %s\n", mode.c_str());
        processor = processor_of(mode);
        if (processor == nullptr) {
            break;
        }
    }
    if (processor == nullptr) {
        log_error("Invalid upgrade mode: %s\n", mode.c_str());
        return mode_unusable;
    }

    log_info("Connect...\n");
    const SerialHandle handle =
        serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return 0;
    }
    const int result = run_steps(handle, *processor, options.firmware.c_str());
    if (handle > 0) {
        serial_close(handle);
    }
    return result;
}

}  // namespace orbix::zpx710p
