#include "core/hints.h"
#include "core/kv_log.h"
#include "families/fwup.h"
#include "families/fwup_frames.h"

namespace orbix::hd8xx0 {

namespace {

constexpr int block_refused = 512;
constexpr int block_attempts = 4;

constexpr unsigned boot_baud = 115'200;

/// How long the module takes to restart or to change its rate.
constexpr unsigned settle_ms = 500;

constexpr std::uint8_t write_class = 0xF4;
constexpr std::uint8_t write_id = 0x05;

constexpr auto enter_boot = make_frame(0x06, 0x5F);
// 26,000,000 Hz and 460,800 baud, little-endian.
constexpr auto set_clock_and_rate =
    make_frame(0xF4, 0x00, 0x80, 0xBA, 0x8C, 0x01, 0x00, 0x08, 0x07, 0x00);
constexpr auto write_acknowledged = ack_of(write_class, write_id);

/// A frame and what the chip answers to it.
struct Exchange {
    std::span<const std::uint8_t> command;
    std::span<const std::uint8_t> reply;
};

constexpr auto query_flash = make_frame(0xF4, 0x07, 0x02);
constexpr auto flash_id = make_frame(0xF4, 0x07, 0x00, 0x0A, 0x01, 0x18);
constexpr auto flash_setting = make_frame(0xF4, 0x08, 0x00, 0x02, 0x00, 0x80);
constexpr auto flash_command = make_frame(0xF4, 0x13, 0x00, 0x00, 0x02, 0x00, 0x00);
constexpr auto flash_command_2 = make_frame(0xF4, 0x20, 0x05);
constexpr auto flash_setting_2 = make_frame(0xF4, 0x08, 0xFF, 0xFF, 0x4F, 0x00);
constexpr auto setting_acknowledged = ack_of(0xF4, 0x08);
constexpr auto command_acknowledged = ack_of(0xF4, 0x13);
constexpr auto command_2_acknowledged = ack_of(0xF4, 0x20);
constexpr auto query_refused = nak_of(0x00, 0x00);
constexpr auto command_refused = nak_of(0xF4, 0x13);

/// The chip of variant 0 refuses two of the frames and is ready all the same.
constexpr std::array<Exchange, 3> flash_setup_0{{
    {query_flash, query_refused},
    {flash_setting, setting_acknowledged},
    {flash_command, command_refused},
}};
constexpr std::array<Exchange, 3> flash_setup_1{{
    {query_flash, flash_id},
    {flash_setting, setting_acknowledged},
    {flash_command, command_acknowledged},
}};
constexpr std::array<Exchange, 2> flash_setup_2{{
    {flash_command_2, command_2_acknowledged},
    {flash_setting_2, setting_acknowledged},
}};

struct Chip {
    std::uint32_t flash_base;
    std::span<const Exchange> flash_setup;
};

constexpr std::array<Chip, 3> chips{{
    {0x00100000, flash_setup_0},
    {0x90000000, flash_setup_1},
    {0x00400000, flash_setup_2},
}};

/// The chip of a variant, or null.
const Chip* chip_of(int variant) {
    const auto index = static_cast<std::size_t>(variant);
    return index < chips.size() ? &chips[index] : nullptr;
}

void change_rate(SerialHandle handle, unsigned baud) {
    sleep_ms(settle_ms);
    serial_change_br(handle, baud);
    sleep_ms(settle_ms);
}

/// Head, address and index; behind them data and checksum.
constexpr std::size_t data_offset = 12;
using WriteFrame = std::array<std::uint8_t, data_offset + block_size + 2>;

/// The frame that writes at most 1024 bytes, in `buffer`.
std::span<const std::uint8_t> make_write_frame(WriteFrame& buffer, std::uint32_t address,
                                               std::size_t index,
                                               std::span<const std::uint8_t> data) {
    const auto frame = std::span(buffer).first(data_offset + data.size() + 2);
    const auto body = frame.first(data_offset + data.size());
    buffer = {0xF1, 0xD9, write_class, write_id};
    put_le16(frame.subspan(4), static_cast<std::uint16_t>(data.size() + 6));
    put_le32(frame.subspan(6), address);
    put_le16(frame.subspan(10), static_cast<std::uint16_t>(index));
    std::copy(data.begin(), data.end(), body.begin() + data_offset);
    put_le16(frame.last(2), Kv_Check_Korvane(body));
    return frame;
}

void sendfwboot(SerialHandle handle, std::uint32_t address, std::size_t index,
                std::span<const std::uint8_t> data) {
    WriteFrame buffer;
    const auto frame = make_write_frame(buffer, address, index, data);
    unsigned written = serial_write(handle, frame.first(data_offset));
    written += serial_write(handle, frame.subspan(data_offset, data.size()));
    written += serial_write(handle, frame.last(2));
    if (written != frame.size()) {
        log_error("Data transmission error: %d/%d\n", static_cast<int>(written),
                  static_cast<int>(frame.size()));
    }
}

/// Whether the block arrived.
bool write_block(SerialHandle handle, std::uint32_t address, std::size_t index,
                 std::span<const std::uint8_t> data) {
    sendfwboot(handle, address, index, data);
    return fw_update_ack_check(handle, write_acknowledged) == 0;
}

bool write_block_repeatedly(SerialHandle handle, std::uint32_t address, std::size_t index,
                            std::span<const std::uint8_t> data) {
    for (int attempt = 1; attempt <= block_attempts; ++attempt) {
        if (write_block(handle, address, index, data)) {
            return true;
        }
        log_info("Expected ACK not received, retry attempts: %d\n", attempt);
    }
    log_error("[%s %d]: update fail\n", "fw_update_boot", 654);
    return false;
}

bool enter_boot_mode(SerialHandle handle, int boot_command_flag) {
    log_info("Enter Boot Mode...\n");
    if (boot_command_flag == 0) {
        serial_write(handle, enter_boot);
    }
    change_rate(handle, boot_baud);
    serial_flush(handle);
    if (is_in_boot_mode(handle) != 0) {
        return false;
    }
    hints::synchronised();
    return true;
}

bool raise_rate(SerialHandle handle) {
    log_info("Sets reference clock frequeney and baud rate...\n");
    serial_write(handle, set_clock_and_rate);
    change_rate(handle, transfer_baud);
    if (is_in_boot_mode(handle) != 0) {
        log_error("Failed to switch baud rate to 460800\n");
        return false;
    }
    serial_flush(handle);
    return true;
}

bool set_up_flash(SerialHandle handle, const Chip& chip) {
    return std::all_of(chip.flash_setup.begin(), chip.flash_setup.end(),
                       [handle](const Exchange& exchange) {
                           serial_write(handle, exchange.command);
                           return fw_update_ack_check(handle, exchange.reply) == 0;
                       });
}

bool start_write(SerialHandle handle, const Chip& chip) {
    WriteFrame buffer;
    serial_write(handle, make_write_frame(buffer, chip.flash_base, 0, {}));
    return fw_update_ack_check(handle, write_acknowledged) == 0;
}

/// The image without its first block, then the first block: it becomes whole at the very end.
int send_image(SerialHandle handle, const Chip& chip, std::span<const std::uint8_t> image) {
    log_info("Sends firmware...\n");
    log_progress(0.0F, LineEnd::lf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(static_cast<int>(image.size()));

    // The count of what remains starts with the whole image although its first block is held
    // back: the blocks reach one block behind the image's end.
    std::size_t remaining = image.size();
    std::size_t index = 1;
    for (; remaining > block_size; ++index) {
        const std::size_t offset = index * block_size;
        const auto address = static_cast<std::uint32_t>(chip.flash_base + offset);
        if (!write_block_repeatedly(handle, address, index, image_block(image, offset))) {
            return block_refused;
        }
        remaining -= block_size;
        log_block_done(image.size() - remaining, image.size());
    }
    const std::size_t offset = index * block_size;
    const auto address = static_cast<std::uint32_t>(chip.flash_base + offset);
    const auto last = image_block(image, offset);
    if (!write_block(handle, address, index, std::span(last).first(remaining))) {
        return -1;
    }
    return write_block(handle, chip.flash_base, index + 1, image_block(image, 0)) ? 0 : -1;
}

}  // namespace

int fw_update_boot(SerialHandle handle, std::span<const std::uint8_t> image, int variant,
                   int boot_command_flag) {
    if (!enter_boot_mode(handle, boot_command_flag) || !raise_rate(handle)) {
        return -1;
    }
    log_info("Queries SPI flash ID or status...\n");
    const Chip* const chip = chip_of(variant);
    if (chip == nullptr) {
        serial_write(handle, query_flash);
        log_error("Unknown module model: %d\n", variant);
        return -1;
    }
    if (!set_up_flash(handle, *chip) || !start_write(handle, *chip)) {
        return -1;
    }
    const int result = send_image(handle, *chip, image);
    if (result != 0) {
        return result;
    }
    log_progress(100.0F, LineEnd::lf);
    log_info("boot: success\n");
    return 0;
}

}  // namespace orbix::hd8xx0
