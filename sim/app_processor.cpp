#include "app_processor.h"

#include <algorithm>
#include <numeric>

#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t ack = 0x79;
constexpr std::uint8_t nack = 0x1F;

/// The byte that tells the rate is taken for one only when it stands alone.
constexpr std::uint8_t rate_byte = 0x7F;
constexpr Micros quiet_before_rate_byte = milliseconds(100);

constexpr std::uint8_t version = 0x31;

bool checksum_is_right(std::span<const std::uint8_t> message) {
    return std::accumulate(message.begin(), message.end(), 0U, std::bit_xor<>()) == 0;
}

}  // namespace

AppProcessor::AppProcessor(Settings settings)
    : settings_(settings),
      flash_(settings.flash_base, settings.page_size * settings.pages),
      write_protected_(settings.write_protected) {}

void AppProcessor::power_on(Micros /*now*/, Wire& /*wire*/) {
    state_ = State::waiting;
    message_.clear();
    last_byte_.reset();
}

void AppProcessor::receive(std::uint8_t byte, Micros now, Wire& wire) {
    const bool alone = !last_byte_ || now - *last_byte_ >= quiet_before_rate_byte;
    last_byte_ = now;
    if (state_ == State::waiting) {
        if (byte == rate_byte && alone) {
            state_ = State::command;
            say(AppStep::synchronise, {ack}, wire);
        }
        return;
    }
    if (message_.empty()) {
        message_begun_ = now;
    }
    message_.push_back(byte);
    if (message_.size() == message_size()) {
        handle(now, wire);
        message_.clear();
    }
}

/// How long the message under way will be, as far as it can be told.
std::size_t AppProcessor::message_size() const {
    switch (state_) {
        case State::read_address:
        case State::write_address:
            return 5;
        case State::write_data:
            return message_[0] + 3U;
        case State::erase_pages:
            return message_.size() < 2 ? 0 : (message_[0] * 256U + message_[1] + 1U) * 2 + 3;
        default:
            return 2;
    }
}

void AppProcessor::handle(Micros now, Wire& wire) {
    switch (state_) {
        case State::command:
            take_command(wire);
            break;
        case State::read_address:
            take_address(AppStep::read_address, State::read_length, wire);
            break;
        case State::read_length: {
            const std::size_t length = message_[0] + 1U;
            if ((message_[0] ^ message_[1]) != 0xFF || !flash_.contains(address_, length)) {
                refuse(AppStep::read_data, wire);
                break;
            }
            std::vector<std::uint8_t> answer{ack};
            const auto data = flash_.read(address_, length);
            answer.insert(answer.end(), data.begin(), data.end());
            state_ = State::command;
            say(AppStep::read_data, answer, wire);
            break;
        }
        case State::erase_pages:
            erase_pages(wire);
            break;
        case State::write_address:
            take_address(AppStep::write_address, State::write_data, wire);
            break;
        case State::write_data:
            write_block(now, wire);
            break;
        case State::waiting:
            break;
    }
}

void AppProcessor::take_command(Wire& wire) {
    const std::uint8_t code = message_[0];
    if ((code ^ message_[1]) != 0xFF) {
        refuse(AppStep::unknown_command, wire);
        return;
    }
    switch (code) {
        case 0x00:
            say(AppStep::get,
                {ack, 11, version, 0x00, 0x01, 0x02, 0x11, 0x21, 0x31, 0x44, 0x63, 0x73, 0x82, 0x92,
                 ack},
                wire);
            break;
        case 0x02:
            say(AppStep::get_id, {ack, 1, 0x04, 0x50, ack}, wire);
            break;
        case 0x11:
            if (settings_.read_protected) {
                refuse(AppStep::read_command, wire);
                break;
            }
            state_ = State::read_address;
            say(AppStep::read_command, {ack}, wire);
            break;
        case 0x73:
            write_protected_ = false;
            say(AppStep::unprotect_command, {ack}, wire);
            say(AppStep::unprotect, {ack}, wire, milliseconds(50));
            break;
        case 0x44:
            state_ = State::erase_pages;
            say(AppStep::erase_command, {ack}, wire);
            break;
        case 0x31:
            state_ = State::write_address;
            say(AppStep::write_command, {ack}, wire);
            break;
        default:
            refuse(AppStep::unknown_command, wire);
            break;
    }
}

void AppProcessor::take_address(AppStep step, State next, Wire& wire) {
    address_ = from_big_endian(std::span(message_).first(4));
    if (!checksum_is_right(message_) || !flash_.contains(address_, 1)) {
        refuse(step, wire);
        return;
    }
    state_ = next;
    say(step, {ack}, wire);
}

void AppProcessor::erase_pages(Wire& wire) {
    if (!checksum_is_right(message_) || write_protected_) {
        refuse(AppStep::erase, wire);
        return;
    }
    for (std::size_t at = 2; at + 1 < message_.size(); at += 2) {
        const std::uint32_t page = message_[at] * 256U + message_[at + 1];
        if (page >= settings_.pages) {
            refuse(AppStep::erase, wire);
            return;
        }
        flash_.erase(settings_.flash_base + page * settings_.page_size, settings_.page_size);
        ++erases;
    }
    state_ = State::command;
    say(AppStep::erase, {ack}, wire, settings_.erase_time);
}

void AppProcessor::write_block(Micros now, Wire& wire) {
    const auto data = std::span(message_).subspan(1, message_.size() - 2);
    if (!checksum_is_right(message_) || write_protected_ || !flash_.program(address_, data)) {
        refuse(AppStep::write_data, wire);
        return;
    }
    accepted_packets_.push_back({message_begun_, now});
    state_ = State::command;
    say(AppStep::write_data, {ack}, wire, settings_.program_time);
}

void AppProcessor::say(AppStep step, std::vector<std::uint8_t> answer, Wire& wire, Micros delay) {
    if (tamper) {
        tamper(step, answer);
    }
    if (!answer.empty()) {
        wire.send(answer, delay);
    }
}

void AppProcessor::refuse(AppStep step, Wire& wire) {
    state_ = State::command;
    say(step, {nack}, wire);
}

}  // namespace orbix::sim
