#include "teseo/sta8089.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/options.h"
#include "teseo/boot_loader.h"
#include "teseo/options.h"
#include "teseo/sta_decode.h"

namespace orbix::sta8089 {

namespace {

constexpr const char* tool_version = "1.0";
constexpr int version_status = -1;

constexpr int parameters_missing = 258;
constexpr int firmware_not_accessible = 259;
constexpr int port_not_opened = 260;

/// What the decoder holds from one read to the next.
Sentence sentence_under_way;

/// Feeds the decoder from each dollar sign on. A byte that breaks the sentence off sends the scan
/// back to the byte behind that dollar sign.
teseo::Heard scan(std::span<const std::uint8_t> received, std::string& answer) {
    teseo::Heard heard = teseo::Heard::nothing;
    auto dollar = std::find(received.begin(), received.end(), '$');
    while (dollar != received.end()) {
        auto byte = dollar;
        for (; byte != received.end(); ++byte) {
            std::uint32_t length = 0;
            const int result = Kv_NMEA_CMD_Composite(*byte, sentence_under_way, length);
            if (result < 0) {
                break;
            }
            if (result == 0) {
                continue;
            }
            answer = sentence_under_way.text.substr(0, length - 2);
            heard = teseo::judge_sentence(answer);
            if (heard != teseo::Heard::sentence) {
                return heard;
            }
        }
        dollar = byte == received.end() ? byte : std::find(dollar + 1, received.end(), '$');
    }
    return heard;
}

constexpr teseo::BootLoaderFamily family{
    .flush_before_request = true,
    .request_passes = 11,
    .scan = scan,
    .other_sentences_fail = true,
    .words_per_pass = 1,
    .sync_read_ms = 1,
    .sync_reply_ms = 3000,
    .reports_sync_failure = true,
    .baud_selector = 1,
    .record_pause_ms = 0,
    .fast_baud = 0,
    .handshake_attempts = 1,
    .erase_ms = 30000,
    .image = {.piece = 16384, .reply = 10, .piece_ack_ms = 3000, .crc_ack_ms = 30000},
    .reports_completion = true,
    .rom_upgrade_mode = 0,
};

/// One megabyte of code, and the NVM area behind it.
constexpr teseo::OptionWords option_words{.a = 0x00100000, .b = 0x00100000};

void print_version() {
    log_info("Version: STA8089_Flash_Tool_V%s\n", tool_version);
}

}  // namespace

int sta8089_upgrade(int argc, char** argv) {
    sentence_under_way = {};
    teseo::CommonOptions options;
    teseo::LoaderState state;
    OptionScan letters(argc, argv, "m:p:f:b:t:v::D");
    for (int letter = letters.next(); letter != -1; letter = letters.next()) {
        if (letter == 'm') {
            log_info("Module: %s\n", letters.value());
        } else if (letter == 't') {
            log_info("Mode: %s\n", letters.value());
            if (!teseo::parse_flash_mode(letters.value(), state.flash_mode)) {
                return -1;
            }
        } else if (letter == 'v') {
            print_version();
            std::exit(version_status);
        } else if (!teseo::take_common_option(letter, letters.value(), options)) {
            return usage(argv[0]);
        }
    }
    print_version();
    if (!options.complete()) {
        log_error(
            "Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m TS30D -p "
            "/dev/ttyUSB0 -f ../TS30D_UPG.bin -b 115200 -t recovery, FAIL\n");
        return parameters_missing;
    }
    if (!teseo::firmware_readable(options.firmware)) {
        const int reason = errno;
        log_error("Fail to access %s, errno: %d (%s)\n", options.firmware.c_str(), reason,
                  std::strerror(reason));
        return firmware_not_accessible;
    }
    const SerialPort port(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (!port.is_open()) {
        log_error("Fail to open %s\n", options.port.c_str());
        return port_not_opened;
    }
    return teseo::upgrade_by_mode(port.handle(), family, state, options.firmware.c_str(),
                                  option_words);
}

}  // namespace orbix::sta8089
