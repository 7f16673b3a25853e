#include "new_agent.h"

#include <algorithm>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t head = 0x05;
constexpr std::uint8_t channel = 0x5A;

constexpr std::uint16_t command_write = 0x2100;
constexpr std::uint16_t command_read = 0x2101;
constexpr std::uint16_t command_erase = 0x2104;
constexpr std::uint16_t command_flash_address = 0x210E;
constexpr std::uint16_t command_flash_size = 0x210F;
constexpr std::uint16_t command_flash_id = 0x2110;
constexpr std::uint16_t command_rate = 0x2115;

constexpr std::size_t header_size = 4;
constexpr std::size_t block_size = 4096;
constexpr std::size_t large_block_size = 65536;

/// Command, address, block length, data, CRC: the longest rest of a frame.
constexpr std::size_t longest_rest = 2 + 4 + 2 + block_size + 4;

/// A frame that stops half-way is given up after this silence.
constexpr Micros frame_timeout = milliseconds(400);

std::vector<std::uint8_t> little_endian(std::uint32_t value) {
    std::vector<std::uint8_t> bytes;
    append_little_endian(bytes, value, 4);
    return bytes;
}

}  // namespace

void NewAgent::start() {
    frame_.clear();
    refusals_ = 0;
}

void NewAgent::receive(std::uint8_t byte, Micros now, Wire& wire, unsigned& baud) {
    if (now > last_byte_ + frame_timeout) {
        frame_.clear();
    }
    last_byte_ = now;
    frame_.push_back(byte);
    if (frame_[0] != head || (frame_.size() == 2 && frame_[1] != channel)) {
        frame_.clear();
        return;
    }
    if (frame_.size() < header_size) {
        return;
    }
    const std::size_t rest = field(2, 2);
    if (rest < 2 || rest > longest_rest) {
        frame_.clear();
    } else if (frame_.size() == header_size + rest) {
        handle(wire, baud);
        frame_.clear();
    }
}

void NewAgent::handle(Wire& wire, unsigned& baud) {
    switch (field(4, 2)) {
        case command_rate:
            set_rate(wire, baud);
            break;
        case command_flash_address:
            reply(wire, {BootAnswer::flash_address, little_endian(flash_.base())}, check_frame(6));
            break;
        case command_flash_size: {
            const auto size = static_cast<std::uint32_t>(flash_.cells().size());
            reply(wire, {BootAnswer::flash_size, little_endian(size)}, check_frame(6));
            break;
        }
        case command_flash_id:
            reply(wire, {BootAnswer::flash_id, {0xC8, 0x60, 0x16}}, check_frame(6));
            break;
        case command_erase:
            erase(wire);
            break;
        case command_write:
            write(wire);
            break;
        case command_read:
            read(wire);
            break;
        default:
            break;  // the agent does not answer what it does not know
    }
}

void NewAgent::set_rate(Wire& wire, unsigned& baud) {
    const bool complete = check_frame(10) == Status::success;
    const std::uint32_t rate = complete ? field(6, 4) : 0;
    const auto& rates = settings_.rates;
    const bool known = std::find(rates.begin(), rates.end(), rate) != rates.end();
    if (known) {
        baud = rate;
    }
    reply(wire, {BootAnswer::set_rate, {}, settings_.rate_settles},
          known ? Status::success : Status::area_wrong);
}

void NewAgent::erase(Wire& wire) {
    Status status = check_frame(18);
    const std::uint32_t address = status == Status::area_wrong ? 0 : field(6, 4);
    Micros duration = 0;
    if (status == Status::success) {
        const std::uint32_t length = field(10, 4);
        duration = length == block_size ? settings_.erase_4k_time : settings_.erase_64k_time;
        const bool area_right = (length == block_size || length == large_block_size) &&
                                address % length == 0 && flash_.contains(address, length);
        if (!area_right) {
            status = Status::area_wrong;
        } else if (!voice_.flash_holds(BootAnswer::erase_block)) {
            status = Status::flash_failed;
        } else {
            flash_.erase(address, length);
        }
    }
    reply(wire, {BootAnswer::erase_block, little_endian(address), duration}, status);
}

void NewAgent::write(Wire& wire) {
    Status status = check_frame(header_size + longest_rest);
    const std::uint32_t address = status == Status::area_wrong ? 0 : field(6, 4);
    if (status == Status::success) {
        const auto data = std::span(frame_).subspan(12, block_size);
        if (field(10, 2) != block_size || address % block_size != 0 ||
            !flash_.contains(address, block_size)) {
            status = Status::area_wrong;
        } else if (!voice_.flash_holds(BootAnswer::write_block)) {
            status = Status::flash_failed;
        } else {
            flash_.program(address, data);
            status = flash_.holds(address, data) ? Status::success : Status::flash_failed;
        }
    }
    reply(wire, {BootAnswer::write_block, little_endian(address), settings_.program_time}, status);
}

void NewAgent::read(Wire& wire) {
    Status status = check_frame(16);
    const std::uint32_t address = status == Status::area_wrong ? 0 : field(6, 4);
    std::vector<std::uint8_t> payload = little_endian(address);
    if (status == Status::success &&
        (field(10, 2) != block_size || !flash_.contains(address, block_size))) {
        status = Status::area_wrong;
    }
    if (status == Status::success) {
        const auto data = flash_.read(address, block_size);
        append_little_endian(payload, module_crc32(data), 4);
        payload.insert(payload.end(), data.begin(), data.end());
    }
    reply(wire, {BootAnswer::read_block, payload}, status);
}

/// Whether the frame has the size of its command and, where it touches the flash, the right CRC.
NewAgent::Status NewAgent::check_frame(std::size_t size) const {
    if (frame_.size() != size) {
        return Status::area_wrong;
    }
    const bool has_crc = size > 10;
    const auto covered = std::span(frame_).first(size - 4);
    return !has_crc || field(size - 4, 4) == module_crc32(covered) ? Status::success
                                                                   : Status::crc_wrong;
}

void NewAgent::reply(Wire& wire, const Reply& reply, Status status) {
    refusals_ += status == Status::success ? 0 : 1;
    std::vector<std::uint8_t> bytes{head, channel};
    append_little_endian(bytes, static_cast<std::uint32_t>(reply.payload.size()) + 3, 2);
    bytes.push_back(frame_[4]);
    bytes.push_back(frame_[5]);
    bytes.push_back(static_cast<std::uint8_t>(status));
    bytes.insert(bytes.end(), reply.payload.begin(), reply.payload.end());
    voice_.say(wire, reply.which, bytes, reply.delay);
}

std::uint32_t NewAgent::field(std::size_t offset, std::size_t size) const {
    return from_little_endian(std::span(frame_).subspan(offset, size));
}

}  // namespace orbix::sim
