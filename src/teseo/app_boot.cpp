#include "teseo/app_boot.h"

#include <algorithm>
#include <array>
#include <initializer_list>
#include <vector>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/stm32_packets.h"
#include "teseo/transfer.h"

namespace orbix::sta8100 {

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr unsigned reply_timeout_ms = 60000;
constexpr std::size_t longest_reply = 12;

/// The processor needs this long to settle on the other parity, and behind the erase.
constexpr unsigned parity_pause_ms = 500;
constexpr unsigned erase_pause_ms = 4000;

constexpr std::uint8_t synchronise = 0x7F;
constexpr std::uint8_t command_get = 0x00;
constexpr std::uint8_t command_get_id = 0x02;
constexpr std::uint8_t command_read_memory = 0x11;
constexpr std::uint8_t command_write_memory = 0x31;
constexpr std::uint8_t command_extended_erase = 0x44;
constexpr std::uint8_t command_write_unprotect = 0x73;

constexpr std::uint8_t flash_base = 0x08;  ///< the upper byte of all addresses
constexpr std::uint8_t pages = 16;
constexpr std::size_t block_size = 256;

/// What is sent, and what must come back.
struct Exchange {
    Bytes tx;
    Bytes expected;
};

/// Holds exchanges one after the other, up to the first that fails.
int exchange(SerialHandle handle, std::initializer_list<Exchange> exchanges) {
    for (const auto& [tx, expected] : exchanges) {
        const int result = Kv_UART_Send_Recv(handle, tx, expected);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

Bytes command(std::uint8_t code) {
    const auto packet = stm32::command_packet(code);
    return {packet.begin(), packet.end()};
}

Bytes with_checksum(Bytes bytes) {
    bytes.push_back(calculate_xor_checksum(bytes));
    return bytes;
}

int identify(SerialHandle handle) {
    log_info("Get version....\n");
    const int result =
        exchange(handle, {{command(command_get), {stm32::ack}},
                          {{}, {0x0B}},  // so many bytes follow, and one more
                          {{}, {0x31}},
                          {{}, {0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63, 0x73, 0x82, 0x92}},
                          {{}, {stm32::ack}}});
    if (result != 0) {
        return result;
    }
    log_info("Get chip ID....\n");
    return exchange(handle, {{command(command_get_id), {stm32::ack}},
                             {{}, {0x01}},
                             {{}, {0x04, 0x50}},
                             {{}, {stm32::ack}}});
}

/// Looks at the first bytes of the flash. Sets `blank`; returns non-zero when it could not be told.
int check_blank(SerialHandle handle, bool& blank) {
    log_info("Read Memory...\n");
    constexpr std::uint8_t last_byte = longest_reply - 1;
    int result = exchange(handle, {{command(command_read_memory), {stm32::ack}},
                                   {address_of_block(0), {stm32::ack}},
                                   {command(last_byte), {stm32::ack}}});
    if (result != 0) {
        return result;
    }
    result = exchange(handle, {{{}, Bytes(longest_reply, 0xFF)}});
    blank = result == 0;
    return result == exchange_mismatched ? 0 : result;
}

int erase(SerialHandle handle) {
    log_info("Write Unprotect...\n");
    int result =
        exchange(handle, {{command(command_write_unprotect), {stm32::ack}}, {{}, {stm32::ack}}});
    if (result != 0) {
        return result;
    }
    log_info("Extended Erase Memory...\n");
    Bytes page_list{0x00, pages - 1};
    for (std::uint8_t page = 0; page < pages; ++page) {
        page_list.insert(page_list.end(), {0x00, page});
    }
    result = exchange(handle, {{command(command_extended_erase), {stm32::ack}},
                               {with_checksum(page_list), {stm32::ack}}});
    if (result != 0) {
        return result;
    }
    sleep_ms(erase_pause_ms);
    return 0;
}

int make_blank(SerialHandle handle) {
    bool blank = false;
    int result = check_blank(handle, blank);
    if (result != 0 || blank) {
        return result;
    }
    result = erase(handle);
    if (result != 0) {
        return result;
    }
    result = check_blank(handle, blank);
    return result == 0 && !blank ? exchange_mismatched : result;
}

int write_image(SerialHandle handle, const char* path) {
    log_info("Write Memory...\n");
    FirmwareFile file(path);
    if (!file.is_open()) {
        log_error("Firmware %s open failed.\n", path);
        return -1;
    }
    std::int32_t file_len = 0;
    teseo::get_crc32_with_filesize(path, file_len);

    std::array<std::uint8_t, block_size> block{};
    std::uint32_t number = 0;
    std::int32_t sent = 0;
    while (const std::size_t count = file.read(block)) {
        Bytes data{static_cast<std::uint8_t>(count - 1)};
        data.insert(data.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(count));
        const int result = exchange(handle, {{command(command_write_memory), {stm32::ack}},
                                             {address_of_block(number), {stm32::ack}},
                                             {with_checksum(data), {stm32::ack}}});
        if (result != 0) {
            return result;
        }
        ++number;
        sent += static_cast<std::int32_t>(count);
        teseo::log_transfer(sent, file_len);
    }
    if (sent != file_len) {
        // Nothing else would tell: the processor does not know how much it is to get.
        hints::image_changed();
        return -1;
    }
    return 0;
}

}  // namespace

int Kv_Boot_Send_Firmware(SerialHandle handle, const char* firmware_path) {
    int result = serial_CfgEvenParity(handle);
    if (result != 0) {
        return result;
    }
    sleep_ms(parity_pause_ms);
    log_info("Readyding receive commands....\n");
    result = exchange(handle, {{{synchronise}, {stm32::ack}}});
    if (result != 0) {
        return result;
    }
    hints::synchronised();
    result = identify(handle);
    if (result != 0) {
        return result;
    }
    result = make_blank(handle);
    if (result != 0) {
        return result;
    }
    return write_image(handle, firmware_path);
}

int Kv_UART_Send_Recv(SerialHandle handle, std::span<const std::uint8_t> tx,
                      std::span<const std::uint8_t> expected) {
    if (!tx.empty()) {
        serial_write(handle, tx);
    }
    std::array<std::uint8_t, longest_reply> buffer{};
    const auto reply = std::span(buffer).first(std::min(expected.size(), buffer.size()));
    std::size_t count = 0;
    int mismatches = 0;
    while (count < reply.size()) {
        const std::size_t read = serial_read(handle, reply.subspan(count), reply_timeout_ms);
        if (read == 0) {
            log_error("timeout.\n");
            return exchange_timed_out;
        }
        if (count == 0 && read == 1 && reply[0] == stm32::nack) {
            log_error("NAK\n");
            return exchange_refused;
        }
        for (std::size_t index = count; index < read; ++index) {
            mismatches += reply[index] != expected[index] ? 1 : 0;
        }
        count += read;
    }
    if (mismatches != 0) {
        log_info("Wrong response.\n");
        return exchange_mismatched;
    }
    return 0;
}

Bytes address_of_block(std::uint32_t block) {
    return with_checksum({flash_base, static_cast<std::uint8_t>(block >> 8),
                          static_cast<std::uint8_t>(block), 0x00});
}

std::uint8_t calculate_xor_checksum(std::span<const std::uint8_t> bytes) {
    return stm32::xor_checksum(bytes);
}

}  // namespace orbix::sta8100
