#include "zpx710p.h"

#include <algorithm>

#include "checksums.h"
#include "wire_words.h"

namespace orbix::sim {

namespace {

constexpr std::uint8_t accepted_byte = 0x79;
constexpr std::uint8_t refused_byte = 0x1F;
constexpr std::uint8_t synchronisation_byte = 0x7F;
constexpr std::uint8_t command_get = 0x00;
constexpr std::uint8_t command_get_version = 0x01;
constexpr std::uint8_t command_get_id = 0x02;
constexpr std::uint8_t command_write_memory = 0x31;
constexpr std::uint8_t command_erase = 0x43;
constexpr std::uint8_t command_extended_erase = 0x44;

/// What it says of itself: version 3.1 of the loader, and a controller of 1 MiB in pages of 2048
/// bytes.
constexpr std::uint8_t loader_version = 0x31;
constexpr std::array<std::uint8_t, 2> controller_id{0x04, 0x15};

/// The extended erase: from here on the count means a whole bank, or everything.
constexpr std::size_t special_erase = 0xFFF0;

/// A block holds at most 256 bytes: one length byte counts them, less one.
constexpr std::size_t page_packet = 3;
constexpr std::size_t address_packet = 5;
constexpr std::size_t shortest_pages_packet = 3;

constexpr AppLoader::Settings mcu_settings{.address = 2,
                                           .flash_base = 0,
                                           .flash_size = 1024 * 1024,
                                           .load_address = 0,
                                           .largest_block = 5120,
                                           .reboot_mode = 2,
                                           .version = {2, 0, 7}};
constexpr AppLoader::Settings gnss_settings{.address = 3,
                                            .flash_base = 0,
                                            .flash_size = 512 * 1024,
                                            .load_address = 0,
                                            .largest_block = 1024,
                                            .reboot_mode = 3,
                                            .version = {1, 10, 3},
                                            .start_time = milliseconds(100)};
constexpr AppLoader::Settings lora_settings{.address = 4,
                                            .flash_base = 0x08000000,
                                            .flash_size = 256 * 1024,
                                            .load_address = 0x08000000,
                                            .largest_block = 1024,
                                            .reboot_mode = 4,
                                            .version = {1, 0, 0},
                                            .start_time = milliseconds(100)};

/// The pass-through dialogue.
constexpr std::uint8_t request_group = 0x03;
constexpr std::uint8_t request_number = 0x55;
constexpr std::size_t vnc_head = 6;
constexpr std::size_t longest_request = 64;
constexpr std::uint8_t error_none = 0;
constexpr std::uint8_t error_unknown_message = 1;
constexpr std::uint8_t error_unknown_processor = 2;

}  // namespace

void Zpx710pRomLoader::power_on(Micros now, Wire& /*wire*/) {
    await(Question::synchronisation, 1);
    busy_until_ = now + start_time;
    next_page_ = 0;
}

void Zpx710pRomLoader::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (now < busy_until_) {
        return;  // it starts, erases or programs, and hears nothing
    }
    if (awaited_ == Question::synchronisation && byte != synchronisation_byte) {
        return;  // the rate is not found yet
    }
    if (packet_.empty()) {
        packet_begun_ = now;
    }
    packet_.push_back(byte);
    if (awaited_ == Question::data && packet_.size() == 1) {
        expected_ = byte + 3U;
    } else if (awaited_ == Question::pages && packet_.size() == 2) {
        const std::size_t count = packet_[0] * 256U + packet_[1];
        expected_ = count >= special_erase ? shortest_pages_packet : 2 + 2 * (count + 1) + 1;
    }
    if (packet_.size() == expected_) {
        handle_packet(now, wire);
    }
}

void Zpx710pRomLoader::handle_packet(Micros now, Wire& wire) {
    switch (awaited_) {
        case Question::synchronisation:
            ++synchronisations_;
            answer(true, 0, now, wire);
            await(Question::command, 2);
            return;
        case Question::command:
            handle_command(now, wire);
            return;
        case Question::page:
            answer(erase_page(), erase_time, now, wire);
            await(Question::command, 2);
            return;
        case Question::pages: {
            const Micros duration = erase_time * std::max<std::size_t>(1, packet_.size() / 2 - 1);
            answer(erase_pages(), duration, now, wire);
            await(Question::command, 2);
            return;
        }
        case Question::address: {
            const bool accepted = take_address();
            answer(accepted, 0, now, wire);
            await(accepted ? Question::data : Question::command, 2);
            return;
        }
        case Question::data:
            answer(program(), program_time, now, wire);
            await(Question::command, 2);
            return;
    }
}

void Zpx710pRomLoader::handle_command(Micros now, Wire& wire) {
    const std::uint8_t command = packet_[0];
    const bool whole = packet_[1] == (command ^ 0xFF);
    Question next = Question::command;
    std::size_t bytes = 2;
    std::vector<std::uint8_t> report;
    switch (command) {
        case command_get:
            report = {6,
                      loader_version,
                      command_get,
                      command_get_version,
                      command_get_id,
                      command_write_memory,
                      command_erase,
                      command_extended_erase};
            break;
        case command_get_version:
            report = {loader_version, 0, 0};
            break;
        case command_get_id:
            report = {1, controller_id[0], controller_id[1]};
            break;
        case command_write_memory:
            next = Question::address;
            bytes = address_packet;
            break;
        case command_erase:
            next = Question::page;
            bytes = page_packet;
            break;
        case command_extended_erase:
            next = Question::pages;
            bytes = shortest_pages_packet;
            break;
        default:
            answer(false, 0, now, wire);
            await(Question::command, 2);
            return;
    }
    answer(whole, 0, now, wire);
    if (whole && !report.empty()) {
        report.push_back(accepted_byte);
        wire.send(report);
    }
    await(whole ? next : Question::command, whole ? bytes : 2);
}

/// With its checksum, the XOR of a packet is 0.
bool Zpx710pRomLoader::packet_sums_up() const {
    std::uint8_t sum = 0;
    for (const std::uint8_t byte : packet_) {
        sum ^= byte;
    }
    return sum == 0;
}

/// The page field is 0 in every packet. The loader takes it for "the next page" and erases one page
/// after the other, from the start of the flash, since it was synchronised.
bool Zpx710pRomLoader::erase_page() {
    if (!packet_sums_up() || packet_[0] != 0 || packet_[1] != 0 ||
        !flash_.erase(flash_base + next_page_ * page_size, page_size)) {
        return false;
    }
    ++next_page_;
    return true;
}

/// The standard erase names its pages, or means all of them.
bool Zpx710pRomLoader::erase_pages() {
    if (!packet_sums_up()) {
        return false;
    }
    const auto cells = static_cast<std::uint32_t>(flash_.cells().size());
    if (packet_.size() == shortest_pages_packet) {
        return packet_[0] == 0xFF && packet_[1] == 0xFF && flash_.erase(flash_base, cells);
    }
    bool erased = true;
    for (std::size_t at = 2; at + 1 < packet_.size(); at += 2) {
        const std::uint32_t page = packet_[at] * 256U + packet_[at + 1];
        erased = erased && flash_.erase(flash_base + page * page_size, page_size);
    }
    return erased;
}

bool Zpx710pRomLoader::take_address() {
    address_packet_ = packet_;
    address_ = from_big_endian(std::span(packet_).first(4));
    return packet_sums_up() && flash_.contains(address_, 1);
}

bool Zpx710pRomLoader::program() {
    const auto data = std::span(packet_).subspan(1, packet_.size() - 2);
    if (!packet_sums_up() || !flash_.program(address_, data)) {
        return false;
    }
    took_address_for_data_ |=
        packet_.size() > address_packet &&
        std::equal(address_packet_.begin(), address_packet_.end(), packet_.begin());
    return true;
}

void Zpx710pRomLoader::await(Question next, std::size_t bytes) {
    awaited_ = next;
    expected_ = bytes;
    packet_.clear();
}

void Zpx710pRomLoader::answer(bool accepted, Micros duration, Micros now, Wire& wire) {
    std::vector<std::uint8_t> bytes{accepted ? accepted_byte : refused_byte};
    if (tamper) {
        tamper(awaited_, bytes);
    }
    if (accepted && awaited_ != Question::synchronisation) {
        accepted_packets_.push_back({packet_begun_, now});
    }
    const Micros delay = accepted ? duration : 0;
    busy_until_ = now + delay;
    wire.send(bytes, delay);
}

Zpx710pModule::Zpx710pModule() : mcu(mcu_settings), gnss(gnss_settings), lora(lora_settings) {}

void Zpx710pModule::power_on(Micros now, Wire& wire) {
    for (AppLoader* processor : {&mcu, &gnss, &lora}) {
        processor->power_on(now, wire);
    }
    heard_ = &mcu;
    request_.clear();
    sync_ = {};
    hears_requests_ = true;
}

void Zpx710pModule::receive(std::uint8_t byte, Micros now, Wire& wire) {
    AppLoader* const heard = heard_;
    if (hears_requests_) {
        hear_request(byte, now, wire);
    }
    if (heard_ != heard) {
        return;  // the request's last byte
    }
    if (sync_.push(byte) == SyncEvent::first_probe) {
        hears_requests_ = false;  // an upgrade has begun, its bytes may look like anything
    }
    heard_->receive(byte, now, wire);
}

void Zpx710pModule::hear_request(std::uint8_t byte, Micros now, Wire& wire) {
    constexpr std::array<std::uint8_t, 2> head{'V', 'N'};
    if (request_.size() < head.size() && byte != head[request_.size()]) {
        request_.clear();
        if (byte != head[0]) {
            return;
        }
    }
    request_.push_back(byte);
    if (request_.size() < vnc_head) {
        return;
    }
    const std::size_t length = request_[4] + request_[5] * 256U;
    if (length > longest_request) {
        request_.clear();
    } else if (request_.size() == vnc_head + length + 2) {
        handle_request(now, wire);
        request_.clear();
    }
}

void Zpx710pModule::handle_request(Micros now, Wire& wire) {
    const std::uint8_t group = request_[2];
    const std::uint8_t number = request_[3];
    const auto payload = std::span(request_).subspan(vnc_head, request_.size() - vnc_head - 2);
    if (make_vnc_frame(group, number, payload) != request_) {
        return;  // the checksum is wrong
    }
    ++requests;
    std::uint8_t error = error_none;
    AppLoader* chosen = nullptr;
    if (group != request_group || number != request_number) {
        error = error_unknown_message;
    } else if (std::ranges::equal(payload, std::array{3, 0, 0, 0})) {
        chosen = &gnss;
    } else if (std::ranges::equal(payload, std::array{4, 0, 0, 0})) {
        chosen = &lora;
    } else {
        error = error_unknown_processor;
    }
    const std::array<std::uint8_t, 4> result{group, number, error, 0};
    std::vector<std::uint8_t> acknowledgement = make_vnc_frame(0x01, 0x01, result);
    if (tamper_acknowledgement) {
        tamper_acknowledgement(acknowledgement);
    }
    wire.send(acknowledgement, milliseconds(5));
    if (chosen != nullptr) {
        heard_ = chosen;
        heard_->power_on(now, wire);  // the processor is restarted into its boot loader
        sync_ = {};
    }
}

void Zpx710p::power_on(Micros now, Wire& wire) {
    rom_loader_.power_on(now, wire);
    asked_ = false;
    // The module itself is started when it is asked for: until then the flash of the processor that
    // was written last stays in view.
}

void Zpx710p::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (!asked_) {
        asked_ = true;
        if (byte == synchronisation_byte) {
            used_ = &rom_loader_;
        } else {
            used_ = &module_;
            module_.power_on(now, wire);
        }
    }
    used().receive(byte, now, wire);
}

std::optional<Micros> Zpx710p::wake_time() const {
    return asked_ ? used().wake_time() : std::nullopt;
}

unsigned Zpx710p::byte_bits() const {
    return asked_ ? used().byte_bits() : Model::byte_bits();
}

std::vector<std::uint8_t> make_vnc_frame(std::uint8_t group, std::uint8_t number,
                                         std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> frame{'V',
                                    'N',
                                    group,
                                    number,
                                    static_cast<std::uint8_t>(payload.size()),
                                    static_cast<std::uint8_t>(payload.size() >> 8)};
    frame.insert(frame.end(), payload.begin(), payload.end());
    unsigned sum = 0;
    unsigned sum_of_sums = 0;
    for (const std::uint8_t byte : std::span(frame).subspan(2)) {
        sum += byte;
        sum_of_sums += sum;
    }
    frame.push_back(static_cast<std::uint8_t>(sum));
    frame.push_back(static_cast<std::uint8_t>(sum_of_sums));
    return frame;
}

}  // namespace orbix::sim
