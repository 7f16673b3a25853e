#include "teseo/dialogue.h"

#include <vector>

#include "core/firmware_file.h"
#include "core/image_crc.h"
#include "core/kv_log.h"

namespace orbix::teseo {

bool await_ack(SerialHandle handle, unsigned timeout_ms, std::size_t most) {
    std::array<std::uint8_t, 1024> reply{};
    if (serial_read(handle, std::span(reply).first(most), timeout_ms) == 0) {
        log_error("ACK time out %d ms\n", static_cast<int>(timeout_ms));
        return false;
    }
    if (reply[0] != ack) {
        log_error("ACK not expected [%02x]\n", reply[0]);
        return false;
    }
    return true;
}

bool WordSearch::found_in(std::span<const std::uint8_t> received) {
    for (const std::uint8_t byte : received) {
        matched_ = byte == word_[matched_] ? matched_ + 1 : 0;
        if (matched_ == word_.size()) {
            matched_ = 0;
            return true;
        }
    }
    return false;
}

std::uint32_t get_crc32_with_filesize(const char* path, int& file_len) {
    if (path == nullptr || path[0] == '\0') {
        log_error("file path err,filepath=[%s]\n", path == nullptr ? "(null)" : path);
        return 0;
    }
    FirmwareFile file(path);
    if (!file.is_open()) {
        log_error("The file does not exist!\n");
        return 0;
    }
    file_len = file.size();
    return image_crc(static_cast<std::uint32_t>(file_len), file);
}

void log_transfer(int done, int total) {
    log_progress(100.0F * static_cast<float>(done) / static_cast<float>(total), LineEnd::lf);
    log_speed(done, total, static_cast<float>(done) / 1024.0F, flash_tool_secs());
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
    log_info(" Checking CRC...\n");
    return await_ack(handle, transfer.crc_ack_ms, transfer.reply) ? 0 : -1;
}

}  // namespace orbix::teseo
