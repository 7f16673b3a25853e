#include "families/command_frames.h"

#include <array>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <vector>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/image_crc.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "upgrade/kv_upgrade_protocol.h"

namespace orbix::command_frames {

namespace {

/// The class of all commands but the board's version query.
constexpr std::uint8_t upgrade_class = 0x02;

constexpr std::uint8_t info_id = 0x02;
constexpr std::uint8_t erase_id = 0x03;
constexpr std::uint8_t firmware_id = 0x04;
constexpr std::uint8_t reset_id = 0x31;

/// Bytes of firmware in a frame.
constexpr std::size_t block_size = 5120;

/// The module needs this long to see the end of a command and to begin its answer.
constexpr unsigned response_pause_ms = 20;

/// The payload of a response: class, id, status (2 bytes), and for a version query the version.
constexpr std::size_t payload_length_offset = 3;
constexpr std::size_t payload_offset = 5;
constexpr std::size_t version_offset = payload_offset + 4;
constexpr std::size_t acknowledgement_length = 4;
constexpr std::size_t version_answer_length = 7;

/// A response frame of the greatest length that its length field can tell.
constexpr std::size_t largest_response = 65535 + upgrade::frame_overhead;

struct Command {
    std::uint8_t command_class;
    std::uint8_t id;
    std::size_t response_length = acknowledgement_length;
    unsigned silence_limit = 0;
};

using Response = std::vector<std::uint8_t>;

bool is_accepted(const Response& response, const Command& command, const Dialect& dialect) {
    const auto payload = std::span(response).subspan(payload_offset);
    const bool is_the_answer = payload[0] == command.command_class && payload[1] == command.id;
    if (!dialect.checks_length_and_status) {
        return is_the_answer && response[1] == command.command_class;
    }
    const std::size_t length = get_be16(std::span(response).subspan(payload_length_offset));
    return is_the_answer && length == command.response_length && payload[2] == 0 && payload[3] == 0;
}

/// Sends a whole frame and takes the response to it.
int exchange_frame(SerialHandle handle, const Dialect& dialect, const Command& command,
                   std::span<const std::uint8_t> frame, Response& response) {
    response.assign(largest_response, 0);
    serial_write(handle, frame);
    sleep_ms(response_pause_ms);
    const int result = upgrade::receive_frame(handle, response, dialect.response_byte_timeout,
                                              command.silence_limit);
    if (result != 0) {
        return result;
    }
    return is_accepted(response, command, dialect) ? 0 : response_unexpected;
}

/// The same for a short command.
int exchange(SerialHandle handle, const Dialect& dialect, const Command& command,
             std::initializer_list<std::span<const std::uint8_t>> payload, Response& response) {
    upgrade::CommandBuffer buffer{};
    const std::int32_t length =
        upgrade::encode_frame(buffer, command.command_class, command.id, payload);
    const auto frame = std::span(buffer).first(static_cast<std::size_t>(length));
    return exchange_frame(handle, dialect, command, frame, response);
}

std::array<std::uint8_t, 4> be32(std::uint32_t value) {
    std::array<std::uint8_t, 4> bytes{};
    put_be32(bytes, value);
    return bytes;
}

/// Sends one firmware frame as often as the dialect allows.
int send_block(SerialHandle handle, const Dialect& dialect, std::span<const std::uint8_t> frame) {
    constexpr Command command{upgrade_class, firmware_id};
    Response response;
    if (dialect.firmware_attempts == 1) {
        return exchange_frame(handle, dialect, command, frame, response);
    }
    for (int attempt = 1; attempt <= dialect.firmware_attempts; ++attempt) {
        if (exchange_frame(handle, dialect, command, frame, response) == 0) {
            return 0;
        }
        log_plain(" Retry count: %d\n", attempt);
    }
    log_error("Exceeding the maximum number of retry attempts!\n");
    return attempts_exhausted;
}

}  // namespace

void take_option(int letter, const char* value, Options& options) {
    switch (letter) {
        case 'p':
            options.port = clipped(value, longest_option);
            log_info("Port: %s\n", options.port.c_str());
            break;
        case 'b':
            options.baud = to_int(value);
            log_info("Baud rate:%d\n", options.baud);
            break;
        case 'f':
            options.firmware = clipped(value, longest_option);
            log_info("Firmware:%s\n", options.firmware.c_str());
            break;
        case 'm':
            log_info("Module: %s\n", clipped(value, longest_option).c_str());
            break;
        case 'D':
            serial_enable_debug();
            log_plain(" debug mode\n");
            break;
        default:
            break;
    }
}

Options parse_options(int argc, char** argv) {
    Options options;
    OptionScan scan(argc, argv, "m:p:f:b:tD");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        take_option(letter, scan.value(), options);
    }
    return options;
}

int synchronise(SerialHandle handle, const Dialect& dialect) {
    return upgrade::sync_boot_loader(handle, dialect.first_sync, dialect.second_sync);
}

int get_boot_version(SerialHandle handle, const Dialect& dialect, const VersionQuery& query,
                     std::string& version) {
    const Command command{query.command_class, query.id, version_answer_length,
                          query.silence_limit};
    version.clear();
    Response response;
    const int result = exchange(handle, dialect, command, {}, response);
    if (result != 0) {
        return result;
    }
    const auto numbers = std::span(response).subspan(version_offset, 3);
    version = "V" + std::to_string(numbers[0]) + "." + std::to_string(numbers[1]) + "." +
              std::to_string(numbers[2]);
    return 0;
}

int send_firmware_info(SerialHandle handle, const Dialect& dialect, const char* path,
                       ImageWords words, int& announced) {
    if (!path_exists(path)) {
        return firmware_not_accessible;
    }
    FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror("fopen");
        return firmware_not_opened;
    }
    const auto size = static_cast<std::uint32_t>(file.size());
    const std::uint32_t crc = image_crc(size, file);
    if (file.failed()) {
        std::perror("fread");
        return firmware_not_opened;
    }
    log_info("File Size: %d\n", file.size());
    announced = file.size();
    Response response;
    return exchange(handle, dialect, {upgrade_class, info_id},
                    {be32(size), be32(crc), be32(words.third), be32(words.fourth)}, response);
}

int erase(SerialHandle handle, const Dialect& dialect) {
    Response response;
    return exchange(handle, dialect, {upgrade_class, erase_id}, {}, response);
}

int send_firmware(SerialHandle handle, const Dialect& dialect, const char* path, int announced) {
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

    std::vector<std::uint8_t> block(block_size);
    std::vector<std::uint8_t> frame(block_size + 4 + upgrade::frame_overhead);
    int sent = 0;
    std::uint32_t sequence = 0;
    while (const std::size_t count = file.read(block)) {
        const std::int32_t length = upgrade::encode_frame(
            frame, upgrade_class, firmware_id, {be32(sequence), std::span(block).first(count)});
        const int result =
            send_block(handle, dialect, std::span(frame).first(static_cast<std::size_t>(length)));
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

int reset(SerialHandle handle, const Dialect& dialect) {
    Response response;
    return exchange(handle, dialect, {upgrade_class, reset_id}, {}, response);
}

}  // namespace orbix::command_frames
