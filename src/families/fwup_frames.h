// Building the fixed frames of the HD8xx0 protocol, and finding their answers in a stream.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

#include "core/kv_util.h"
#include "families/fwup.h"

namespace orbix::hd8xx0 {

/// The rate of the boot loader's and of the running firmware's transfers.
inline constexpr unsigned transfer_baud = 460'800;

/// The data bytes of a block.
inline constexpr std::size_t block_size = 1024;

/// Head, class, id, length.
inline constexpr std::size_t frame_head_size = 6;

/// A whole frame of the given payload bytes.
template <typename... Payload>
constexpr auto make_frame(std::uint8_t frame_class, std::uint8_t id, Payload... payload) {
    constexpr std::size_t checksum_offset = frame_head_size + sizeof...(Payload);
    std::array<std::uint8_t, checksum_offset + 2> frame{
        0xF1, 0xD9, frame_class, id, sizeof...(Payload), 0, static_cast<std::uint8_t>(payload)...};
    const std::uint16_t checksum = Kv_Check_Korvane(std::span(frame).first(checksum_offset));
    frame[checksum_offset] = static_cast<std::uint8_t>(checksum);
    frame[checksum_offset + 1] = static_cast<std::uint8_t>(checksum >> 8);
    return frame;
}

constexpr auto ack_of(std::uint8_t frame_class, std::uint8_t id) {
    return make_frame(0x05, 0x01, frame_class, id);
}

constexpr auto nak_of(std::uint8_t frame_class, std::uint8_t id) {
    return make_frame(0x05, 0x00, frame_class, id);
}

/// Finds a sequence of bytes in a stream. A byte that breaks a match is looked at again as the
/// first of a new one.
class SequenceFinder {
  public:
    explicit constexpr SequenceFinder(std::span<const std::uint8_t> sequence)
        : sequence_(sequence) {}

    /// Returns whether `byte` completes the sequence.
    constexpr bool push(std::uint8_t byte) {
        if (byte != sequence_[matched_]) {
            matched_ = 0;
        }
        if (byte == sequence_[matched_]) {
            ++matched_;
        }
        if (matched_ < sequence_.size()) {
            return false;
        }
        matched_ = 0;
        return true;
    }

  private:
    std::span<const std::uint8_t> sequence_;
    std::size_t matched_ = 0;
};

/// A block of the image from `offset` on; zeros for what lies behind its end.
inline std::array<std::uint8_t, block_size> image_block(std::span<const std::uint8_t> image,
                                                        std::size_t offset) {
    std::array<std::uint8_t, block_size> block{};
    if (offset < image.size()) {
        const std::size_t count = std::min(block_size, image.size() - offset);
        std::copy_n(image.begin() + static_cast<std::ptrdiff_t>(offset), count, block.begin());
    }
    return block;
}

/// The PROGRESS and SPEED lines behind a block.
void log_block_done(std::size_t done, std::size_t total);

}  // namespace orbix::hd8xx0
