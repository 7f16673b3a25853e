#include "hd8xx0_module.h"

#include <algorithm>

namespace orbix::sim {

namespace {

/// A frame that stops half-way is given up after this silence.
constexpr Micros frame_timeout = milliseconds(200);

constexpr unsigned boot_loader_baud = 115200;
constexpr unsigned reference_clock = 26'000'000;
constexpr std::size_t largest_block = 1024;

/// Where each variant's flash stands in its address space.
constexpr std::array<std::uint32_t, 3> flash_bases{0x00100000, 0x90000000, 0x00400000};

using Payload = std::vector<std::uint8_t>;

std::vector<std::uint8_t> text_answer(const KorvaneFrame& frame, std::string_view text) {
    return make_korvane_frame(frame.frame_class, frame.id, Payload(text.begin(), text.end()));
}

std::vector<std::uint8_t> ack(const KorvaneFrame& frame) {
    return make_korvane_frame(0x05, 0x01, Payload{frame.frame_class, frame.id});
}

std::vector<std::uint8_t> nak(const KorvaneFrame& frame) {
    return make_korvane_frame(0x05, 0x00, Payload{frame.frame_class, frame.id});
}

/// Both processors of a dual-processor module, in one memory.
UpgradeAgent::Settings agent_settings(std::uint32_t base) {
    constexpr std::uint32_t size = Hd8xx0Module::processor_flash_size;
    const AgentArea master{.code = 2,
                           .flash_address = base,
                           .flash_size = size,
                           .address = 0,
                           .information = {0, 0, 0, 0, 1, 0, 0, 0},
                           .order = {0x01, 0x02, 0x03, 0x04},
                           .wrong_image = AgentStatus::app_write_error};
    const AgentArea slave{.code = 4,
                          .flash_address = base + size,
                          .flash_size = size,
                          .address = 0x90000000,
                          .information = {0x90, 1, 0, 0, 1, 0, 0, 0},
                          .order = {0xE2, 0x01, 0x02, 0x04, 0xE1},
                          .wrong_image = AgentStatus::app_write_error};
    UpgradeAgent::Settings settings;
    settings.areas = {master, slave};
    settings.largest_packet = largest_block;
    settings.talker.period = 0;  // the module's own firmware talks
    return settings;
}

}  // namespace

int hd8xx0_variant(std::string_view name) {
    const std::string_view series = name.substr(0, 5);
    if (series == "MX280" || series == "MX285") {
        return 2;
    }
    const bool second = series == "MX240" || series == "MX241" || series == "MX250" ||
                        series == "MX270" || name.substr(0, 6) == "MX260C";
    return second ? 1 : 0;
}

Hd8xx0Module::Hd8xx0Module(Settings settings)
    : settings_(settings),
      agent_(agent_settings(flash_bases.at(static_cast<std::size_t>(settings.variant)))),
      talker_(settings.talker) {}

void Hd8xx0Module::power_on(Micros now, Wire& wire) {
    state_ = State::running;
    listens_at_ = now;
    agent_.power_on(now, wire);
    talker_.power_on(now);
    if (settings_.strapped) {
        talker_.fall_silent();
    }
    reader_.reset();
    next_baud_.reset();
    writing_ = false;
    complete_ = false;
    flash_steps_ = 0;
}

void Hd8xx0Module::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (now < listens_at_) {
        return;
    }
    if (now - last_byte_ > frame_timeout) {
        reader_.reset();
    }
    last_byte_ = now;
    if (state_ == State::receiving_batch) {
        batch_.receive(byte, now, wire);
        return;
    }
    if (state_ == State::running) {
        agent_.receive(byte, now, wire);
        if (agent_.caught()) {
            talker_.fall_silent();
            return;
        }
    }
    if (const auto frame = reader_.push(byte)) {
        handle(*frame, now, wire);
    }
}

std::optional<Micros> Hd8xx0Module::wake_time() const {
    if (state_ == State::receiving_batch) {
        return batch_.wake_time();
    }
    const auto agent = agent_.wake_time();
    return agent ? agent : talker_.wake_time();
}

void Hd8xx0Module::wake(Micros now, Wire& wire) {
    if (state_ == State::receiving_batch) {
        if (batch_.wake(now, wire)) {
            store_batch();
        }
    } else if (agent_.wake_time()) {
        agent_.wake(now, wire);
    } else {
        talker_.wake(now, wire);
    }
}

void Hd8xx0Module::handle(const KorvaneFrame& frame, Micros now, Wire& wire) {
    delay_ = 0;
    std::vector<std::uint8_t> answer;
    if (!frame.intact) {
        answer = nak(frame);
    } else {
        if (state_ == State::running && settings_.strapped && frame.is(0x0A, 0x04)) {
            state_ = State::in_boot_loader;
            talker_.fall_silent();
        }
        answer =
            state_ == State::running ? run_firmware_command(frame, now) : run_boot_command(frame);
        if (tamper) {
            tamper(frame, answer);
        }
    }
    if (!answer.empty()) {
        wire.send(answer, delay_);
    }
    if (next_baud_) {
        baud = *next_baud_;
        next_baud_.reset();
    }
}

std::vector<std::uint8_t> Hd8xx0Module::run_firmware_command(const KorvaneFrame& frame,
                                                             Micros now) {
    if (frame.is(0x0A, 0x04) && frame.payload.empty()) {
        return text_answer(frame, "FW 3.1.7 running");
    }
    if (frame.is(0x06, 0x5F) && frame.payload.empty()) {
        state_ = State::in_boot_loader;
        talker_.fall_silent();
        listens_at_ = now + settings_.restart_time;
        next_baud_ = boot_loader_baud;
        return {};
    }
    if (frame.is(0x06, 0x00) && frame.payload.size() == 8 && frame.word(0) == 0) {
        next_baud_ = frame.word(4);
        return ack(frame);
    }
    if (frame.is(0x06, 0x50) && frame.payload == Payload{1}) {
        state_ = State::receiving_batch;
        talker_.fall_silent();
        batch_.start(now);
        return ack(frame);
    }
    return nak(frame);
}

std::vector<std::uint8_t> Hd8xx0Module::run_boot_command(const KorvaneFrame& frame) {
    if (frame.is(0x0A, 0x04) && frame.payload.empty()) {
        return text_answer(frame, "HD8xx0 BOOT 1.2");
    }
    if (frame.is(0xF4, 0x00) && frame.payload.size() == 8 && frame.word(0) == reference_clock) {
        next_baud_ = frame.word(4);
        return {};
    }
    if (frame.is(0xF4, 0x05)) {
        return write(frame);
    }
    return set_up_flash(frame);
}

/// Each variant wants its own frames, in their order.
std::vector<std::uint8_t> Hd8xx0Module::set_up_flash(const KorvaneFrame& frame) {
    struct SetUp {
        std::uint8_t id;
        Payload payload;
        std::vector<std::uint8_t> answer;
    };
    const SetUp query_0{0x07, {0x02}, make_korvane_frame(0x05, 0x00, Payload{0, 0})};
    const SetUp query_1{0x07, {0x02}, make_korvane_frame(0xF4, 0x07, Payload{0, 0x0A, 1, 0x18})};
    const SetUp setting{0x08, {0x00, 0x02, 0x00, 0x80}, ack(frame)};
    const SetUp command_0{0x13, {0x00, 0x00, 0x02, 0x00, 0x00}, nak(frame)};
    const SetUp command_1{0x13, {0x00, 0x00, 0x02, 0x00, 0x00}, ack(frame)};
    const SetUp command_2{0x20, {0x05}, ack(frame)};
    const SetUp setting_2{0x08, {0xFF, 0xFF, 0x4F, 0x00}, ack(frame)};
    const std::array<std::vector<SetUp>, 3> steps{{
        {query_0, setting, command_0},
        {query_1, setting, command_1},
        {command_2, setting_2},
    }};
    const auto& wanted = steps.at(static_cast<std::size_t>(settings_.variant));
    if (frame.frame_class != 0xF4 || flash_steps_ >= wanted.size() ||
        frame.id != wanted[flash_steps_].id || frame.payload != wanted[flash_steps_].payload) {
        return nak(frame);
    }
    return wanted[flash_steps_++].answer;
}

/// The announcement is a write without data at the flash's start. Blocks follow, each behind the
/// one before; the first one comes last and closes the image.
std::vector<std::uint8_t> Hd8xx0Module::write(const KorvaneFrame& frame) {
    Flash& memory = flash();
    const std::uint32_t base = memory.base();
    const std::size_t steps_wanted = settings_.variant == 2 ? 2 : 3;
    if (frame.payload.size() < 6 || flash_steps_ != steps_wanted) {
        return nak(frame);
    }
    const Write block{
        .address = frame.word(0), .index = frame.half(4), .length = frame.payload.size() - 6};
    if (block.index == 0 && block.length == 0 && block.address == base) {
        memory.erase(base, processor_flash_size);
        delay_ = settings_.erase_time;
        writing_ = true;
        writes_.clear();
        return ack(frame);
    }
    if (!writing_ || block.length == 0 || block.length > largest_block) {
        return nak(frame);
    }
    if (!writes_.empty() && block == writes_.back()) {
        return ack(frame);  // our acknowledgement was lost, the block was not
    }
    const bool is_next = block.index == writes_.size() + 1 && !complete_;
    const bool is_first_block = block.address == base;
    const bool is_in_place = block.address == base + block.index * largest_block &&
                             memory.contains(block.address, block.length) &&
                             block.address - base < processor_flash_size;
    if (!is_next || !(is_first_block || is_in_place)) {
        return nak(frame);
    }
    memory.program(block.address, std::span(frame.payload).subspan(6));
    delay_ = settings_.program_time;
    writes_.push_back(block);
    complete_ = is_first_block;
    return ack(frame);
}

void Hd8xx0Module::store_batch() {
    Flash& memory = flash();
    memory.erase(memory.base(), processor_flash_size);
    memory.program(memory.base(), batch_.file());
}

}  // namespace orbix::sim
