#include "teseo/transfer.h"

#include <cstdio>

#include "core/firmware_file.h"
#include "core/image_crc.h"
#include "core/kv_log.h"

namespace orbix::teseo {

std::uint32_t get_crc32_with_filesize(const char* path, std::int32_t& file_len) {
    if (path == nullptr || path[0] == '\0') {
        log_error("file path err,filepath=[%s]\n", path != nullptr ? path : "(null)");
        return 0;
    }
    FirmwareFile file(path);
    if (!file.is_open()) {
        log_error("The file does not exist!\n");
        return 0;
    }
    file_len = file.size();
    const std::uint32_t crc = image_crc(static_cast<std::uint32_t>(file_len), file);
    if (file.failed()) {
        std::perror(path);
        return 0;
    }
    return crc;
}

void log_transfer(std::int32_t sent, std::int32_t file_len) {
    log_progress(100.0F * static_cast<float>(sent) / static_cast<float>(file_len), LineEnd::lf);
    log_speed(sent, file_len, static_cast<float>(sent) / 1024.0F, flash_tool_secs());
}

void log_ack_timeout(unsigned timeout_ms) {
    log_error("ACK time out %d ms\n", static_cast<int>(timeout_ms));
}

void log_ack_not_expected(std::uint8_t received) {
    log_error("ACK not expected [%02x]\n", received);
}

bool WordSearch::found_in(std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) {
        matched_ = byte == word_[matched_] ? matched_ + 1 : 0;
        if (matched_ == word_.size()) {
            matched_ = 0;
            return true;
        }
    }
    return false;
}

}  // namespace orbix::teseo
