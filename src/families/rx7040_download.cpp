#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "families/command_frames.h"
#include "families/rx7040.h"
#include "families/xmodem.h"

namespace orbix::rx7040 {

namespace {

constexpr unsigned rom_rate = 115200;
constexpr unsigned loader_rate = 460800;

/// The ROM loader is called with `sync_word1`, the running loader with `sync_word3`; an older
/// loader goes straight to its requests (`rsp_word4`).
constexpr std::string_view sync_word1 = "DLS";
constexpr std::string_view rsp_word1 = "CCC";
constexpr std::string_view sync_word3 = "xmodem pkg\r\n";
constexpr std::string_view rsp_word3 = "Waiting for XMODEM transfer";
constexpr std::string_view rsp_word4 = "CCCCCCCCCC";

/// What stands in front of a loader's code and is not sent.
constexpr int loader_header_size = 36;

constexpr int package_not_opened = 263;
constexpr int download_refused = 264;
constexpr int timed_out = 1024;

struct Options : command_frames::Options {
    std::string loader;
};

Options parse_options(int argc, char** argv) {
    Options options;
    OptionScan scan(argc, argv, "m:p:L:f:b:tD");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        if (letter == 'L') {
            options.loader = clipped(scan.value(), command_frames::longest_option);
            log_info("Loader:%s\n", options.loader.c_str());
        } else if (letter != 'b') {  // the ROM loader knows one rate only
            command_frames::take_option(letter, scan.value(), options);
        }
    }
    return options;
}

bool contains(std::span<const std::uint8_t> bytes, std::string_view text) {
    return std::search(bytes.begin(), bytes.end(), text.begin(), text.end()) != bytes.end();
}

std::span<const std::uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

int download_entry(int argc, char** argv) {
    log_plain(" Enter download\n");
    const Options options = parse_options(argc, argv);

    log_info("Connect...\n");
    const SerialHandle handle = serial_open(options.port.c_str(), rom_rate);
    if (handle == no_port) {
        log_error("Open & config the serial failed\n");
        return -1;
    }

    log_info("Synchronize...\n");
    int result = download_Sync(handle, sync_word1, rsp_word1, 10, 20000);
    if (result != 0) {
        log_error("Sync the serial failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    hints::synchronised();
    log_info("Send loader...\n");
    result = download_SendFirmware(handle, options.loader.c_str(), true);
    if (result != 0) {
        log_error("Send loader failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Change baudrate to 460800\n");
    serial_change_br(handle, loader_rate);

    result = download_Sync(handle, sync_word3, rsp_word3, 1000, 2000);
    if (result != 0) {
        result = download_Sync(handle, sync_word3, rsp_word4, 1000, 2000);
    }
    if (result != 0) {
        log_error("loader run failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    log_info("Send Firmware...\n");
    result = download_SendFirmware(handle, options.firmware.c_str(), false);
    if (result != 0) {
        log_error("Send firmware failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }

    result = download_firmware_check(handle, 30000);
    if (result != 0) {
        log_error("Download failed,err: 0x%X\n", static_cast<unsigned>(result));
        return -1;
    }
    return 0;  // the port stays open until the process ends, here and on every failure
}

int download_Sync(SerialHandle handle, std::string_view send_text, std::string_view expected_text,
                  unsigned read_timeout, unsigned total_timeout) {
    const std::uint64_t deadline = monotonic_ms() + total_timeout;
    std::array<std::uint8_t, 256> answer{};
    while (monotonic_ms() <= deadline) {
        serial_write(handle, bytes_of(send_text));
        const unsigned count = serial_read(handle, answer, std::max(read_timeout, 10U));
        if (contains(std::span(answer).first(count), expected_text)) {
            return 0;
        }
    }
    return timed_out;
}

int download_SendFirmware(SerialHandle handle, const char* path, bool is_loader) {
    FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror("fopen");
        return package_not_opened;
    }
    int length = file.size();
    if (is_loader && length > loader_header_size) {
        std::array<std::uint8_t, loader_header_size> header{};
        file.read(header);
        length -= loader_header_size;
    }
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(length);

    XmodemContext context{.port = handle, .file = file, .total = length};
    serial_flush(handle);
    const int result = xmodem_send(context);
    if (result == 0) {
        log_info("Download pkg ok\n");
    }
    return result;
}

int download_firmware_check(SerialHandle handle, unsigned total_timeout) {
    const std::uint64_t deadline = monotonic_ms() + total_timeout;
    std::array<std::uint8_t, 256> answer{};
    while (monotonic_ms() <= deadline) {
        const unsigned count = serial_read(handle, answer, 50);
        const auto text = std::span(answer).first(count);
        if (contains(text, "success")) {
            return 0;
        }
        if (contains(text, "failed")) {
            return download_refused;
        }
    }
    return timed_out;
}

}  // namespace orbix::rx7040
