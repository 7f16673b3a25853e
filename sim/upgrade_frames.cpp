#include "upgrade_frames.h"

#include <algorithm>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::sim {

std::uint32_t UpgradeFrame::word(std::size_t offset) const {
    return from_big_endian(std::span(payload).subspan(offset, 4));
}

std::optional<UpgradeFrame> UpgradeFrameReader::push(std::uint8_t byte) {
    if (bytes_.empty() && byte != 0xAA) {
        return std::nullopt;
    }
    bytes_.push_back(byte);
    if (bytes_.size() < 5) {
        return std::nullopt;
    }
    const std::size_t payload_length = bytes_[3] * 256U + bytes_[4];
    if (bytes_.size() < payload_length + 10) {
        return std::nullopt;
    }
    const auto body = std::span(bytes_).subspan(1, payload_length + 4);
    const std::uint32_t crc = from_big_endian(std::span(bytes_).subspan(payload_length + 5, 4));
    UpgradeFrame frame{.address = bytes_[1],
                       .command = bytes_[2],
                       .payload = {bytes_.begin() + 5, bytes_.end() - 5},
                       .intact = crc == module_crc32(body) && bytes_.back() == 0x55};
    bytes_.clear();
    return frame;
}

std::vector<std::uint8_t> make_upgrade_frame(std::uint8_t address, std::uint8_t command,
                                             std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> frame{0xAA, address, command};
    append_big_endian(frame, static_cast<std::uint32_t>(payload.size()), 2);
    frame.insert(frame.end(), payload.begin(), payload.end());
    append_big_endian(frame, module_crc32(std::span(frame).subspan(1)), 4);
    frame.push_back(0x55);
    return frame;
}

SyncEvent SyncListener::push(std::uint8_t byte) {
    constexpr std::array<std::uint8_t, 4> first{0x09, 0x13, 0x56, 0x4B};
    constexpr std::array<std::uint8_t, 4> second{0x04, 0xA5, 0x03, 0x12};
    std::rotate(last_.begin(), last_.begin() + 1, last_.end());
    last_.back() = byte;
    if (last_ == first) {
        return SyncEvent::first_probe;
    }
    return last_ == second ? SyncEvent::second_probe : SyncEvent::none;
}

}  // namespace orbix::sim
