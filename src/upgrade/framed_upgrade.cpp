#include "upgrade/framed_upgrade.h"

#include <cstdio>
#include <vector>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "upgrade/kv_upgrade_protocol.h"

namespace orbix::upgrade {

namespace {

/// The boot loader needs this long to see the end of a command and to begin its answer.
constexpr unsigned response_pause_ms = 20;

std::span<const std::uint8_t> frame_of(const CommandBuffer& buffer, std::int32_t length) {
    return std::span(buffer).first(static_cast<std::size_t>(length));
}

/// Sends a command and takes one response frame.
int exchange(SerialHandle handle, std::span<const std::uint8_t> frame, ResponseBuffer& response) {
    serial_write(handle, frame);
    sleep_ms(response_pause_ms);
    return Kv_Upgrade_ReceiveFrame(handle, response);
}

/// Sends a command that is answered by a general acknowledgement. `refusal` is the ERROR line when
/// the boot loader says no, with one conversion for the code.
int request(SerialHandle handle, std::span<const std::uint8_t> frame, const char* refusal) {
    ResponseBuffer response{};
    int result = exchange(handle, frame, response);
    if (result != 0) {
        return result;
    }
    result = Kv_Upgrade_DecodeMsg(response);
    if (result != 0) {
        log_error(refusal, static_cast<unsigned>(result));
        return response_refused;
    }
    return 0;
}

/// Sends one firmware frame until it is acknowledged.
int send_block(SerialHandle handle, std::span<const std::uint8_t> frame) {
    for (int attempt = 1; attempt <= firmware_attempts; ++attempt) {
        ResponseBuffer response{};
        serial_write(handle, frame);
        int result = Kv_Upgrade_ReceiveFrame(handle, response);
        if (result == 0) {
            result = Kv_Upgrade_DecodeMsg(response);
            if (result == 0) {
                return 0;
            }
            log_error("SendFirmware --- Kv_Upgrade_DecodeMsg failed errro code %04x--1\n",
                      static_cast<unsigned>(result));
        }
        log_plain(" Retry count: %d\n", attempt);
    }
    log_error("Exceeding the maximum number of retry attempts!\n");
    return response_refused;
}

}  // namespace

int get_boot_version(SerialHandle handle, const FramedTarget& target, std::string& version) {
    CommandBuffer buffer{};
    ResponseBuffer response{};
    const std::int32_t length = Kv_Upgrade_EncodeBootVer(target.address, buffer);
    int result = exchange(handle, frame_of(buffer, length), response);
    if (result != 0) {
        return result;
    }
    std::array<std::uint8_t, 3> numbers{};
    result = Kv_Upgrade_DecodeBootVer(response, numbers);
    if (result != 0) {
        log_error("GetBootVer --- Kv_Upgrade_DecodeBootVer failed errro code %d\n", result);
        return response_refused;
    }
    version = "V" + std::to_string(numbers[0]) + "." + std::to_string(numbers[1]) + "." +
              std::to_string(numbers[2]);
    return 0;
}

int send_firmware_info(SerialHandle handle, const FramedTarget& target, const char* path,
                       int& announced) {
    if (!path_exists(path)) {
        return firmware_not_accessible;
    }
    FirmwareInfo info{.load_address = target.load_address};
    {
        FirmwareFile file(path);
        if (!file.is_open()) {
            std::perror("fopen");
            return firmware_not_opened;
        }
        announced = file.size();
        info.size = static_cast<std::uint32_t>(announced);
        info.crc = Kv_FW_CRC(file, info);
        if (file.failed()) {
            std::perror("fread");
            return firmware_not_opened;
        }
    }
    if (target.logs_whole_record) {
        log_info("File FW_size: %d\n", static_cast<int>(info.size));
    }
    log_info("File CRC32: %x\n", info.crc);
    if (target.logs_whole_record) {
        log_info("File FW_addr: %x\n", info.load_address);
    }

    CommandBuffer buffer{};
    const std::int32_t length = Kv_Upgrade_EncodeInfo(target.address, buffer, info);
    return request(handle, frame_of(buffer, length),
                   "SendFirmwareInfo --- Kv_Upgrade_DecodeMsg failed errro code %04x\n");
}

int erase_application(SerialHandle handle, const FramedTarget& target) {
    CommandBuffer buffer{};
    const std::int32_t length = Kv_Upgrade_EncodeErase(target.address, buffer);
    return request(handle, frame_of(buffer, length),
                   "EraseAPP --- Kv_Upgrade_DecodeMsg failed errro code %04x\n");
}

int send_firmware(SerialHandle handle, const FramedTarget& target, const char* path,
                  int announced) {
    FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror("fopen");
        return firmware_not_opened;
    }
    const int total = file.size();
    if (total != announced) {
        hints::image_changed();
        return firmware_not_opened;
    }
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(total);

    std::vector<std::uint8_t> block(target.block_size);
    std::vector<std::uint8_t> frame(target.block_size + 4 + frame_overhead);
    int sent = 0;
    std::uint32_t sequence = 0;
    while (const std::size_t count = file.read(block)) {
        const std::int32_t length =
            Kv_Upgrade_EncodeFW(target.address, frame, std::span(block).first(count), sequence);
        const int result =
            send_block(handle, std::span(frame).first(static_cast<std::size_t>(length)));
        if (result != 0) {
            return result;
        }
        ++sequence;
        sent += static_cast<int>(count);
        log_progress(100.0F * static_cast<float>(sent) / static_cast<float>(total), LineEnd::crlf);
        log_speed(sent, total, rounded_kbytes(sent), flash_tool_secs());
    }
    if (file.failed() || sent != total) {
        hints::image_changed();
        return firmware_not_opened;
    }
    return 0;
}

int reset_module(SerialHandle handle, const FramedTarget& target) {
    CommandBuffer buffer{};
    const std::int32_t length =
        Kv_Upgrade_EncodeReboot(target.address, buffer, target.reboot_mode, 0);
    return request(handle, frame_of(buffer, length),
                   "Reset --- Kv_Upgrade_DecodeMsg failed errro code %04x\n");
}

}  // namespace orbix::upgrade
