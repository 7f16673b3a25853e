#include <cstdio>
#include <vector>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "core/stm32_packets.h"
#include "upgrade/zpx710p.h"
#include "upgrade/zpx710p_options.h"

namespace orbix::zpx710p {

namespace {

constexpr std::uint8_t synchronisation = 0x7F;
constexpr std::uint8_t command_write_memory = 0x31;
constexpr std::uint8_t command_erase = 0x43;

constexpr std::uint32_t flash_start = 0x08000000;
constexpr int page_size = 2048;
constexpr std::size_t write_block = 240;

/// Refusals of the synchronisation byte that are put up with.
constexpr int handshake_refusals = 100;
constexpr int packet_attempts = 6;

/// How long an answer is waited for, in ms.
constexpr unsigned handshake_wait = 20;
constexpr unsigned command_wait = 200;
constexpr unsigned data_wait = 1000;  // the module erases or programs before it answers

/// Sends a packet until it is acknowledged, at most `packet_attempts` times. Each answer is waited
/// for `wait_ms`; any other byte is a refusal.
bool acknowledged(SerialHandle handle, std::span<const std::uint8_t> packet, unsigned wait_ms) {
    for (int attempt = 0; attempt < packet_attempts; ++attempt) {
        if (serial_write(handle, packet) != packet.size()) {
            continue;
        }
        std::uint8_t answer = 0;
        if (serial_read_until(handle, {&answer, 1}, wait_ms) == 1 && answer == stm32::ack) {
            return true;
        }
    }
    return false;
}

/// Writes one block: the command, the address, the length less one with the bytes.
bool write_memory(SerialHandle handle, std::uint32_t address, std::span<const std::uint8_t> bytes) {
    if (ZPX710P_SendCmd(handle, command_write_memory) != 0) {
        log_error("Send cmd %x failed\n", command_write_memory);
        return false;
    }
    std::array<std::uint8_t, 4> address_bytes{};
    put_be32(address_bytes, address);
    if (ZPX710P_SendData(handle, address_bytes) != 0) {
        log_error("Send addr data failed\n");
        return false;
    }
    std::vector<std::uint8_t> block{static_cast<std::uint8_t>(bytes.size() - 1)};
    block.insert(block.end(), bytes.begin(), bytes.end());
    if (ZPX710P_SendData(handle, block) != 0) {
        log_error("Send data failed\n");
        return false;
    }
    return true;
}

/// The dialogue. Only a negative result stops it: an image that cannot be opened is passed on by
/// both steps that need it and becomes the result of the run.
int run_steps(SerialHandle handle, const char* firmware) {
    int result = serial_CfgEvenParity(handle);
    if (result != 0) {
        log_error("Config the serial even parity failed\n");
        return result;
    }
    result = ZPX710P_Handshake(handle);
    if (result < 0) {
        log_error("Handshake failed\n");
        return result;
    }
    result = ZPX710P_Erase(handle, firmware);
    if (result < 0) {
        log_error("Erase failed\n");
        return result;
    }
    result = ZPX710P_SendFW(handle, firmware);
    if (result < 0) {
        log_error("Send FW failed\n");
        return result;
    }
    log_info("Download success\n");
    return result;
}

}  // namespace

void int16_to_big_endian(std::uint32_t value, std::span<std::uint8_t, 2> out) {
    put_be16(out, static_cast<std::uint16_t>(value >> 16));
}

int ZPX710P_Handshake(SerialHandle handle) {
    int refusals = 0;
    while (refusals <= handshake_refusals) {
        if (serial_write_byte(handle, synchronisation) == 0) {
            ++refusals;
            sleep_ms(20);
            continue;
        }
        std::uint8_t answer = 0;
        if (serial_read_until(handle, {&answer, 1}, handshake_wait) == 0) {
            // A module that is not powered yet may take its time; one that vanished may not.
            refusals += serial_gone(handle) ? 1 : 0;
            continue;
        }
        if (answer == stm32::ack) {
            hints::synchronised();
            log_info("Handshake success\n");
            return 0;
        }
        log_error("Handshake recv %x not %x failed\n", answer, stm32::ack);
        ++refusals;
    }
    log_error("Handshake Time out!\n");
    return -1;
}

int ZPX710P_SendCmd(SerialHandle handle, std::uint8_t command) {
    if (!acknowledged(handle, stm32::command_packet(command), command_wait)) {
        log_error("Send cmd %x failed\n", command);
        return -1;
    }
    return 0;
}

int ZPX710P_SendData(SerialHandle handle, std::span<const std::uint8_t> data) {
    std::vector<std::uint8_t> packet(data.begin(), data.end());
    packet.push_back(stm32::xor_checksum(data));
    return acknowledged(handle, packet, data_wait) ? 0 : -1;
}

int ZPX710P_Erase(SerialHandle handle, const char* path) {
    const FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror("fopen");
        return upgrade::firmware_not_opened;
    }
    log_info("Firmware size: %d\n", file.size());
    const int pages_needed = file.size() / page_size + (file.size() % page_size != 0 ? 1 : 0);
    const auto pages = static_cast<std::uint8_t>(pages_needed);
    log_info("Erase %d pages\n", pages);
    for (std::uint8_t page = 0; page < pages; ++page) {
        std::array<std::uint8_t, 2> page_number{};
        int16_to_big_endian(page, page_number);
        if (ZPX710P_SendCmd(handle, command_erase) != 0 ||
            ZPX710P_SendData(handle, page_number) != 0) {
            log_error("Erase page %d failed\n", page);
            return -1;
        }
    }
    return 0;
}

int ZPX710P_SendFW(SerialHandle handle, const char* path) {
    FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror("fopen");
        return upgrade::firmware_not_opened;
    }
    const int total = file.size();
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(total);

    std::array<std::uint8_t, write_block> block{};
    int sent = 0;
    while (const std::size_t count = file.read(block)) {
        log_info("bytes_read = %d\n", static_cast<int>(count));
        const std::uint32_t address = flash_start + static_cast<std::uint32_t>(sent);
        if (!write_memory(handle, address, std::span(block).first(count))) {
            return -1;
        }
        sent += static_cast<int>(count);
        log_progress(static_cast<float>(sent) * 100.0F / static_cast<float>(total), LineEnd::crlf);
        log_speed(sent, total, rounded_kbytes(sent), flash_tool_secs());
    }
    if (file.failed() || sent != total) {
        hints::image_changed();
        return -1;
    }
    return 0;
}

int ZPX710P_Download(int argc, char** argv) {
    log_plain(" Enter download\n");
    Options options;
    OptionScan scan(argc, argv, "m:p:L:f:b:tD");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        take_common_option(letter, scan.value(), options);
    }

    log_info("Connect...\n");
    const SerialHandle handle =
        serial_open(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return -1;
    }
    const int result = run_steps(handle, options.firmware.c_str());
    if (handle > 0) {
        serial_close(handle);
    }
    return result;
}

}  // namespace orbix::zpx710p
