#include "xmodem_receiver.h"

#include "checksums.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t start_of_block = 0x02;
constexpr std::uint8_t end_of_transfer = 0x04;
constexpr std::uint8_t acknowledge = 0x06;
constexpr std::uint8_t refuse = 0x15;
constexpr std::uint8_t cancel = 0x18;

constexpr std::size_t block_size = 1029;
constexpr Micros request_interval = milliseconds(100);
constexpr Micros byte_timeout = milliseconds(1000);

/// A damaged block may have any length: it is over once the line has been silent for this long.
constexpr Micros purge_silence = milliseconds(100);

}  // namespace

void XmodemReceiver::start(Micros first_request, Sink sink) {
    *this = {};
    next_request_ = first_request;
    sink_ = std::move(sink);
}

std::optional<std::uint8_t> XmodemReceiver::push(std::uint8_t byte, Micros now) {
    last_byte_ = now;
    if (purging_) {
        return std::nullopt;
    }
    if (block_.empty() && byte == end_of_transfer && has_begun()) {
        is_over_ = true;
        return acknowledge;
    }
    if (block_.empty() && byte != start_of_block) {
        purging_ = has_begun() && !is_over_;  // before, the host may still be calling
        return std::nullopt;
    }
    block_.push_back(byte);
    if (block_.size() < block_size) {
        return std::nullopt;
    }
    const auto answer = judge_block();
    block_.clear();
    purging_ = !answer;
    return answer;
}

/// Returns the answer to a whole block; nothing for a damaged one, which is refused later.
std::optional<std::uint8_t> XmodemReceiver::judge_block() {
    const auto data = std::span(block_).subspan(3, 1024);
    const unsigned number = block_[1];
    const unsigned crc = block_[1027] * 256U + block_[1028];
    if (number + block_[2] != 0xFF || crc != module_crc16(data)) {
        return std::nullopt;
    }
    if (number == ((next_number_ - 1) & 0xFF) && has_begun()) {
        return acknowledge;  // sent again: our answer was lost
    }
    if (number != (next_number_ & 0xFF) || !sink_(data)) {
        return cancel;
    }
    ++next_number_;
    return acknowledge;
}

std::optional<Micros> XmodemReceiver::timeout_at() const {
    if (purging_) {
        return last_byte_ + purge_silence;
    }
    if (!block_.empty()) {
        return last_byte_ + byte_timeout;
    }
    return has_begun() || is_over_ ? std::nullopt : std::optional(next_request_);
}

std::uint8_t XmodemReceiver::timeout(Micros now) {
    if (purging_ || !block_.empty()) {
        purging_ = false;
        block_.clear();
        return refuse;
    }
    next_request_ = now + request_interval;
    return 'C';
}

}  // namespace orbix::sim
