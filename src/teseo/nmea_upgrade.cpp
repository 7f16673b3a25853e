#include "teseo/nmea_upgrade.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/image_crc.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "teseo/transfer.h"
#include "upgrade/kv_upgrade_protocol.h"
#include "upgrade/sync_words.h"

namespace orbix::teseo {

namespace {

constexpr std::uint8_t command_address = 0x01;
constexpr std::uint8_t command_information = 0x02;
constexpr std::uint8_t command_start = 0x03;
constexpr std::uint8_t command_firmware = 0x04;
constexpr std::uint8_t command_restart = 0xE1;

constexpr float sync_deadline_s = 10.0F;
constexpr unsigned reply_timeout_ms = 3000;
constexpr unsigned erase_timeout_ms = 180000;
constexpr unsigned packet_timeout_ms = 10000;
constexpr unsigned second_probe_timeout_ms = 10000;

constexpr std::size_t reply_length = 14;
constexpr std::size_t reply_status = 8;
constexpr std::size_t reply_crc = 9;

/// The agents of the GNSS chips are told more than those of the processors beside them; what the
/// words mean is the agents' business.
constexpr std::array<std::uint8_t, 24> gnss_information{
    0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x17, 0x00, 0x00,
    0x00, 0x09, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr std::array<std::uint8_t, 8> processor_information{0x00, 0x00, 0x00, 0x00,
                                                            0x01, 0x00, 0x00, 0x00};

constexpr std::array teseo_steps{UpgradeStep::address, UpgradeStep::information, UpgradeStep::start,
                                 UpgradeStep::firmware};

constexpr SyncRules teseo_sync{
    .prompt = "Please power up the module within 10s.\n",
    .passes = 0,
    .read_timeout_ms = 5,
    .pause_ms = 10,
    .pauses_after_silence = false,
};

std::array<std::uint8_t, 4> be32(std::uint32_t value) {
    std::array<std::uint8_t, 4> bytes{};
    put_be32(bytes, value);
    return bytes;
}

int exchange(SerialHandle handle, const NmeaUpgrade& upgrade, std::uint8_t command,
             std::initializer_list<std::span<const std::uint8_t>> payload, unsigned timeout_ms) {
    std::size_t length = upgrade::frame_overhead;
    for (const auto part : payload) {
        length += part.size();
    }
    std::vector<std::uint8_t> frame(length);
    upgrade::encode_frame(frame, upgrade.area, command, payload);
    serial_write(handle, frame);
    return upgrade_RecvAndParseRspFormat(handle, timeout_ms);
}

/// Frame and CRC of a reply. A length field that reaches past the reply cannot have a right CRC.
bool is_intact(std::span<const std::uint8_t, reply_length> reply) {
    const std::size_t covered = get_be16(reply.subspan(3)) + std::size_t{4};
    return covered < reply_length &&
           Kv_Check_CRC32(0, reply.subspan(1, covered)) == get_be32(reply.subspan(reply_crc)) &&
           reply.back() == upgrade::frame_tail && reply.front() == upgrade::frame_head;
}

int judge_status(std::uint8_t status) {
    struct StatusLine {
        std::uint8_t status;
        const char* line;
    };
    static constexpr std::array status_lines{
        StatusLine{0x01, "Unknow error.\n"},
        StatusLine{0x02, "CRC32 checksum error.\n"},
        StatusLine{0x03, "Timeout.\n"},
        StatusLine{0x04, "Unsupported message.\n"},
        StatusLine{0x05, "Message package error.\n"},
        StatusLine{0x06, "Message fm size error.\n"},
        StatusLine{0x10, "GNSS synchronization error.\n"},
        StatusLine{0x11, "GNSS change baud rate error.\n"},
        StatusLine{0x12, "GNSS Bootloader error.\n"},
        StatusLine{0x13, "GNSS firmware information error.\n"},
        StatusLine{0x14, "GNSS firmware upgrade error.\n"},
        StatusLine{0x20, "APP firmware area erase error.\n"},
        StatusLine{0x21, "APP firmware write to Flash error.\n"},
    };
    if (status == 0) {
        return 0;
    }
    for (const StatusLine& known : status_lines) {
        if (known.status == status) {
            log_error("%s", known.line);
            return -1;
        }
    }
    log_ack_not_expected(status);
    return -1;
}

int send_second_probe(SerialHandle handle) {
    serial_write(handle, upgrade::second_probe);
    std::array<std::uint8_t, 1024> received{};
    if (serial_read(handle, received, second_probe_timeout_ms) == 0) {
        log_ack_timeout(second_probe_timeout_ms);
        return -1;
    }
    const auto& answer = upgrade::second_answer;
    if (!std::equal(answer.begin(), answer.end(), received.begin())) {
        log_ack_not_expected(received[0]);
        return -1;
    }
    return 0;
}

/// Sends the pieces that `read_piece` puts into its buffer until it brings none: all `file_len`
/// bytes, or it is a failure.
template <typename ReadPiece>
int send_packets(SerialHandle handle, const NmeaUpgrade& upgrade, std::int32_t file_len,
                 ReadPiece read_piece) {
    std::vector<std::uint8_t> buffer(std::min(upgrade.packet_size, largest_packet));
    std::uint32_t number = 0;
    std::int32_t sent = 0;
    while (const std::size_t count = read_piece(std::span(buffer))) {
        const auto piece = std::span<const std::uint8_t>(buffer).first(count);
        const int result =
            exchange(handle, upgrade, command_firmware, {be32(number), piece}, packet_timeout_ms);
        if (result != 0) {
            return result;
        }
        ++number;
        sent += static_cast<std::int32_t>(count);
        log_transfer(sent, file_len);
    }
    if (sent != file_len) {
        // The agent waits for the rest, and is asked nothing more that could tell.
        hints::image_changed();
        return -1;
    }
    return 0;
}

int send_file(SerialHandle handle, const NmeaUpgrade& upgrade, const char* path,
              std::int32_t file_len) {
    FirmwareFile file(path);
    if (!file.is_open()) {
        log_error("Firmware %s open failed.\n", path);
        return -1;
    }
    log_info("Sending Firmware...\n");
    return send_packets(handle, upgrade, file_len,
                        [&file](std::span<std::uint8_t> buffer) { return file.read(buffer); });
}

int send_memory(SerialHandle handle, const NmeaUpgrade& upgrade, std::span<const std::uint8_t> rest,
                std::int32_t file_len) {
    log_info("Sending Firmware...\n");
    return send_packets(handle, upgrade, file_len, [&rest](std::span<std::uint8_t> buffer) {
        const std::size_t count = std::min(rest.size(), buffer.size());
        std::copy_n(rest.begin(), count, buffer.begin());
        rest = rest.subspan(count);
        return count;
    });
}

int run_step(SerialHandle handle, UpgradeStep step, const NmeaUpgrade& upgrade,
             const UpgradeImage& image, std::int32_t& file_len) {
    switch (step) {
        case UpgradeStep::address:
            return Kv_Nmea_Send_Firmware_Address(handle, upgrade);
        case UpgradeStep::information:
            return Kv_Nmea_Send_Firmware_Info(handle, upgrade, image, file_len);
        case UpgradeStep::start:
            return Kv_Nmea_Send_Start_Upgrade(handle, upgrade);
        case UpgradeStep::firmware:
            return Kv_Nmea_Send_Firmware(handle, upgrade, image, file_len);
        case UpgradeStep::restart:
            return Kv_Nmea_Send_Restart(handle, upgrade);
    }
    return -1;
}

void report_failed(UpgradeStep step) {
    switch (step) {
        case UpgradeStep::address:
            log_error("Send firmware address failed.Upgrade failed.\n");
            break;
        case UpgradeStep::information:
            log_error("Send firmware information failed.Upgrade failed.\n");
            break;
        case UpgradeStep::start:
        case UpgradeStep::restart:
            log_error("Send upgrade command failed.Upgrade failed.\n");
            break;
        case UpgradeStep::firmware:
            log_error("Send firmware failed.Upgrade failed.\n");
            break;
    }
}

}  // namespace

FlashArea flash_area_of(const char* word) {
    struct NamedArea {
        std::string_view word;
        FlashArea area;
    };
    static constexpr std::array named_areas{
        NamedArea{"gnss", area_gnss},
        NamedArea{"app", area_app},
        NamedArea{"slave_gnss", area_slave_gnss},
        NamedArea{"slave_app", area_slave_app},
        NamedArea{"slave_boot", area_slave_boot},
    };
    for (const NamedArea& named : named_areas) {
        if (named.word == word) {
            return named.area;
        }
    }
    return no_area;
}

NmeaUpgrade upgrade_of_area(std::int32_t flash_area) {
    const bool processor =
        flash_area == area_app || flash_area == area_slave_app || flash_area == area_slave_boot;
    return {
        .area = static_cast<std::uint8_t>(flash_area),
        .address = 0,
        .information = processor ? std::span<const std::uint8_t>(processor_information)
                                 : std::span<const std::uint8_t>(gnss_information),
        .start_command = command_start,
        .packet_size = largest_packet,
        .steps = teseo_steps,
        .sync = teseo_sync,
    };
}

int run_nmea_upgrade(SerialHandle handle, const NmeaUpgrade& upgrade, const UpgradeImage& image,
                     std::int32_t& file_len) {
    if (Kv_Nmea_Sync_Module(handle, upgrade.sync) != 0) {
        log_error("Sync module failed.Upgrade failed.\n");
        return -1;
    }
    for (const UpgradeStep step : upgrade.steps) {
        if (run_step(handle, step, upgrade, image, file_len) != 0) {
            report_failed(step);
            return -1;
        }
    }
    return 0;
}

int upgrade_RecvAndParseRspFormat(SerialHandle handle, unsigned timeout_ms) {
    std::array<std::uint8_t, reply_length> reply{};
    const unsigned count = serial_read(handle, reply, timeout_ms);
    if (count == 0) {
        log_ack_timeout(timeout_ms);
        return -1;
    }
    if (count != reply_length || !is_intact(reply)) {
        return -1;
    }
    return judge_status(reply[reply_status]);
}

int Kv_Nmea_Sync_Module(SerialHandle handle, const SyncRules& rules) {
    log_info("Synchronize...\n");
    log_info("%s", rules.prompt);
    serial_flush(handle);
    const float begun = flash_tool_secs();
    WordSearch answer(upgrade::first_answer);
    std::array<std::uint8_t, 1024> received{};
    for (unsigned pass = 0; rules.passes == 0 || pass < rules.passes; ++pass) {
        serial_write(handle, upgrade::first_probe);
        const unsigned count = serial_read(handle, received, rules.read_timeout_ms);
        if (answer.found_in(std::span(received).first(count))) {
            hints::synchronised();
            return send_second_probe(handle);
        }
        if (count != 0 || rules.pauses_after_silence) {
            sleep_ms(rules.pause_ms);
        }
        if (rules.passes == 0 && flash_tool_secs() - begun > sync_deadline_s) {
            log_error("SYNC time out 10000 ms\n");
            return -1;
        }
    }
    return -1;
}

int Kv_Nmea_Send_Firmware_Address(SerialHandle handle, const NmeaUpgrade& upgrade) {
    log_info("Send Firmware Address...\n");
    return exchange(handle, upgrade, command_address, {be32(upgrade.address)}, reply_timeout_ms);
}

int Kv_Nmea_Send_Firmware_Info(SerialHandle handle, const NmeaUpgrade& upgrade,
                               const UpgradeImage& image, std::int32_t& file_len) {
    log_info("Send Firmware Information...\n");
    std::uint32_t crc = 0;
    if (image.is_file()) {
        crc = get_crc32_with_filesize(image.path(), file_len);
    } else {
        file_len = static_cast<std::int32_t>(image.bytes().size());
        crc = image_crc(image.bytes());
    }
    return exchange(handle, upgrade, command_information,
                    {be32(static_cast<std::uint32_t>(file_len)), be32(crc), upgrade.information},
                    reply_timeout_ms);
}

int Kv_Nmea_Send_Start_Upgrade(SerialHandle handle, const NmeaUpgrade& upgrade) {
    log_info("Send Firmware Upgrade Command...\n");
    return exchange(handle, upgrade, upgrade.start_command, {}, erase_timeout_ms);
}

int Kv_Nmea_Send_Firmware(SerialHandle handle, const NmeaUpgrade& upgrade,
                          const UpgradeImage& image, std::int32_t file_len) {
    return image.is_file() ? send_file(handle, upgrade, image.path(), file_len)
                           : send_memory(handle, upgrade, image.bytes(), file_len);
}

int Kv_Nmea_Send_Restart(SerialHandle handle, const NmeaUpgrade& upgrade) {
    log_info("Send Firmware Upgrade Command...\n");
    return exchange(handle, upgrade, command_restart, {}, erase_timeout_ms);
}

}  // namespace orbix::teseo
