#include "batch_receiver.h"

#include <algorithm>
#include <cstdlib>

#include "checksums.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t start_short = 0x01;
constexpr std::uint8_t start_long = 0x02;
constexpr std::uint8_t end_of_transmission = 0x04;
constexpr std::uint8_t acknowledge = 0x06;
constexpr std::uint8_t refuse = 0x15;
constexpr std::uint8_t cancel = 0x18;
constexpr std::uint8_t request = 'C';

constexpr Micros request_period = milliseconds(1000);
constexpr Micros block_timeout = milliseconds(1000);

std::size_t size_of_data(std::uint8_t start) {
    return start == start_short ? 128 : 1024;
}

}  // namespace

void BatchReceiver::start(Micros now) {
    state_ = State::wants_header;
    block_.clear();
    file_.clear();
    name_.clear();
    announced_ = 0;
    next_request_ = now + milliseconds(100);
}

void BatchReceiver::receive(std::uint8_t byte, Micros now, Wire& wire) {
    last_byte_ = now;
    if (state_ == State::idle || state_ == State::storing) {
        return;
    }
    if (block_.empty()) {
        if (byte == end_of_transmission) {
            end_of_file(wire);
        } else if (byte == start_short || byte == start_long) {
            block_.push_back(byte);
        }
        return;
    }
    block_.push_back(byte);
    if (block_.size() == size_of_data(block_.front()) + 5) {
        take_block(now, wire);
        block_.clear();
    }
}

std::optional<Micros> BatchReceiver::wake_time() const {
    if (!block_.empty()) {
        return last_byte_ + block_timeout;
    }
    if (state_ == State::wants_header || state_ == State::storing) {
        return next_request_;
    }
    return std::nullopt;
}

bool BatchReceiver::wake(Micros now, Wire& wire) {
    if (!block_.empty()) {
        block_.clear();
        say(BatchEvent::block, {refuse}, wire);
        return false;
    }
    if (state_ == State::storing) {
        state_ = State::idle;
        say(BatchEvent::taken, {cancel, cancel, cancel, cancel, cancel}, wire);
        return true;
    }
    next_request_ = now + request_period;
    say(BatchEvent::waiting, {request}, wire);
    return false;
}

void BatchReceiver::say(BatchEvent event, std::vector<std::uint8_t> answer, Wire& wire) {
    if (tamper) {
        tamper(event, answer);
    }
    wire.send(answer);
}

void BatchReceiver::end_of_file(Wire& wire) {
    if (state_ != State::wants_data || file_.size() < announced_) {
        say(BatchEvent::end_of_file, {refuse}, wire);
        return;
    }
    file_.resize(announced_);  // the rest of the last block is padding
    state_ = State::wants_end;
    say(BatchEvent::end_of_file, {acknowledge, request}, wire);
}

bool BatchReceiver::is_intact() const {
    const auto data = std::span(block_).subspan(3, block_.size() - 5);
    const unsigned crc = block_[block_.size() - 2] * 256U + block_.back();
    return block_[1] + block_[2] == 0xFF && crc == module_crc16(data);
}

void BatchReceiver::take_block(Micros now, Wire& wire) {
    const auto data = std::span(block_).subspan(3, block_.size() - 5);
    const bool is_short = block_.front() == start_short;
    const std::uint8_t number = block_[1];
    const bool intact = is_intact();
    if (intact && state_ == State::wants_header && is_short && number == 0 && take_header(data)) {
        state_ = State::wants_data;
        next_number_ = 1;
        say(BatchEvent::header, {acknowledge, request}, wire);
    } else if (intact && state_ == State::wants_data && !is_short && number == next_number_ &&
               (file_.size() < announced_ || file_.empty())) {
        file_.insert(file_.end(), data.begin(), data.end());
        ++next_number_;
        say(BatchEvent::block, {acknowledge}, wire);
    } else if (intact && state_ == State::wants_end && is_short && number == 0 &&
               std::all_of(data.begin(), data.end(), [](std::uint8_t byte) { return byte == 0; })) {
        state_ = State::storing;
        next_request_ = now + store_time;
        say(BatchEvent::end_of_batch, {acknowledge, request}, wire);
    } else {
        say(BatchEvent::block, {refuse}, wire);
    }
}

bool BatchReceiver::take_header(std::span<const std::uint8_t> data) {
    const auto end_of_name = std::find(data.begin(), data.end(), 0);
    if (end_of_name == data.begin() || end_of_name == data.end()) {
        return false;
    }
    name_.assign(data.begin(), end_of_name);
    const std::string length(end_of_name + 1, data.end());
    if (length[0] < '0' || length[0] > '9') {
        return false;
    }
    announced_ = std::strtoul(length.c_str(), nullptr, 10);
    return true;
}

}  // namespace orbix::sim
