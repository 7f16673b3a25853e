#include <string>

#include "core/hints.h"
#include "core/kv_log.h"
#include "core/xmodem_block.h"
#include "families/fwup.h"
#include "families/fwup_frames.h"

namespace orbix::hd8xx0 {

namespace {

constexpr int block_refused = 770;
constexpr int last_block_refused = 771;
constexpr int end_not_confirmed = 772;

/// How long the running firmware takes to change its rate.
constexpr unsigned settle_ms = 500;

constexpr unsigned answer_timeout_ms = 3000;

/// The firmware checks the whole image, and writes it, before it confirms the end.
constexpr unsigned end_timeout_ms = 60'000;

// Port 0 and 460,800 baud, little-endian.
constexpr auto set_uart_rate =
    make_frame(0x06, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x08, 0x07, 0x00);
constexpr auto enter_upgrade = make_frame(0x06, 0x50, 0x01);
constexpr auto upgrade_entered = ack_of(0x06, 0x50);

/// What the firmware is told of the image before it arrives: a name, and behind it the length.
constexpr char transfer_name[] = "gnss26rel16.gz";

using ShortData = std::array<std::uint8_t, xmodem::short_data_size>;

ShortData describe_image(std::size_t length) {
    ShortData data{};
    std::copy(std::begin(transfer_name), std::end(transfer_name), data.begin());
    const std::string digits = std::to_string(length);
    std::copy(digits.begin(), digits.end(), data.begin() + sizeof transfer_name);
    return data;
}

/// Reads, up to a buffer-full at a time, until the sequence was seen. What else is in that read is
/// dropped. Returns false when 3 s have passed.
bool wait_for(SerialHandle handle, std::span<const std::uint8_t> sequence,
              std::span<std::uint8_t> buffer) {
    const std::uint64_t deadline = monotonic_ms() + answer_timeout_ms;
    SequenceFinder finder(sequence);
    do {
        const unsigned count = serial_read(handle, buffer, answer_timeout_ms);
        for (const std::uint8_t byte : buffer.first(count)) {
            if (finder.push(byte)) {
                return true;
            }
        }
    } while (monotonic_ms() < deadline);
    return false;
}

/// The same byte by byte: what follows the sequence is left for the next read.
bool wait_for(SerialHandle handle, std::span<const std::uint8_t> sequence) {
    std::uint8_t byte = 0;
    return wait_for(handle, sequence, {&byte, 1});
}

/// 0 when nothing came.
std::uint8_t read_byte(SerialHandle handle, unsigned timeout_ms) {
    std::uint8_t byte = 0;
    serial_read(handle, {&byte, 1}, timeout_ms);
    return byte;
}

void log_failure(int line, std::uint8_t received) {
    log_error("[%s %d]: update fail, receive: %02X\n", "fw_update_user", line, received);
}

bool is_acknowledged(SerialHandle handle, int line) {
    const std::uint8_t answer = read_byte(handle, answer_timeout_ms);
    if (answer != xmodem::ack) {
        log_failure(line, answer);
        return false;
    }
    return true;
}

void change_rate(SerialHandle handle) {
    serial_flush(handle);
    log_info("Sets the UART port to be used and the baud rate of the UART...\n");
    serial_write(handle, set_uart_rate);
    sleep_ms(settle_ms);
    serial_change_br(handle, transfer_baud);
    std::array<std::uint8_t, 20> dropped{};
    serial_read(handle, dropped, answer_timeout_ms);
}

bool enter_upgrade_mode(SerialHandle handle) {
    log_info("Enter Upgrade Mode...\n");
    serial_write(handle, enter_upgrade);
    std::array<std::uint8_t, 1024> buffer{};
    if (!wait_for(handle, upgrade_entered, buffer)) {
        log_error("SYNC time out 3000 ms\n");
        return false;
    }
    hints::synchronised();
    constexpr std::array ready{xmodem::crc_request};
    return wait_for(handle, ready);
}

bool announce_image(SerialHandle handle, std::size_t length) {
    log_info("Send SOH PKG...\n");
    serial_write(handle, xmodem::make_short_block(0, describe_image(length)));
    constexpr std::array accepted{xmodem::ack, xmodem::crc_request};
    return wait_for(handle, accepted);
}

/// The image in blocks from number 1 on; the last one, filled up, may be the only one.
int send_blocks(SerialHandle handle, std::span<const std::uint8_t> image) {
    log_info("Send STX PKG...\n");
    std::uint32_t number = 1;
    std::size_t sent = 0;
    for (; image.size() - sent > block_size; ++number) {
        serial_write(handle, xmodem::make_block(number, image_block(image, sent)));
        if (!is_acknowledged(handle, 897)) {
            return block_refused;
        }
        sent += block_size;
        log_block_done(sent, image.size());
    }
    auto last = image_block(image, sent);
    std::fill(last.begin() + (image.size() - sent), last.end(), xmodem::padding);
    serial_write(handle, xmodem::make_block(number, last));
    return is_acknowledged(handle, 916) ? 0 : last_block_refused;
}

/// Ends the file and the batch, in one go.
int end_batch(SerialHandle handle) {
    serial_write(handle, {&xmodem::eot, 1});
    serial_write(handle, xmodem::make_short_block(0, ShortData{}));

    struct ExpectedByte {
        std::uint8_t byte;
        int line;
    };
    constexpr ExpectedByte confirmation[] = {{xmodem::ack, 931},
                                             {xmodem::crc_request, 939},
                                             {xmodem::ack, 947},
                                             {xmodem::crc_request, 955}};
    for (const ExpectedByte& expected : confirmation) {
        const std::uint8_t received = read_byte(handle, end_timeout_ms);
        if (received != expected.byte) {
            log_failure(expected.line, received);
            return end_not_confirmed;
        }
    }
    std::array<std::uint8_t, 5> cancels{};
    serial_read_until(handle, cancels, end_timeout_ms);
    const auto wrong = std::find_if(cancels.begin(), cancels.end(),
                                    [](std::uint8_t byte) { return byte != xmodem::can; });
    if (wrong != cancels.end()) {
        log_failure(962, *wrong);
        return end_not_confirmed;
    }
    return 0;
}

}  // namespace

int fw_update_user(SerialHandle handle, std::span<const std::uint8_t> image) {
    change_rate(handle);
    if (!enter_upgrade_mode(handle) || !announce_image(handle, image.size())) {
        return -1;
    }
    int result = send_blocks(handle, image);
    if (result != 0) {
        return result;
    }
    log_progress(100.0F, LineEnd::lf);
    result = end_batch(handle);
    if (result != 0) {
        return result;
    }
    log_info("upgrade: success\n");
    return 0;
}

}  // namespace orbix::hd8xx0
