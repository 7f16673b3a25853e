#include "teseo/loader_steps.h"

#include <array>
#include <vector>

#include "core/firmware_file.h"
#include "core/kv_log.h"
#include "teseo/transfer.h"

namespace orbix::teseo {

bool await_ack(SerialHandle handle, unsigned timeout_ms, std::size_t most) {
    std::array<std::uint8_t, 1024> reply{};
    if (serial_read(handle, std::span(reply).first(most), timeout_ms) == 0) {
        log_ack_timeout(timeout_ms);
        return false;
    }
    if (reply[0] != ack) {
        log_ack_not_expected(reply[0]);
        return false;
    }
    return true;
}

int send_raw_image(SerialHandle handle, const char* path, int file_len,
                   const RawTransfer& transfer) {
    FirmwareFile file(path);
    if (!file.is_open()) {
        log_error("Firmware %s open failed.\n", path);
        return -1;
    }
    log_info("Sending Firmware...\n");
    std::vector<std::uint8_t> piece(transfer.piece);
    int sent = 0;
    while (const std::size_t count = file.read(piece)) {
        serial_write(handle, std::span(piece).first(count));
        if (!await_ack(handle, transfer.piece_ack_ms, transfer.reply)) {
            return -1;
        }
        sent += static_cast<int>(count);
        log_transfer(sent, file_len);
    }
    // A file that could not be read to its end is caught here: the module waits for the rest.
    log_info(" Checking CRC...\n");
    return await_ack(handle, transfer.crc_ack_ms, transfer.reply) ? 0 : -1;
}

}  // namespace orbix::teseo
