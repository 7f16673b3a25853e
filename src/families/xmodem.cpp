#include "families/xmodem.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "core/kv_log.h"
#include "core/xmodem_block.h"

namespace orbix::rx7040 {

namespace {

constexpr unsigned answer_timeout_ms = 200;
constexpr int most_refusals = 25;
constexpr int most_junk = 10'000;

using BlockData = std::array<std::uint8_t, xmodem::data_size>;

/// Reads the next block's data. A short last piece is padded; at the end of the file the data stays
/// as it is, and the previous block goes out once more.
std::size_t read_block(FirmwareFile& file, BlockData& data) {
    const std::size_t count = file.read(data);
    if (count > 0) {
        std::fill(data.begin() + static_cast<std::ptrdiff_t>(count), data.end(), xmodem::padding);
    }
    return count;
}

void send_block(const XmodemContext& context, const BlockData& data) {
    serial_write(context.port, xmodem::make_block(context.block_number, data));
}

/// Sends block after block, as the receiver asks for them, until the last one is acknowledged.
int send_blocks(XmodemContext& context) {
    BlockData data{};
    std::size_t count = read_block(context.file, data);
    int refusals = 0;
    int junk = 0;
    int acknowledged = 0;  // bytes
    while (!context.file.failed()) {
        std::uint8_t answer = 0;
        if (serial_read(context.port, {&answer, 1}, answer_timeout_ms) == 0) {
            if (serial_gone(context.port)) {
                return xmodem_no_receiver;
            }
            continue;
        }
        switch (answer) {
            case xmodem::crc_request:
                context.block_number = 1;
                send_block(context, data);
                break;
            case xmodem::nak:
                if (context.block_number == 0) {
                    break;  // the receiver asks for a transfer with checksums; 'C' will follow
                }
                if (++refusals > most_refusals) {
                    return xmodem_refused;
                }
                send_block(context, data);
                break;
            case xmodem::ack:
                refusals = 0;
                junk = 0;
                if (count < data.size()) {
                    return 0;
                }
                acknowledged = std::min(acknowledged + static_cast<int>(count), context.total);
                ++context.block_number;
                count = read_block(context.file, data);
                send_block(context, data);
                log_progress(
                    100.0F * static_cast<float>(acknowledged) / static_cast<float>(context.total),
                    LineEnd::crlf);
                log_speed(acknowledged, context.total, rounded_kbytes(acknowledged),
                          flash_tool_secs());
                break;
            default:
                if (++junk > most_junk) {
                    return xmodem_no_receiver;
                }
                break;
        }
    }
    std::perror("fread");
    return xmodem_file_unreadable;
}

/// Tells the receiver that the transfer is over, until it has understood.
int end_transfer(SerialHandle port) {
    constexpr std::array end{xmodem::eot};
    std::array<std::uint8_t, 256> answer{};
    while (!serial_gone(port)) {
        serial_write(port, end);
        if (serial_read(port, answer, answer_timeout_ms) > 0 && answer[0] == xmodem::ack) {
            log_plain(" receive ACK");
            return 0;
        }
        log_plain(" Unreceived ACK");
    }
    return xmodem_no_receiver;
}

}  // namespace

int xmodem_send(XmodemContext& context) {
    const int result = send_blocks(context);
    return result != 0 ? result : end_transfer(context.port);
}

}  // namespace orbix::rx7040
