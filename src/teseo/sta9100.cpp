#include "teseo/sta9100.h"

#include <algorithm>
#include <array>
#include <span>

#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/options.h"
#include "teseo/entry.h"
#include "teseo/loader_steps.h"
#include "teseo/ram_loaders.h"
#include "teseo/transfer.h"

namespace orbix::sta9100 {

namespace {

using teseo::await_ack;
using Word = std::array<std::uint8_t, 4>;

/// What differs between the boot ROMs.
struct BootRom {
    Word sync_word;
    Word sync_answer;
    bool confirms_rate_twice;  ///< one more acknowledgement ends the baud step
    bool asks_after_preamble;  ///< `loader_request` follows the preamble, acknowledged
    bool announces_loader;     ///< `loader_announcement` goes before the size words
    std::uint32_t info_16;     ///< fields of the binary info record, by their first byte
    std::uint8_t info_20;
    std::uint32_t info_28;
    std::uint32_t info_32;
    bool erases_nvm;
    std::span<const std::uint8_t> loader;
    const bool& loader_is_placeholder;
    const char* loader_option;  ///< of the build, to name the loader's file
};

const BootRom sta9100_rom{
    .sync_word = {0xFD, 0xC6, 0x49, 0x28},
    .sync_answer = {0x3A, 0x54, 0x2C, 0xA6},
    .confirms_rate_twice = false,
    .asks_after_preamble = true,
    .announces_loader = false,
    .info_16 = 0x00000400,
    .info_20 = 2,
    .info_28 = 0,
    .info_32 = 0,
    .erases_nvm = false,
    .loader = sta9100_bootloader_Bx_buffer,
    .loader_is_placeholder = sta9100_bootloader_is_placeholder,
    .loader_option = "ORBIX_STA9100_RAM_LOADER",
};

const BootRom sta8089_rom{
    .sync_word = {0x40, 0x1A, 0x5D, 0x21},
    .sync_answer = {0x73, 0x40, 0x98, 0x83},
    .confirms_rate_twice = true,
    .asks_after_preamble = false,
    .announces_loader = true,
    .info_16 = 0,
    .info_20 = 1,
    .info_28 = 0x00100000,
    .info_32 = 0x00100000,
    .erases_nvm = true,
    .loader = sta8089_bootloader_Bx_buffer,
    .loader_is_placeholder = sta8089_bootloader_is_placeholder,
    .loader_option = "ORBIX_STA8089_RAM_LOADER",
};

constexpr const char* tool_version = "1.0";

constexpr unsigned rate_change_pause_ms = 500;
constexpr int sync_attempts = 100;
constexpr unsigned sync_read_ms = 100;

/// How long the chip may take for each kind of answer, in ms.
constexpr unsigned step_ms = 3500;
constexpr unsigned loader_start_ms = 1000;
constexpr unsigned erase_ms = 60000;
constexpr teseo::RawTransfer image_transfer{
    .piece = 5120, .reply = 1, .piece_ack_ms = 3500, .crc_ack_ms = 30000};

constexpr std::uint8_t check_baudrate = 'q';
constexpr std::uint8_t rate_in_use = '8';
constexpr std::uint8_t host_ready = 'Z';
constexpr std::uint8_t send_image = 'J';

constexpr std::array<std::uint8_t, 16> preamble{0xF4, 0x01, 0xD5, 0xBC, 0x73, 0x40, 0x98, 0x83,
                                                0x04, 0x01, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr Word loader_request{0x03, 0xD3, 0x26, 0xDD};
constexpr Word loader_announcement{0xAD, 0xF0, 0xE6, 0xF8};

constexpr std::size_t loader_piece = 5120;

/// Front ends know the progress of a loader of this size; the shorter one ends below 100 %.
constexpr float progress_divisor = 10912.0F;

int upgrade_mode = 1;
int file_len = -1;

const BootRom& boot_rom() {
    return upgrade_mode == 0 ? sta8089_rom : sta9100_rom;
}

void send_byte(SerialHandle handle, std::uint8_t byte) {
    serial_write(handle, {&byte, 1});
}

Word little_endian(std::uint32_t value) {
    Word bytes{};
    put_le32(bytes, value);
    return bytes;
}

void hint_at_placeholder(const BootRom& rom) {
    if (rom.loader_is_placeholder) {
        hints::give(
            "this build holds a placeholder instead of the chip vendor's RAM boot loader, which no "
            "real chip can run; build with -D%s=FILE\n",
            rom.loader_option);
    }
}

std::array<std::uint8_t, 56> binary_info(const BootRom& rom, std::uint32_t crc) {
    constexpr std::uint32_t flash_address = 0x10000000;
    std::array<std::uint8_t, 56> record{};
    const std::span<std::uint8_t> bytes(record);
    put_le32(bytes, static_cast<std::uint32_t>(file_len));
    put_le32(bytes.subspan(4), 1);
    put_le32(bytes.subspan(8), crc);
    put_le32(bytes.subspan(12), flash_address);
    put_le32(bytes.subspan(16), rom.info_16);
    bytes[20] = rom.info_20;
    put_le32(bytes.subspan(28), rom.info_28);
    put_le32(bytes.subspan(32), rom.info_32);
    return record;
}

void log_version() {
    log_info("Version: STA9100_Flash_Tool_V%s\n", tool_version);
}

}  // namespace

int Kv_Sync_Module(SerialHandle handle) {
    log_info("Synchronize...\n");
    const BootRom& rom = boot_rom();
    teseo::WordSearch answer(rom.sync_answer);
    std::array<std::uint8_t, 10> received{};
    for (int attempt = 0; attempt < sync_attempts; ++attempt) {
        serial_write(handle, rom.sync_word);
        const unsigned count = serial_read(handle, received, sync_read_ms);
        if (answer.found_in(std::span(received).first(count))) {
            hints::synchronised();
            return 0;
        }
    }
    return -1;
}

int Kv_Change_Baudrate(SerialHandle handle, unsigned baud) {
    log_info("Check baudrate...\n");
    send_byte(handle, check_baudrate);
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    log_info("Change baudrate...\n");
    serial_write(handle, little_endian(baud));
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    send_byte(handle, rate_in_use);
    return !boot_rom().confirms_rate_twice || await_ack(handle, step_ms) ? 0 : -1;
}

int Kv_Send_Bootloader(SerialHandle handle) {
    const BootRom& rom = boot_rom();
    log_info("Wait Host Ready...\n");
    send_byte(handle, host_ready);
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    log_info("Sending preamble...\n");
    serial_write(handle, preamble);
    if (rom.asks_after_preamble) {
        serial_write(handle, loader_request);
        if (!await_ack(handle, step_ms)) {
            return -1;
        }
    }
    log_info("bin size: %d\n", static_cast<int>(rom.loader.size()));
    log_info("Sending bootloader...\n");
    hint_at_placeholder(rom);
    if (rom.announces_loader) {
        serial_write(handle, loader_announcement);
    }
    serial_write(handle, little_endian(static_cast<std::uint32_t>(rom.loader.size())));
    serial_write(handle, little_endian(0));
    for (std::size_t sent = 0; sent < rom.loader.size();) {
        const std::size_t count = std::min(loader_piece, rom.loader.size() - sent);
        serial_write(handle, rom.loader.subspan(sent, count));
        sent += count;
        log_progress(100.0F * static_cast<float>(sent) / progress_divisor, LineEnd::lf);
    }
    if (!await_ack(handle, loader_start_ms)) {
        return -1;
    }
    log_info("Send the firmware package complete.\n");
    return 0;
}

int Kv_Send_Firmware(SerialHandle handle, const char* firmware_path) {
    const BootRom& rom = boot_rom();
    const std::uint32_t crc = teseo::get_crc32_with_filesize(firmware_path, file_len);
    log_info("fw size: %d, crc32: %02X\n", file_len, crc);
    send_byte(handle, send_image);
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    log_info("Sending binary info...\n");
    log_info("Initializing bootloader....\n");
    serial_write(handle, binary_info(rom, crc));
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    log_info("Wait for device initialization...\n");
    if (!await_ack(handle, step_ms)) {
        return -1;
    }
    log_info("Erasing program area...\n");
    if (!await_ack(handle, erase_ms)) {
        return -1;
    }
    if (rom.erases_nvm) {
        log_info("Erasing NVM area...\n");
        if (!await_ack(handle, erase_ms)) {
            return -1;
        }
    }
    return teseo::send_raw_image(handle, firmware_path, file_len, image_transfer);
}

int process_sta9100_upgrade(SerialHandle handle, const char* firmware_path, int mode) {
    upgrade_mode = mode;
    file_len = -1;
    serial_change_br(handle, teseo::loader_baud);
    sleep_ms(rate_change_pause_ms);
    if (Kv_Sync_Module(handle) != 0) {
        log_error("Sync module failed.Upgrade failed.\n");
        return -1;
    }
    if (Kv_Change_Baudrate(handle, teseo::loader_baud) != 0) {
        log_error("Change Baud Rate failed.Upgrade failed.\n");
        return -1;
    }
    if (Kv_Send_Bootloader(handle) != 0) {
        log_error("Send Bootloader failed.Upgrade failed.\n");
        return -1;
    }
    if (Kv_Send_Firmware(handle, firmware_path) != 0) {
        log_error("Send Firmware failed.Upgrade failed.\n");
        return -1;
    }
    return 0;
}

int sta9100_upgrade(int argc, char** argv) {
    log_version();
    teseo::CommonOptions options;
    OptionScan scan(argc, argv, "m:p:f:b:v::D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        if (teseo::take_common_option(letter, scan.value(), options)) {
            continue;
        }
        if (letter == 'v') {
            log_version();
            return end_run(1);
        }
        return usage(argv[0]);
    }
    if (options.firmware.empty() || options.port.empty() || options.baud == 0) {
        log_error(
            "Upgrade failed.Please input parameters correctly, such as ./Flash_Tool_TS90 -m TS90B "
            "-f ../TS90_UPG.bin -p /dev/ttyUSB0 -b 115200\n");
        return -1;
    }
    if (!FirmwareFile(options.firmware.c_str()).is_open()) {
        log_error("Upgrade failed.Fail to access %s\n", options.firmware.c_str());
        return -1;
    }
    const SerialPort port(options.port.c_str(), static_cast<unsigned>(options.baud));
    if (!port.is_open()) {
        log_error("Fail to open %s\n", options.port.c_str());
        return teseo::port_not_opened;
    }
    log_info("TS90B:download\n");
    return process_sta9100_upgrade(port.handle(), options.firmware.c_str(), 1);
}

}  // namespace orbix::sta9100
