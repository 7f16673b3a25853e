#include "teseo_loader.h"

#include <algorithm>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::sim {

namespace {

using Word = std::array<std::uint8_t, 4>;

constexpr Word loader_word{0xF4, 0x01, 0xD5, 0xBC};
constexpr Word loader_answer{0x73, 0x40, 0x98, 0x83};
constexpr std::uint8_t loader_confirmation = 0xA3;
constexpr std::size_t loader_piece = 16384;
constexpr std::size_t options_size = 20;
constexpr std::uint8_t fast_selector = 2;
constexpr unsigned fast_baud = 230400;

constexpr Word sta8089_word{0x40, 0x1A, 0x5D, 0x21};
constexpr Word sta9100_word{0xFD, 0xC6, 0x49, 0x28};
constexpr Word sta8089_answer{0x73, 0x40, 0x98, 0x83};
constexpr Word sta9100_answer{0x3A, 0x54, 0x2C, 0xA6};
constexpr Word rate_115200{0x00, 0xC2, 0x01, 0x00};
constexpr std::array<std::uint8_t, 16> preamble{0xF4, 0x01, 0xD5, 0xBC, 0x73, 0x40, 0x98, 0x83,
                                                0x04, 0x01, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00};
constexpr Word sta9100_request{0x03, 0xD3, 0x26, 0xDD};
constexpr Word sta8089_announcement{0xAD, 0xF0, 0xE6, 0xF8};
constexpr std::size_t sta8089_loader_size = 10596;
constexpr std::size_t sta9100_loader_size = 10912;
constexpr std::size_t info_size = 56;
constexpr std::size_t rom_piece = 5120;

std::uint32_t word_at(std::span<const std::uint8_t> bytes, std::size_t at) {
    return from_little_endian(bytes.subspan(at, 4));
}

bool all_zero(std::span<const std::uint8_t> bytes) {
    return std::all_of(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte == 0; });
}

}  // namespace

bool TeseoImage::announce(std::uint32_t size, std::uint32_t crc, std::uint32_t room) {
    *this = {};
    size_ = size;
    crc_ = crc;
    return size <= room;
}

bool TeseoImage::take(std::uint8_t byte, std::size_t piece_size, Flash& flash) {
    piece_.push_back(byte);
    if (piece_.size() < std::min<std::size_t>(piece_size, size_ - programmed_)) {
        return false;
    }
    flash.program(teseo_flash_base + programmed_, piece_);
    programmed_ += static_cast<std::uint32_t>(piece_.size());
    piece_.clear();
    return true;
}

bool TeseoImage::right(const Flash& flash) const {
    return module_image_crc(flash.read(teseo_flash_base, size_)) == crc_;
}

void TeseoPart::reset() {
    caught_ = false;
    completed_ = false;
    dead_ = false;
    busy_until_ = 0;
    last_four_ = {};
    message_.clear();
    image_ = {};
}

bool TeseoPart::hears_word(std::uint8_t byte, const Word& word) {
    std::shift_left(last_four_.begin(), last_four_.end(), 1);
    last_four_.back() = byte;
    return last_four_ == word;
}

void TeseoPart::say(TeseoStep step, std::vector<std::uint8_t> answer, Wire& wire, Micros delay) {
    if (tamper) {
        tamper(step, answer);
    }
    if (!answer.empty()) {
        wire.send(answer, delay);
    }
}

void TeseoPart::acknowledge(TeseoStep step, Wire& wire, Micros delay) {
    say(step, {teseo_ack}, wire, delay);
}

void TeseoPart::refuse(TeseoStep step, const std::string& complaint, Wire& wire) {
    complaints.push_back(complaint);
    dead_ = true;
    say(step, {teseo_refusal}, wire);
}

void TeseoPart::take_image_byte(std::uint8_t byte, std::size_t piece_size, const TeseoTimes& times,
                                Micros now, Wire& wire) {
    if (image_.whole()) {
        complaints.emplace_back("bytes behind the image");
        return;
    }
    if (!image_.take(byte, piece_size, flash_)) {
        return;
    }
    acknowledge(TeseoStep::piece, wire, times.program_piece);
    busy_until_ = now + times.program_piece;
    if (image_.whole()) {
        judge_image(times.program_piece + times.check, wire);
    }
}

void TeseoPart::judge_image(Micros delay, Wire& wire) {
    completed_ = image_.right(flash_);
    if (!completed_) {
        complaints.emplace_back("the image's CRC is wrong");
    }
    say(TeseoStep::image_checked, {completed_ ? teseo_ack : teseo_refusal}, wire, delay);
}

void TeseoBootLoader::power_on() {
    reset();
    state_ = State::listening;
    options_.clear();
}

void TeseoBootLoader::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (dead_ || now < busy_until_) {
        return;
    }
    switch (state_) {
        case State::listening:
            if (hears_word(byte, loader_word)) {
                caught_ = true;
                state_ = State::confirming;
                say(TeseoStep::sync, {loader_answer.begin(), loader_answer.end()}, wire);
            }
            break;
        case State::confirming:  // the rest of the host's flood is still coming in
            if (byte == loader_confirmation) {
                state_ = State::options;
                acknowledge(TeseoStep::sync_confirmed, wire);
            }
            break;
        case State::options:
            options_.push_back(byte);
            if (options_.size() == options_size) {
                take_options(now);
            }
            break;
        case State::ready:
            if (byte == 'J') {
                begin(now, wire);
            } else {
                complaints.emplace_back("something else than 'J' behind the options");
            }
            break;
        case State::image:
            take_image_byte(byte, loader_piece, settings_.times, now, wire);
            break;
    }
}

void TeseoBootLoader::take_options(Micros now) {
    state_ = State::ready;
    busy_until_ = now + settings_.ready_time;
    if (options_[3] == fast_selector) {
        baud_ = fast_baud;
    }
}

std::string TeseoBootLoader::fault_in_options() const {
    if (options_[0] != 1 || options_[1] != 0 || options_[2] != 0) {
        return "what to erase";
    }
    if (options_[3] != settings_.baud_selector) {
        return "the baud selector";
    }
    if (word_at(options_, 12) != settings_.nvm_offset ||
        word_at(options_, 16) != settings_.nvm_size) {
        return "the NVM area";
    }
    return {};
}

/// Answers 'J': ready, initialised, then an answer behind each erase.
void TeseoBootLoader::begin(Micros now, Wire& wire) {
    const std::string fault = fault_in_options();
    if (!fault.empty()) {
        refuse(TeseoStep::ready, "the options record: " + fault, wire);
        return;
    }
    if (!image_.announce(word_at(options_, 4), word_at(options_, 8), settings_.nvm_offset)) {
        refuse(TeseoStep::ready, "the image does not fit", wire);
        return;
    }
    const Micros code_done = settings_.times.erase_code;
    const Micros all_done = code_done + settings_.times.erase_nvm;
    acknowledge(TeseoStep::ready, wire);
    acknowledge(TeseoStep::initialised, wire);
    flash_.erase(teseo_flash_base, settings_.nvm_offset);
    acknowledge(TeseoStep::code_erased, wire, code_done);
    flash_.erase(teseo_flash_base + settings_.nvm_offset, settings_.nvm_size);
    acknowledge(TeseoStep::nvm_erased, wire, all_done);
    busy_until_ = now + all_done;
    state_ = State::image;
    if (image_.whole()) {
        judge_image(all_done + settings_.times.check, wire);
    }
}

void TeseoBootRom::power_on() {
    reset();
    state_ = State::listening;
    ram_.clear();
    info_.clear();
}

std::size_t TeseoBootRom::message_size() const {
    switch (state_) {
        case State::rate:
        case State::request:
        case State::announcement:
            return 4;
        case State::sizes:
            return 8;
        case State::preamble:
            return preamble.size();
        case State::loader:
            return is_sta9100() ? sta9100_loader_size : sta8089_loader_size;
        case State::info:
            return info_size;
        default:
            return 1;
    }
}

void TeseoBootRom::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (dead_ || now < busy_until_) {
        return;
    }
    if (state_ == State::image) {
        take_image_byte(byte, rom_piece, settings_.times, now, wire);
        return;
    }
    if (state_ == State::listening) {
        if (hears_word(byte, is_sta9100() ? sta9100_word : sta8089_word)) {
            caught_ = true;
            state_ = State::rate_check;
            const Word& answer = is_sta9100() ? sta9100_answer : sta8089_answer;
            say(TeseoStep::sync, {answer.begin(), answer.end()}, wire, settings_.sync_time);
        }
        return;
    }
    if (state_ == State::rate_check && byte != 'q') {
        return;  // a sync word that was on the way
    }
    message_.push_back(byte);
    if (message_.size() == message_size()) {
        handle(now, wire);
        message_.clear();
    }
}

/// Notes a message that has no answer of its own and is not what it should be.
void TeseoBootRom::expect(std::span<const std::uint8_t> expected, const char* what) {
    if (!std::equal(message_.begin(), message_.end(), expected.begin(), expected.end())) {
        complaints.emplace_back(what);
        dead_ = true;
    }
}

void TeseoBootRom::handle(Micros now, Wire& wire) {
    switch (state_) {
        case State::rate_check:
            acknowledge(TeseoStep::rate_checked, wire);
            state_ = State::rate;
            break;
        case State::rate:
            if (!std::equal(message_.begin(), message_.end(), rate_115200.begin())) {
                refuse(TeseoStep::rate_changed, "another rate", wire);
                break;
            }
            acknowledge(TeseoStep::rate_changed, wire);
            state_ = State::rate_use;
            break;
        case State::rate_use:
            if (message_[0] != '8') {
                refuse(TeseoStep::rate_confirmed, "something else than '8'", wire);
                break;
            }
            if (!is_sta9100()) {
                acknowledge(TeseoStep::rate_confirmed, wire);
            }
            state_ = State::host_ready;
            break;
        case State::host_ready:
            if (message_[0] != 'Z') {
                refuse(TeseoStep::host_ready, "something else than 'Z'", wire);
                break;
            }
            acknowledge(TeseoStep::host_ready, wire);
            state_ = State::preamble;
            break;
        case State::preamble:
            expect(preamble, "the preamble");
            state_ = is_sta9100() ? State::request : State::announcement;
            break;
        case State::request:
            if (!std::equal(message_.begin(), message_.end(), sta9100_request.begin())) {
                refuse(TeseoStep::preamble, "the request behind the preamble", wire);
                break;
            }
            acknowledge(TeseoStep::preamble, wire);
            state_ = State::sizes;
            break;
        case State::announcement:
            expect(sta8089_announcement, "the announcement of the loader");
            state_ = State::sizes;
            break;
        case State::sizes: {
            state_ = State::loader;
            const auto size = static_cast<std::uint32_t>(message_size());
            const std::array<std::uint8_t, 8> sizes{static_cast<std::uint8_t>(size),
                                                    static_cast<std::uint8_t>(size >> 8)};
            expect(sizes, "the size words");
            break;
        }
        case State::loader:
            ram_ = message_;
            acknowledge(TeseoStep::loader_started, wire);
            state_ = State::start;
            break;
        case State::start:
            if (message_[0] != 'J') {
                refuse(TeseoStep::ready, "something else than 'J'", wire);
                break;
            }
            acknowledge(TeseoStep::ready, wire);
            state_ = State::info;
            break;
        case State::info:
            info_ = message_;
            take_info(now, wire);
            break;
        case State::listening:
        case State::image:
            break;
    }
}

std::string TeseoBootRom::fault_in_info() const {
    const std::span<const std::uint8_t> info(info_);
    if (word_at(info, 4) != 1 || word_at(info, 12) != teseo_flash_base) {
        return "the fixed words in front";
    }
    if (word_at(info, 16) != (is_sta9100() ? 0x400U : 0U) || info[20] != (is_sta9100() ? 2 : 1)) {
        return "the kind of flash";
    }
    const std::uint32_t nvm = is_sta9100() ? 0 : 0x00100000;
    if (word_at(info, 28) != nvm || word_at(info, 32) != nvm) {
        return "the NVM area";
    }
    if (!all_zero(info.subspan(21, 7)) || !all_zero(info.subspan(36, 20))) {
        return "bytes that should be zero";
    }
    return {};
}

/// Answers the record: taken, initialised, then an answer behind each erase.
void TeseoBootRom::take_info(Micros now, Wire& wire) {
    const std::string fault = fault_in_info();
    if (!fault.empty()) {
        refuse(TeseoStep::options, "the binary info: " + fault, wire);
        return;
    }
    if (!image_.announce(word_at(info_, 0), word_at(info_, 8), settings_.program_area)) {
        refuse(TeseoStep::options, "the image does not fit", wire);
        return;
    }
    acknowledge(TeseoStep::options, wire);
    acknowledge(TeseoStep::initialised, wire, milliseconds(10));
    Micros done = milliseconds(10) + settings_.times.erase_code;
    flash_.erase(teseo_flash_base, settings_.program_area);
    acknowledge(TeseoStep::code_erased, wire, done);
    if (!is_sta9100()) {
        done += settings_.times.erase_nvm;
        flash_.erase(teseo_flash_base + word_at(info_, 28), word_at(info_, 32));
        acknowledge(TeseoStep::nvm_erased, wire, done);
    }
    busy_until_ = now + done;
    state_ = State::image;
    if (image_.whole()) {
        judge_image(done + settings_.times.check, wire);
    }
}

}  // namespace orbix::sim
