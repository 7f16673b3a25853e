#include "teseo/sta8089.h"

#include <algorithm>

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/options.h"
#include "teseo/boot_loader.h"
#include "teseo/entry.h"
#include "teseo/sta_decode.h"

namespace orbix::sta8089 {

namespace {

constexpr const char* tool_version = "1.0";

constexpr const char* missing_parameters =
    "Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m TS30D -p "
    "/dev/ttyUSB0 -f ../TS30D_UPG.bin -b 115200 -t recovery, FAIL\n";

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

void log_version() {
    log_info("Version: STA8089_Flash_Tool_V%s\n", tool_version);
}

}  // namespace

int sta8089_upgrade(int argc, char** argv) {
    sentence_under_way = {};
    teseo::CommonOptions options;
    teseo::LoaderState state;
    OptionScan letters(argc, argv, "m:p:f:b:t:v::D");
    for (int letter = letters.next(); letter != -1; letter = letters.next()) {
        if (teseo::take_common_option(letter, letters.value(), options)) {
            continue;
        }
        switch (letter) {
            case 't':
                log_info("Mode: %s\n", letters.value());
                if (!teseo::parse_flash_mode(letters.value(), state.flash_mode)) {
                    return -1;
                }
                break;
            case 'v':
                log_version();
                return end_run(-1);
            default:
                return usage(argv[0]);
        }
    }
    log_version();
    SerialHandle handle = no_port;
    const int failed = teseo::open_module(options, missing_parameters, handle);
    if (failed != 0) {
        return failed;
    }
    const int result =
        teseo::upgrade_by_mode(handle, family, state, options.firmware.c_str(), option_words);
    serial_close(handle);
    return result;
}

}  // namespace orbix::sta8089
