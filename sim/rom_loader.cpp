#include "rom_loader.h"

#include <algorithm>
#include <array>

#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t command_write = 0xD2;
constexpr std::uint8_t command_jump = 0xD5;
constexpr std::uint8_t command_agent = 0xD7;
constexpr std::uint8_t command_rate = 0xDC;

constexpr std::uint16_t write_accepted = 0x0001;
constexpr std::uint16_t write_refused = 0x0000;
constexpr std::uint16_t done = 0x0000;
constexpr std::uint16_t refused = 0x1000;

struct StartByte {
    std::uint8_t heard;
    BootAnswer answer;
};
constexpr std::array<StartByte, 4> start_pattern{{{0xA0, BootAnswer::start_a0},
                                                  {0x0A, BootAnswer::start_0a},
                                                  {0x50, BootAnswer::start_50},
                                                  {0x05, BootAnswer::start_05}}};

/// The loader's checksum of a program: all 16-bit little-endian words, one xor the other.
std::uint16_t program_checksum(const std::vector<std::uint8_t>& program) {
    unsigned low = 0;
    unsigned high = 0;
    for (std::size_t index = 0; index < program.size(); ++index) {
        (index % 2 == 0 ? low : high) ^= program[index];
    }
    return static_cast<std::uint16_t>(high * 256 + low);
}

template <typename Container, typename Value>
bool holds(const Container& container, const Value& value) {
    return std::find(container.begin(), container.end(), value) != container.end();
}

}  // namespace

void RomLoader::reset() {
    step_ = Step::start;
    start_matched_ = 0;
    item_.clear();
    writes_.clear();
    watchdog_off_ = false;
    agent_.clear();
}

void RomLoader::receive(std::uint8_t byte, Micros now, Wire& wire, unsigned& baud) {
    if (step_ == Step::start) {
        hear_start(byte, now, wire);
        return;
    }
    item_.push_back(byte);
    if (item_.size() < item_size()) {
        return;
    }
    switch (step_) {
        case Step::command:
            take_command(wire);
            break;
        case Step::write_address:
        case Step::write_count:
        case Step::write_value:
            take_register_item(wire);
            break;
        case Step::rate:
            take_rate(wire, baud);
            break;
        case Step::jump_address:
            take_jump(wire);
            break;
        default:
            take_agent_item(wire);
            break;
    }
    item_.clear();
}

std::size_t RomLoader::item_size() const {
    switch (step_) {
        case Step::command:
            return 1;
        case Step::write_value:
            return 2;
        case Step::agent_data:
            return agent_length_;
        default:
            return 4;
    }
}

void RomLoader::hear_start(std::uint8_t byte, Micros now, Wire& wire) {
    if (byte != start_pattern[start_matched_].heard) {
        start_matched_ = 0;
    }
    const StartByte& expected = start_pattern[start_matched_];
    if (byte != expected.heard) {
        return;
    }
    if (start_matched_ == 0) {
        started_at_ = now;
    }
    if (voice_.say(wire, expected.answer, {static_cast<std::uint8_t>(~byte)})) {
        ++start_matched_;
    }
    if (start_matched_ == start_pattern.size()) {
        step_ = Step::command;
    }
}

void RomLoader::take_command(Wire& wire) {
    switch (item_[0]) {
        case command_write:
            echo(BootAnswer::write_command, wire);
            step_ = Step::write_address;
            break;
        case command_agent:
            echo(BootAnswer::agent_command, wire);
            step_ = Step::agent_address;
            break;
        case command_jump:
            echo(BootAnswer::jump_command, wire);
            step_ = Step::jump_address;
            break;
        case command_rate:
            if (!settings_.rates.empty()) {
                echo(BootAnswer::rate_command, wire);
                step_ = Step::rate;
            }
            break;
        default:
            break;  // the loader does not answer what it does not know
    }
}

void RomLoader::take_register_item(Wire& wire) {
    const std::uint32_t value = from_big_endian(item_);
    if (step_ == Step::write_address) {
        register_address_ = value;
        echo(BootAnswer::write_address, wire);
        step_ = Step::write_count;
        return;
    }
    if (step_ == Step::write_count) {
        const bool writable = std::any_of(
            settings_.watchdog_off.begin(), settings_.watchdog_off.end(),
            [this](const RegisterWrite& write) { return write.address == register_address_; });
        const bool accepted = writable && value == 1;
        values_left_ = value;
        echo(BootAnswer::write_count, accepted ? write_accepted : write_refused, wire);
        step_ = accepted ? Step::write_value : Step::command;
        return;
    }
    writes_.push_back({register_address_, static_cast<std::uint16_t>(value)});
    watchdog_off_ =
        std::all_of(settings_.watchdog_off.begin(), settings_.watchdog_off.end(),
                    [this](const RegisterWrite& needed) { return holds(writes_, needed); });
    echo(BootAnswer::write_value, write_accepted, wire);
    --values_left_;
    step_ = values_left_ > 0 ? Step::write_value : Step::command;
}

void RomLoader::take_rate(Wire& wire, unsigned& baud) {
    const std::uint32_t rate = from_big_endian(item_);
    const bool known = holds(settings_.rates, rate);
    echo(BootAnswer::rate_value, known ? done : refused, wire);
    step_ = Step::command;
    if (known) {
        baud = rate;  // the answer still goes out at the old one
    }
}

void RomLoader::take_agent_item(Wire& wire) {
    switch (step_) {
        case Step::agent_address:
            agent_address_ = from_big_endian(item_);
            echo(BootAnswer::agent_address, wire);
            step_ = Step::agent_length;
            break;
        case Step::agent_length:
            agent_length_ = from_big_endian(item_);
            echo(BootAnswer::agent_length, wire);
            step_ = Step::agent_signature;
            break;
        case Step::agent_signature: {
            const bool accepted = from_big_endian(item_) == 0 &&
                                  holds(settings_.agent_addresses, agent_address_) &&
                                  agent_length_ > 0 && agent_length_ <= settings_.agent_space;
            echo(BootAnswer::agent_signature, accepted ? done : refused, wire);
            step_ = accepted ? Step::agent_data : Step::command;
            break;
        }
        default: {
            agent_ = item_;
            std::vector<std::uint8_t> answer;
            append_big_endian(answer, program_checksum(agent_), 2);
            append_big_endian(answer, done, 2);
            voice_.say(wire, BootAnswer::agent_checksum, answer);
            step_ = Step::command;
            break;
        }
    }
}

void RomLoader::take_jump(Wire& wire) {
    const bool loaded = !agent_.empty() && from_big_endian(item_) == agent_address_;
    std::vector<std::uint8_t> status;
    append_big_endian(status, loaded ? done : refused, 2);
    echo(BootAnswer::jump_address, wire);
    voice_.say(wire, BootAnswer::jump_status, status);
    step_ = loaded ? Step::left : Step::command;
}

void RomLoader::echo(BootAnswer which, Wire& wire) {
    voice_.say(wire, which, item_);
}

void RomLoader::echo(BootAnswer which, std::uint16_t status, Wire& wire) {
    std::vector<std::uint8_t> answer = item_;
    append_big_endian(answer, status, 2);
    voice_.say(wire, which, answer);
}

}  // namespace orbix::sim
