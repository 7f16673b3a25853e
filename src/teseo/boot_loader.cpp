#include "teseo/boot_loader.h"

#include <algorithm>
#include <cstring>

#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "teseo/sta9100.h"
#include "teseo/transfer.h"

namespace orbix::teseo {

namespace {

constexpr std::string_view upgrade_request = "$PSTMFWUPGRADE*5B\r\n";
constexpr unsigned answer_read_ms = 500;
constexpr unsigned pass_pause_ms = 100;

/// The sync word and the filling behind it.
constexpr std::array<std::uint8_t, 8> sync_words{0xF4, 0x01, 0xD5, 0xBC, 0xFF, 0xFF, 0xFF, 0xFF};
constexpr std::array<std::uint8_t, 4> sync_answer{0x73, 0x40, 0x98, 0x83};
constexpr std::uint8_t sync_confirmation = 0xA3;
constexpr float sync_limit_s = 5.0F;

constexpr unsigned rate_change_pause_ms = 500;

/// The loader erases the code and the NVM area, each with an answer of its own.
constexpr std::uint8_t erase_nvm = 1;
constexpr std::uint8_t do_not_skip_code = 0;

constexpr std::uint8_t handshake = 'J';
constexpr unsigned handshake_ms = 500;

constexpr std::size_t burst_size = 1024;

std::array<std::uint8_t, 20> options_record(std::uint8_t baud_selector, std::uint32_t length,
                                            std::uint32_t crc, OptionWords words) {
    std::array<std::uint8_t, 20> record{erase_nvm, do_not_skip_code, 0, baud_selector};
    const std::span<std::uint8_t> bytes(record);
    put_le32(bytes.subspan(4), length);
    put_le32(bytes.subspan(8), crc);
    put_le32(bytes.subspan(12), words.a);
    put_le32(bytes.subspan(16), words.b);
    return record;
}

/// Knocks until the loader is ready for its options: its first acknowledgement must come within
/// the family's number of attempts, the second one at once.
bool await_loader_ready(SerialHandle handle, int attempts) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        serial_write(handle, {&handshake, 1});
        std::uint8_t reply = 0;
        if (serial_read(handle, {&reply, 1}, handshake_ms) == 0) {
            log_ack_timeout(handshake_ms);
            continue;
        }
        if (reply != ack) {
            log_ack_not_expected(reply);
            return false;
        }
        return await_ack(handle, handshake_ms);
    }
    return false;
}

/// From the caught loader to the checked image.
int upgrade_through_loader(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state,
                           const char* path, OptionWords words) {
    if (state.flash_mode == mode_normal && Kv_Start_Upgrade(handle, family, state) != 0) {
        log_error("Send upgrade command failed.Upgrade failed.\n");
        return -1;
    }
    serial_change_br(handle, loader_baud);
    sleep_ms(rate_change_pause_ms);
    if (Kv_Sync_Module(handle, family, state) != 0) {
        if (family.reports_sync_failure) {
            log_error("Sync module failed.Upgrade failed.\n");
        }
        return -1;
    }
    if (Kv_Write_Options(handle, family, state, path, words) != 0) {
        log_error("Write binary image options failed, upgrade failed.\n");
        return -1;
    }
    if (Kv_Send_Firmware(handle, family, state, path) != 0) {
        log_error("Send the firmware package failed, upgrade failed.\n");
        return -1;
    }
    if (family.reports_completion) {
        log_info("Upgrade complete\n");
    }
    return 0;
}

}  // namespace

Heard judge_sentence(std::string_view sentence) {
    if (sentence.find("PSTMFWUPGRADEOK") != std::string_view::npos) {
        return Heard::accepted;
    }
    if (sentence.find("$PZRNFWUPGRADEERROR") != std::string_view::npos) {
        return Heard::refused;
    }
    return Heard::sentence;
}

bool parse_flash_mode(const char* word, int& mode) {
    if (std::strcmp(word, "recovery") == 0) {
        mode = mode_recovery;
    } else if (std::strcmp(word, "normal") == 0) {
        mode = mode_normal;
    } else if (std::strcmp(word, "boot") == 0) {
        mode = mode_boot;
    } else {
        log_error("unknow flash mode %s, FAIL\n", word);
        return false;
    }
    return true;
}

int Kv_Start_Upgrade(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state) {
    if (family.flush_before_request) {
        serial_flush(handle);
    }
    std::array<std::uint8_t, upgrade_request.size()> request{};
    std::copy(upgrade_request.begin(), upgrade_request.end(), request.begin());
    serial_write(handle, request);

    bool other_sentences = false;
    for (int pass = 0; pass < family.request_passes; ++pass) {
        std::array<std::uint8_t, burst_size> received{};
        const unsigned count = serial_read(handle, received, answer_read_ms);
        std::string sentence;
        switch (family.scan(std::span(received).first(count), sentence)) {
            case Heard::accepted:
                log_info("%s\n", sentence.c_str());
                hints::synchronised();
                hints::answer_awaited();  // of the boot loader
                return 0;
            case Heard::refused:
                log_error("An error occurs at the module end.\n");
                return -1;
            case Heard::sentence:
                other_sentences = true;
                break;
            case Heard::nothing:
                break;
        }
        sleep_ms(pass_pause_ms);
    }
    if (other_sentences && family.other_sentences_fail) {
        return -1;
    }
    log_info("Unable to find nmea presence, enter recovery mode to upgrade.\n");
    state.flash_mode = mode_recovery;
    return 0;
}

int Kv_Sync_Module(SerialHandle handle, const BootLoaderFamily& family, const LoaderState& state) {
    log_info("Synchronize...\n");
    if (state.flash_mode == mode_recovery) {
        log_info("Please power up the module within 5s.\n");
    }
    serial_flush(handle);
    const float start = flash_tool_secs();
    WordSearch answer(sync_answer);
    std::array<std::uint8_t, burst_size> received{};
    do {
        for (int count = 0; count < family.words_per_pass && !serial_gone(handle); ++count) {
            serial_write(handle, sync_words);
        }
        const unsigned count = serial_read(handle, received, family.sync_read_ms);
        if (answer.found_in(std::span(received).first(count))) {
            hints::synchronised();
            serial_write(handle, {&sync_confirmation, 1});
            return await_ack(handle, family.sync_reply_ms, burst_size) ? 0 : -1;
        }
    } while (flash_tool_secs() - start <= sync_limit_s);
    log_error("SYNC time out 5000 ms\n");
    return -1;
}

int Kv_Write_Options(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state,
                     const char* path, OptionWords words) {
    const std::uint32_t crc = get_crc32_with_filesize(path, state.file_len);
    log_info("Write options.\n");
    serial_write(handle, options_record(family.baud_selector,
                                        static_cast<std::uint32_t>(state.file_len), crc, words));
    sleep_ms(family.record_pause_ms);
    if (family.fast_baud != 0) {
        serial_change_br(handle, family.fast_baud);
        sleep_ms(rate_change_pause_ms);
    }
    if (!await_loader_ready(handle, family.handshake_attempts)) {
        return -1;
    }
    log_info("Erase Code...\n");
    if (!await_ack(handle, family.erase_ms)) {
        return -1;
    }
    log_info("Erase NVM...\n");
    return await_ack(handle, family.erase_ms) ? 0 : -1;
}

int Kv_Send_Firmware(SerialHandle handle, const BootLoaderFamily& family, const LoaderState& state,
                     const char* path) {
    return send_raw_image(handle, path, state.file_len, family.image);
}

int upgrade_by_mode(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state,
                    const char* path, OptionWords words) {
    serial_flush(handle);
    if (state.flash_mode == mode_boot) {
        return sta9100::process_sta9100_upgrade(handle, path, family.rom_upgrade_mode);
    }
    return upgrade_through_loader(handle, family, state, path, words);
}

}  // namespace orbix::teseo
