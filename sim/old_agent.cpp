#include "old_agent.h"

#include <algorithm>
#include <array>
#include <numeric>

#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t yes = 0x5A;
constexpr std::uint8_t no = 0xA5;
constexpr std::uint8_t more = 0x69;
constexpr std::uint8_t probe = 0xC0;

constexpr std::uint8_t command_write = 0xB2;
constexpr std::uint8_t command_format = 0xD4;
constexpr std::uint8_t command_read = 0xD6;

constexpr std::uint32_t packet_size = 4096;
constexpr std::uint32_t erase_runs = 0x00000BCD;
constexpr std::uint32_t erase_finished = 0;
constexpr std::uint32_t area_wrong = 0x00000BD1;

struct LineTest {
    std::vector<std::uint8_t> heard;
    BootAnswer answer;
    std::vector<std::uint8_t> said;
};

/// The bytes that prove the line, before the rate changes.
const std::array<LineTest, 6>& line_tests() {
    static const std::array<LineTest, 6> tests{{
        {{0x3F}, BootAnswer::sync_3f, {0x0C}},
        {{0xF3}, BootAnswer::sync_f3, {0x3F}},
        {{0xC0}, BootAnswer::sync_c0, {0xF3}},
        {{0x0C, 0x00}, BootAnswer::sync_0c00, {0x5A, 0x69, 0x69}},
        {{0x5A, 0x00}, BootAnswer::sync_5a00, {0x69}},
        {{0x5A}, BootAnswer::sync_5a, {0x69}},
    }};
    return tests;
}

std::uint32_t byte_sum(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0});
}

}  // namespace

void OldAgent::start(Wire& wire) {
    step_ = Step::line_test;
    line_test_step_ = 0;
    rate_index_ = 0;
    item_.clear();
    images_.clear();
    voice_.say(wire, BootAnswer::first_word, {probe});
}

void OldAgent::receive(std::uint8_t byte, Wire& wire, unsigned& baud) {
    item_.push_back(byte);
    if (item_.size() < item_size()) {
        return;
    }
    switch (step_) {
        case Step::line_test:
            test_line(wire, baud);
            break;
        case Step::rate_probe:
            hear_probe(wire, baud);
            break;
        case Step::report:
            report_flash(wire);
            break;
        case Step::report_taken:
            step_ = byte == yes ? Step::command : step_;
            break;
        case Step::command:
            take_command(wire);
            break;
        case Step::erasing:
            continue_format(wire);
            break;
        case Step::erase_done:
            voice_.say(wire, BootAnswer::format_closed, {byte == yes ? yes : no});
            step_ = Step::command;
            break;
        case Step::packets:
            take_packet(wire);
            break;
        case Step::image_sum:
            take_image_sum(wire);
            break;
        case Step::closing:
            images_.push_back({address_, length_, byte});
            voice_.say(wire, BootAnswer::image_closed, {byte == yes || byte == no ? yes : no});
            step_ = Step::command;
            break;
        case Step::reading:
            if (byte == yes && position_ < length_) {
                send_packet(wire);
            } else {
                step_ = Step::command;
            }
            break;
    }
    item_.clear();
}

std::size_t OldAgent::item_size() const {
    switch (step_) {
        case Step::line_test:
            return line_test_step_ < line_tests().size()
                       ? line_tests()[line_test_step_].heard.size()
                       : 1;
        case Step::command:
            if (item_[0] == command_format) {
                return 10;  // the command, 00, address, length
            }
            return item_[0] == command_write || item_[0] == command_read ? 13 : 1;
        case Step::packets:
            return packet_size + 4;
        case Step::image_sum:
            return 4;
        default:
            return 1;
    }
}

void OldAgent::test_line(Wire& wire, unsigned& baud) {
    if (line_test_step_ == line_tests().size()) {
        if (item_[0] == yes) {
            baud = settings_.rates[0];
            step_ = Step::rate_probe;
        }
        return;
    }
    const LineTest& test = line_tests()[line_test_step_];
    if (item_ == test.heard && voice_.say(wire, test.answer, test.said)) {
        ++line_test_step_;
    }
}

void OldAgent::hear_probe(Wire& wire, unsigned& baud) {
    if (item_[0] == probe) {
        voice_.say(wire, BootAnswer::rate_probe, {probe});
    } else if (item_[0] == yes && voice_.count(BootAnswer::rate_probe) > 0) {
        voice_.say(wire, BootAnswer::sync_end, {yes, more});
        step_ = Step::report;
    } else if (settings_.rates.size() > 1) {
        rate_index_ = (rate_index_ + 1) % settings_.rates.size();
        baud = settings_.rates[rate_index_];
    }
}

void OldAgent::report_flash(Wire& wire) {
    if (item_[0] != yes) {
        return;
    }
    std::vector<std::uint8_t> report{0x00, 0xC8, 0x00, 0x60, 0x00, 0x16};  // the flash's identifier
    append_big_endian(report, settings_.mount_status, 4);
    append_big_endian(report, flash_.base(), 4);
    append_big_endian(report, static_cast<std::uint32_t>(flash_.cells().size()), 4);
    report.push_back(yes);
    voice_.say(wire, BootAnswer::flash_report, report);
    step_ = Step::report_taken;
}

void OldAgent::take_command(Wire& wire) {
    if (item_.size() == 1) {
        return;  // no command of this agent
    }
    const auto fields = std::span(item_).subspan(item_[0] == command_format ? 2 : 1);
    address_ = from_big_endian(fields.first(4));
    length_ = from_big_endian(fields.subspan(4, 4));
    position_ = 0;
    if (item_[0] == command_format) {
        begin_format(wire);
    } else if (item_[0] == command_write) {
        begin_image(wire);
    } else {
        begin_reading(wire);
    }
}

/// Whether the command's area consists of whole 4096-byte sectors of the flash.
bool OldAgent::area_is_right() const {
    const bool sizes_right = address_ % packet_size == 0 && length_ % packet_size == 0;
    return sizes_right && length_ > 0 && flash_.contains(address_, length_);
}

void OldAgent::begin_format(Wire& wire) {
    if (item_[1] != 0 || !area_is_right()) {
        voice_.say(wire, BootAnswer::format_accepted, {no, no});
        return;
    }
    percentage_ = 0;
    if (voice_.say(wire, BootAnswer::format_accepted, {yes, yes})) {
        step_ = Step::erasing;
        item_[0] = yes;
        continue_format(wire);  // the first report comes unasked
    }
}

/// Erases the next per cent and reports it. A report that is not given stays due.
void OldAgent::continue_format(Wire& wire) {
    if (item_[0] != yes) {
        return;
    }
    const std::uint32_t next = percentage_ + 1;
    const auto boundary = [this](std::uint64_t per_cent) {
        return static_cast<std::uint32_t>(length_ * per_cent / 100);
    };
    const std::uint32_t begin = boundary(percentage_);
    flash_.erase(address_ + begin, boundary(next) - begin);
    std::vector<std::uint8_t> report;
    append_big_endian(report, next < 100 ? erase_runs : erase_finished, 4);
    append_big_endian(report, next, 1);
    if (voice_.say(wire, BootAnswer::format_progress, report, settings_.erase_time)) {
        percentage_ = next;
    }
    if (percentage_ == 100) {
        step_ = Step::erase_done;
    }
}

void OldAgent::begin_image(Wire& wire) {
    const bool accepted =
        area_is_right() && from_big_endian(std::span(item_).subspan(9, 4)) == packet_size;
    sum_of_sums_ = 0;
    voice_.say(wire, BootAnswer::image_accepted,
               accepted ? BootVoice::Bytes{yes, yes} : BootVoice::Bytes{no, no});
    step_ = accepted ? Step::packets : Step::command;
}

void OldAgent::take_packet(Wire& wire) {
    const bool last = position_ + packet_size == length_;
    const BootAnswer answer = last ? BootAnswer::last_packet : BootAnswer::packet_written;
    const auto data = std::span(item_).first(packet_size);
    const std::uint32_t sum = byte_sum(data);
    const std::uint32_t address = address_ + position_;
    bool written = sum == from_big_endian(std::span(item_).subspan(packet_size));
    if (written && voice_.flash_holds(answer)) {
        flash_.program(address, data);
        written = flash_.holds(address, data);
    } else {
        written = false;
    }
    if (!written) {
        voice_.say(wire, answer, {no});
        step_ = Step::command;
        return;
    }
    sum_of_sums_ += sum;
    position_ += packet_size;
    voice_.say(wire, answer, last ? BootVoice::Bytes{more, yes} : BootVoice::Bytes{more},
               settings_.program_time);
    step_ = last ? Step::image_sum : Step::packets;
}

void OldAgent::take_image_sum(Wire& wire) {
    const bool right = from_big_endian(item_) == sum_of_sums_;
    voice_.say(wire, BootAnswer::image_sum, {right ? yes : no});
    step_ = right ? Step::closing : Step::command;
}

void OldAgent::begin_reading(Wire& wire) {
    if (!area_is_right() || from_big_endian(std::span(item_).subspan(9, 4)) != packet_size) {
        std::vector<std::uint8_t> refusal{no};
        append_big_endian(refusal, area_wrong, 4);
        voice_.say(wire, BootAnswer::read_accepted, refusal);
        return;
    }
    voice_.say(wire, BootAnswer::read_accepted, {yes});
    step_ = Step::reading;
    send_packet(wire);
}

void OldAgent::send_packet(Wire& wire) {
    const auto data = flash_.read(address_ + position_, packet_size);
    std::vector<std::uint8_t> packet(data.begin(), data.end());
    append_big_endian(packet, byte_sum(data), 4);
    voice_.say(wire, BootAnswer::read_packet, packet);
    position_ += packet_size;
}

}  // namespace orbix::sim
