#include "teseo/sta8100.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/options.h"
#include "teseo/app_boot.h"
#include "teseo/boot_loader.h"
#include "teseo/entry.h"
#include "teseo/nmea_upgrade.h"
#include "teseo/sta_decode.h"

namespace orbix::sta8100 {

namespace {

constexpr const char* version = "1.0";

constexpr const char* missing_parameters =
    "Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m TS50A -p "
    "/dev/ttyUSB0 -f ../TS50A_UPG.bin -b 115200 -t recovery, FAIL\n";

/// The area that is written by the application processor's own boot loader, beside those of the
/// running firmware.
constexpr std::int32_t area_app_boot = 18;

/// A module, and the last two words of the options record that its boot loader wants.
struct Module {
    std::string_view name;
    teseo::OptionWords words;
};

/// Looked up by prefix: a name that extends another one stands before it.
constexpr std::array<Module, 14> sta8100_modules{{
    {"TS50A", {0x000FF000, 0x00101000}},
    {"TS50B", {0x000FF000, 0x00101000}},
    {"TS50C", {0x000FF000, 0x00101000}},
    {"TS51A", {0x000FF000, 0x00101000}},
    {"TS51B", {0x000FF000, 0x00101000}},
    {"TS52A-L", {0x000FF000, 0x000F9000}},
    {"TS52A", {0x000FF000, 0x00101000}},
    {"TS52B", {0x000FF000, 0x00101000}},
    {"TS60A", {0x001FF000, 0x00201000}},
    {"TS60B", {0x001FF000, 0x00201000}},
    {"TS61A", {0x001FF000, 0x00201000}},
    {"TS61B", {0x001FF000, 0x00201000}},
    {"TS62", {0x001FF000, 0x00201000}},
    {"TS65", {0x001FF000, 0x00201000}},
}};

/// What the decoder holds from one read to the next.
teseo::Sentence sentence_under_way;

/// Feeds the decoder from the first dollar sign of each read on. What stands before it is skipped,
/// also where it is the rest of a sentence that the read before has begun.
teseo::Heard scan(std::span<const std::uint8_t> received, std::string& answer) {
    constexpr int more = 3;
    teseo::Heard heard = teseo::Heard::nothing;
    for (auto byte = std::find(received.begin(), received.end(), '$'); byte != received.end();
         ++byte) {
        std::uint32_t length = 0;
        if (Kv_NMEA_CMD_Composite(*byte, sentence_under_way, length) == more) {
            continue;
        }
        const std::string& text = sentence_under_way.text;
        answer = text.substr(0, text.find('\0'));  // a 0 within ends the text, as it does in print
        heard = teseo::judge_sentence(answer);
        if (heard != teseo::Heard::sentence) {
            return heard;
        }
    }
    return heard;
}

constexpr teseo::BootLoaderFamily family{
    .flush_before_request = false,
    .request_passes = 6,
    .scan = scan,
    .other_sentences_fail = false,
    .words_per_pass = 1000,
    .sync_read_ms = 5,
    .sync_reply_ms = 10000,
    .reports_sync_failure = false,
    .baud_selector = 2,
    .record_pause_ms = 500,
    .fast_baud = 230400,
    .handshake_attempts = 51,
    .erase_ms = 60000,
    .image = {.piece = 16384, .reply = 10, .piece_ack_ms = 100000, .crc_ack_ms = 60000},
    .reports_completion = false,
    .rom_upgrade_mode = 1,
};

void log_version() {
    log_info("Version: STA8100_Flash_Tool_V%s\n", version);
}

struct Options : teseo::CommonOptions {
    int flash_mode = teseo::mode_not_given;
    std::int32_t flash_area = teseo::no_area;
    teseo::OptionWords words{0, 0};  ///< 0 for a module that is not in the table
};

/// What the run does once the options are read.
enum class After : unsigned char { upgrade, fail, end };

After parse_options(int argc, char** argv, Options& options) {
    const auto* row = sta8100_modules.begin();  // a second -m goes on where the first one stopped
    OptionScan scan(argc, argv, "m:p:f:b:t:c:v::D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        const std::string_view value = scan.value();
        if (letter == 'm') {
            row = std::find_if(row, sta8100_modules.end(), [value](const Module& module) {
                return value.starts_with(module.name);
            });
            if (row != sta8100_modules.end()) {
                options.words = row->words;
            }
        }
        if (teseo::take_common_option(letter, scan.value(), options)) {
            continue;
        }
        switch (letter) {
            case 't':
                log_info("Mode: %s\n", scan.value());
                if (!teseo::parse_flash_mode(scan.value(), options.flash_mode)) {
                    return After::fail;
                }
                break;
            case 'c':
                log_info("Flash area: %s\n", scan.value());
                options.flash_area =
                    value == "app_boot" ? area_app_boot : teseo::flash_area_of(scan.value());
                if (options.flash_area == teseo::no_area) {
                    log_error("unknow flash area %s, FAIL\n", scan.value());
                    return After::fail;
                }
                break;
            case 'v':
                log_version();
                return After::end;
            default:
                usage(argv[0]);
                return After::fail;
        }
    }
    return After::upgrade;
}

/// Chooses the way by area, module and mode.
int upgrade(SerialHandle handle, const Options& options) {
    const char* const path = options.firmware.c_str();
    teseo::LoaderState state{.flash_mode = options.flash_mode};
    if (options.flash_area == area_app_boot) {
        if (Kv_Boot_Send_Firmware(handle, path) != 0) {
            log_error("Sync module failed.Upgrade failed.\n");
            return -1;
        }
        return 0;
    }
    if (options.flash_area != teseo::no_area) {
        return teseo::run_nmea_upgrade(handle, teseo::upgrade_of_area(options.flash_area),
                                       teseo::UpgradeImage::of_file(path), state.file_len);
    }
    if (options.words.a == 0) {
        log_error("Parameter call error.\n");
        return -1;
    }
    return teseo::upgrade_by_mode(handle, family, state, path, options.words);
}

}  // namespace

int sta8100_upgrade(int argc, char** argv) {
    sentence_under_way = {};
    Options options;
    switch (parse_options(argc, argv, options)) {
        case After::end:
            return end_run(-1);
        case After::fail:
            return -1;
        case After::upgrade:
            break;
    }
    log_version();
    SerialHandle handle = no_port;
    int result = teseo::open_module(options, missing_parameters, handle);
    if (result == 0) {
        result = upgrade(handle, options);
        serial_close(handle);
    }
    return result;
}

}  // namespace orbix::sta8100
