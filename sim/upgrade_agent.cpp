#include "upgrade_agent.h"

#include <algorithm>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t command_address = 0x01;
constexpr std::uint8_t command_information = 0x02;
constexpr std::uint8_t command_packet = 0x04;

/// A frame that stops half-way is given up after this silence.
constexpr Micros frame_timeout = milliseconds(200);

constexpr Micros answer_pause = milliseconds(100);

constexpr std::uint32_t mebibyte = 0x100000;

std::vector<std::uint8_t> big_endian_words(std::initializer_list<std::uint32_t> words) {
    std::vector<std::uint8_t> bytes;
    for (const std::uint32_t word : words) {
        append_big_endian(bytes, word, 4);
    }
    return bytes;
}

/// A flash that holds all areas.
Flash flash_for(const std::vector<AgentArea>& areas) {
    std::uint32_t first = UINT32_MAX;
    std::uint32_t end = 0;
    for (const AgentArea& area : areas) {
        first = std::min(first, area.flash_address);
        end = std::max(end, area.flash_address + area.flash_size);
    }
    return {first, end - first};
}

}  // namespace

std::vector<AgentArea> teseo_areas() {
    const auto gnss_words =
        big_endian_words({0x10000000, 0x00000400, 0x00170000, 0x00090000, 0x01000000, 0});
    const auto app_words = big_endian_words({0, 0x01000000});
    std::vector<AgentArea> areas;
    for (std::uint8_t code = 1; code <= 5; ++code) {
        const bool gnss = code == 1 || code == 3;
        areas.push_back({
            .code = code,
            .flash_address = (code - 1U) * mebibyte,
            .flash_size = mebibyte,
            .address = 0,
            .information = gnss ? gnss_words : app_words,
            .order = {1, 2, 3, 4},
            .wrong_image = gnss ? AgentStatus::gnss_upgrade_error : AgentStatus::app_write_error,
        });
    }
    return areas;
}

UpgradeAgent::UpgradeAgent(Settings settings)
    : settings_(std::move(settings)),
      flash_(flash_for(settings_.areas)),
      talker_(settings_.talker) {}

void UpgradeAgent::power_on(Micros now, Wire& /*wire*/) {
    state_ = State::running;
    listens_at_ = now + settings_.start_time;
    talker_.power_on(listens_at_);
    sync_ = {};
    reader_.reset();
    forget_upgrade();
}

void UpgradeAgent::forget_upgrade() {
    area_ = nullptr;
    turn_ = 0;
    received_ = 0;
    next_packet_ = 0;
}

void UpgradeAgent::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (now < listens_at_) {
        return;
    }
    last_byte_ = now;
    if (!reader_.in_frame()) {
        hear_sync(byte, now, wire);
    }
    if (state_ != State::upgrading) {
        return;
    }
    if (const auto frame = reader_.push(byte)) {
        Micros duration = 0;
        const AgentStatus status =
            frame->intact ? execute(*frame, duration) : AgentStatus::crc_error;
        reply(*frame, status, duration, wire);
    }
}

std::optional<Micros> UpgradeAgent::wake_time() const {
    return reader_.in_frame() ? std::optional(last_byte_ + frame_timeout) : talker_.wake_time();
}

void UpgradeAgent::wake(Micros now, Wire& wire) {
    if (!reader_.in_frame()) {
        talker_.wake(now, wire);
        return;
    }
    reader_.reset();
    reply(
        {.address = area_ != nullptr ? area_->code : std::uint8_t{0}, .command = 0, .payload = {}},
        AgentStatus::timeout, 0, wire);
}

void UpgradeAgent::hear_sync(std::uint8_t byte, Micros now, Wire& wire) {
    const SyncEvent probe = sync_.push(byte);
    const bool half_caught = state_ == State::half_caught;
    if (probe == SyncEvent::none || (probe == SyncEvent::second_probe && !half_caught)) {
        return;
    }
    // The tool repeats the first probe quickly: while its second one may be under way, another
    // first answer would be taken for the second.
    if (probe == SyncEvent::first_probe) {
        if (half_caught && now - answered_at_ < answer_pause) {
            return;
        }
        answered_at_ = now;
    }
    talker_.fall_silent();
    const auto& words = probe == SyncEvent::first_probe ? sync_first_answer : sync_second_answer;
    std::vector<std::uint8_t> answer(words.begin(), words.end());
    if (tamper_sync) {
        tamper_sync(probe, answer);
    }
    if (probe == SyncEvent::first_probe) {
        forget_upgrade();  // a module is caught anew for each of its areas
        state_ = State::half_caught;
    } else {
        state_ = State::upgrading;
    }
    wire.send(answer);
}

AgentStatus UpgradeAgent::execute(const UpgradeFrame& frame, Micros& duration) {
    if (area_ == nullptr) {
        const auto area =
            std::find_if(settings_.areas.begin(), settings_.areas.end(),
                         [&frame](const AgentArea& each) { return each.code == frame.address; });
        if (area == settings_.areas.end()) {
            return AgentStatus::unsupported;
        }
        area_ = &*area;
    }
    if (frame.address != area_->code) {
        return AgentStatus::unsupported;
    }
    const auto& order = area_->order;
    // Behind the last packet of the image the next command has its turn.
    const bool packets_done = turn_ < order.size() && order[turn_] == command_packet &&
                              frame.command != command_packet && image_is_right();
    const std::size_t turn = packets_done ? turn_ + 1 : turn_;
    if (turn >= order.size() || order[turn] != frame.command) {
        return std::count(order.begin(), order.end(), frame.command) == 0
                   ? AgentStatus::unsupported
                   : AgentStatus::package_error;
    }
    if (frame.command == command_packet) {
        duration = settings_.program_time;
        return take_packet(frame);
    }
    AgentStatus status = AgentStatus::success;
    if (frame.command == command_address) {
        if (frame.payload.size() != 4 || frame.word(0) != area_->address) {
            status = AgentStatus::package_error;
        }
    } else if (frame.command == command_information) {
        status = take_information(frame);
    } else if (!frame.payload.empty()) {
        status = AgentStatus::package_error;
    }
    if (status != AgentStatus::success) {
        return status;
    }
    turn_ = turn + 1;
    if (turn_ < order.size() && order[turn_] == command_packet) {
        flash_.erase(area_->flash_address, area_->flash_size);
        duration = settings_.erase_time;
    }
    return AgentStatus::success;
}

AgentStatus UpgradeAgent::take_information(const UpgradeFrame& frame) {
    if (frame.payload.size() != 8 + area_->information.size() ||
        !std::equal(area_->information.begin(), area_->information.end(),
                    frame.payload.begin() + 8)) {
        return AgentStatus::package_error;
    }
    size_ = frame.word(0);
    crc_ = frame.word(4);
    return size_ <= area_->flash_size ? AgentStatus::success : AgentStatus::size_error;
}

AgentStatus UpgradeAgent::take_packet(const UpgradeFrame& frame) {
    if (frame.payload.size() < 5 || frame.payload.size() - 4 > settings_.largest_packet ||
        frame.word(0) != next_packet_) {
        return AgentStatus::package_error;
    }
    const auto data = std::span(frame.payload).subspan(4);
    if (data.size() > size_ - received_) {
        return AgentStatus::size_error;
    }
    flash_.program(area_->flash_address + received_, data);
    received_ += static_cast<std::uint32_t>(data.size());
    ++next_packet_;
    return received_ < size_ || image_is_right() ? AgentStatus::success : area_->wrong_image;
}

bool UpgradeAgent::image_is_right() const {
    return received_ == size_ && module_image_crc(area(area_->code, size_)) == crc_;
}

bool UpgradeAgent::completed() const {
    if (area_ == nullptr) {
        return false;
    }
    const auto& order = area_->order;
    const bool all_but_packets = turn_ + 1 == order.size() && order[turn_] == command_packet;
    return (all_but_packets || turn_ == order.size()) && image_is_right();
}

std::span<const std::uint8_t> UpgradeAgent::area(std::uint8_t code, std::size_t length) const {
    const auto area = std::find_if(settings_.areas.begin(), settings_.areas.end(),
                                   [code](const AgentArea& each) { return each.code == code; });
    return flash_.read(area->flash_address, length);
}

void UpgradeAgent::reply(const UpgradeFrame& frame, AgentStatus status, Micros delay, Wire& wire) {
    const std::array<std::uint8_t, 4> payload{0, 0, 0, static_cast<std::uint8_t>(status)};
    std::vector<std::uint8_t> bytes = make_upgrade_frame(frame.address, frame.command, payload);
    if (tamper) {
        tamper(frame, bytes);
    }
    wire.send(bytes, delay);
}

}  // namespace orbix::sim
