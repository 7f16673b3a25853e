#include "korvane_frames.h"

#include <algorithm>

namespace orbix::sim {

namespace {

/// The first sum is that of the bytes; the second counts each byte as often as the first sum holds
/// it.
void append_checksum(std::vector<std::uint8_t>& frame) {
    unsigned sum = 0;
    unsigned weighted = 0;
    const std::size_t end = frame.size();
    for (std::size_t index = 2; index < end; ++index) {
        sum += frame[index];
        weighted += frame[index] * static_cast<unsigned>(end - index);
    }
    frame.push_back(static_cast<std::uint8_t>(sum % 256));
    frame.push_back(static_cast<std::uint8_t>(weighted % 256));
}

}  // namespace

std::uint16_t KorvaneFrame::half(std::size_t offset) const {
    return static_cast<std::uint16_t>(payload[offset] + payload[offset + 1] * 256);
}

std::uint32_t KorvaneFrame::word(std::size_t offset) const {
    return half(offset) + half(offset + 2) * 0x10000U;
}

std::optional<KorvaneFrame> KorvaneReader::push(std::uint8_t byte) {
    if (bytes_.size() == 1 && byte != 0xD9) {
        bytes_.clear();
    }
    if (bytes_.empty() && byte != 0xF1) {
        return std::nullopt;
    }
    bytes_.push_back(byte);
    if (bytes_.size() < 6) {
        return std::nullopt;
    }
    const std::size_t end = 6 + bytes_[4] + bytes_[5] * 256U;
    if (bytes_.size() < end + 2) {
        return std::nullopt;
    }
    KorvaneFrame frame{.frame_class = bytes_[2],
                       .id = bytes_[3],
                       .payload = {bytes_.begin() + 6, bytes_.end() - 2}};
    frame.intact = bytes_ == make_korvane_frame(frame.frame_class, frame.id, frame.payload);
    bytes_.clear();
    return frame;
}

std::vector<std::uint8_t> make_korvane_frame(std::uint8_t frame_class, std::uint8_t id,
                                             std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> frame(6 + payload.size());
    frame[0] = 0xF1;
    frame[1] = 0xD9;
    frame[2] = frame_class;
    frame[3] = id;
    frame[4] = static_cast<std::uint8_t>(payload.size() % 256);
    frame[5] = static_cast<std::uint8_t>(payload.size() / 256);
    std::copy(payload.begin(), payload.end(), frame.begin() + 6);
    append_checksum(frame);
    return frame;
}

}  // namespace orbix::sim
