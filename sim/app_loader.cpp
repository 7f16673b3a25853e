#include "app_loader.h"

#include <algorithm>
#include <utility>

#include "checksums.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t command_info = 0x02;
constexpr std::uint8_t command_erase = 0x03;
constexpr std::uint8_t command_firmware = 0x04;
constexpr std::uint8_t command_reboot = 0x31;

/// A frame that stops half-way is given up after this silence.
constexpr Micros frame_timeout = milliseconds(200);

}  // namespace

AppLoader::AppLoader(Settings settings)
    : settings_(std::move(settings)), flash_(settings_.flash_base, settings_.flash_size) {
    if (settings_.version_address == 0) {
        settings_.version_address = settings_.address;
    }
    if (settings_.areas.empty()) {
        const std::uint32_t flash_end = settings_.flash_base + settings_.flash_size;
        settings_.areas.push_back({.announced = settings_.load_address,
                                   .address = settings_.load_address,
                                   .size = flash_end - settings_.load_address});
    }
}

void AppLoader::power_on(Micros now, Wire& /*wire*/) {
    state_ = State::waiting;
    listens_at_ = now + settings_.start_time;
    sync_ = {};
    reader_.reset();
    received_ = 0;
    next_block_ = 0;
    last_block_.clear();
}

void AppLoader::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (state_ == State::rebooted || now < listens_at_) {
        return;
    }
    last_byte_ = now;
    if (!reader_.in_frame()) {
        hear_sync(byte, wire);
    }
    if (state_ != State::waiting && state_ != State::half_caught) {
        if (const auto frame = reader_.push(byte)) {
            handle(*frame, wire);
        }
    }
}

std::optional<Micros> AppLoader::wake_time() const {
    return reader_.in_frame() ? std::optional(last_byte_ + frame_timeout) : std::nullopt;
}

void AppLoader::wake(Micros /*now*/, Wire& wire) {
    reader_.reset();
    respond({.address = settings_.address, .command = command_firmware, .payload = {}},
            SlaveState::timeout, 0, wire);
}

void AppLoader::hear_sync(std::uint8_t byte, Wire& wire) {
    const SyncEvent probe = sync_.push(byte);
    const bool awaits_second = state_ == State::half_caught || state_ == State::ready;
    if (probe == SyncEvent::none || (probe == SyncEvent::second_probe && !awaits_second)) {
        return;
    }
    const auto& words = probe == SyncEvent::first_probe ? sync_first_answer : sync_second_answer;
    std::vector<std::uint8_t> answer(words.begin(), words.end());
    if (tamper_sync) {
        tamper_sync(probe, answer);
    }
    state_ = probe == SyncEvent::first_probe ? State::half_caught : State::ready;
    wire.send(answer);
}

void AppLoader::handle(const UpgradeFrame& frame, Wire& wire) {
    Micros duration = 0;
    SlaveState state = SlaveState::crc_error;
    if (frame.intact) {
        const bool for_us = frame.address == settings_.address || is_version_query(frame);
        state = for_us ? execute(frame, duration) : SlaveState::unsupported;
    }
    respond(frame, state, duration, wire);
    if (state != SlaveState::success) {
        return;
    }
    const bool is_last_block = frame.command == command_firmware &&
                               settings_.start == Start::by_itself && image_is_complete_and_right();
    if (frame.command == command_reboot || is_last_block) {
        state_ = State::rebooted;
    }
}

bool AppLoader::is_version_query(const UpgradeFrame& frame) const {
    return frame.address == settings_.version_address && frame.command == settings_.version_command;
}

SlaveState AppLoader::execute(const UpgradeFrame& frame, Micros& duration) {
    if (is_version_query(frame)) {
        return frame.payload.empty() ? SlaveState::success : SlaveState::package_error;
    }
    switch (frame.command) {
        case command_info:
            return inform(frame);
        case command_erase: {
            if (state_ != State::informed || !frame.payload.empty()) {
                return SlaveState::package_error;
            }
            flash_.erase(area_.address, area_.size);
            duration = settings_.erase_time;
            state_ = State::erased;
            return SlaveState::success;
        }
        case command_firmware:
            duration = settings_.program_time;
            return program(frame);
        case command_reboot:
            if (settings_.start == Start::by_itself) {
                return SlaveState::unsupported;
            }
            if (!is_reboot(frame)) {
                return SlaveState::package_error;
            }
            return image_is_complete_and_right() ? SlaveState::success : SlaveState::upgrade_error;
        default:
            return SlaveState::unsupported;
    }
}

bool AppLoader::is_reboot(const UpgradeFrame& frame) const {
    if (settings_.start == Start::plain_reboot) {
        return frame.payload.empty();
    }
    return frame.payload == std::vector<std::uint8_t>{settings_.reboot_mode, 0};
}

SlaveState AppLoader::inform(const UpgradeFrame& frame) {
    if (frame.payload.size() != 16 || frame.word(12) != settings_.fourth_word) {
        return SlaveState::package_error;
    }
    const std::uint32_t size = frame.word(0);
    const auto area =
        std::find_if(settings_.areas.begin(), settings_.areas.end(),
                     [&frame](const Area& known) { return known.announced == frame.word(8); });
    if (area == settings_.areas.end() || size > area->size) {
        return SlaveState::size_error;
    }
    area_ = *area;
    size_ = size;
    crc_ = frame.word(4);
    received_ = 0;
    next_block_ = 0;
    last_block_.clear();
    state_ = State::informed;
    return SlaveState::success;
}

SlaveState AppLoader::program(const UpgradeFrame& frame) {
    if (state_ != State::erased || frame.payload.size() < 5 ||
        frame.payload.size() - 4 > settings_.largest_block) {
        return SlaveState::package_error;
    }
    const std::uint32_t number = frame.word(0);
    if (number + 1 == next_block_ && frame.payload == last_block_) {
        return SlaveState::success;  // our acknowledgement was lost, the block was not
    }
    const auto data = std::span(frame.payload).subspan(4);
    if (number != next_block_) {
        return SlaveState::package_error;
    }
    if (data.size() > size_ - received_) {
        return SlaveState::size_error;
    }
    flash_.program(area_.address + received_, data);
    received_ += static_cast<std::uint32_t>(data.size());
    ++next_block_;
    last_block_ = frame.payload;
    return received_ < size_ || image_is_complete_and_right() ? SlaveState::success
                                                              : SlaveState::upgrade_error;
}

bool AppLoader::image_is_complete_and_right() const {
    return state_ == State::erased && received_ == size_ &&
           module_image_crc(flash_.read(area_.address, size_)) == crc_;
}

void AppLoader::respond(const UpgradeFrame& frame, SlaveState state, Micros delay, Wire& wire) {
    const auto code = static_cast<std::uint16_t>(state);
    refusals_ += state == SlaveState::success ? 0 : 1;
    const std::uint8_t address =
        is_version_query(frame) ? settings_.version_address : settings_.address;
    std::vector<std::uint8_t> payload{address, frame.command, static_cast<std::uint8_t>(code >> 8),
                                      static_cast<std::uint8_t>(code)};
    if (is_version_query(frame)) {
        payload.insert(payload.end(), settings_.version.begin(), settings_.version.end());
    }
    std::vector<std::uint8_t> response = make_upgrade_frame(address, frame.command, payload);
    if (tamper) {
        tamper(frame, response);
    }
    wire.send(response, delay);
}

}  // namespace orbix::sim
