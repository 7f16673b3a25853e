#include "ag33xx_modules.h"

namespace orbix::sim {

namespace {

constexpr std::string_view reboot_sentence = "$PAIR023*3B\r\n";
constexpr std::string_view reboot_answer = "$PAIR001,023,0*3A\r\n";
constexpr std::string_view time_sentence = "$GNZDA,115957.000,20,11,2026,,*42\r\n";
constexpr Micros sentence_period = milliseconds(1000);
constexpr std::size_t longest_sentence = 82;

}  // namespace

void Ag3335Module::power_on(Micros now, Wire& /*wire*/) {
    const bool met_running = settings_.runs_firmware && !found_;
    found_ = true;
    boot.voice.forget();
    enter_loader(now);
    listens_at_ = now + settings_.reset_pressed_after;
    if (met_running) {
        window_ends_ = now;
    }
}

void Ag3335Module::enter_loader(Micros now) {
    running_ = false;
    boot.reset();
    window_ends_ = now + settings_.start_window;
}

void Ag3335Module::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (running_) {
        hear_sentence(byte, now, wire);
    } else if (now >= listens_at_) {
        boot.receive(byte, now, wire);
    }
}

std::optional<Micros> Ag3335Module::wake_time() const {
    if (running_) {
        return next_sentence_;
    }
    if (settings_.runs_firmware && !boot.engaged()) {
        return window_ends_;
    }
    return boot.watchdog_bites_at();
}

void Ag3335Module::wake(Micros now, Wire& wire) {
    if (running_) {
        wire.send(time_sentence);
        next_sentence_ = now + sentence_period;
    } else if (boot.engaged()) {
        enter_loader(now);  // the watchdog has bitten
    } else {
        running_ = true;
        baud = start_baud;
        line_.clear();
        next_sentence_ = now + sentence_period;
    }
}

void Ag3335Module::hear_sentence(std::uint8_t byte, Micros now, Wire& wire) {
    line_ += static_cast<char>(byte);
    if (byte == '$') {
        line_ = "$";
    }
    if (line_ == reboot_sentence) {
        ++reboots_;
        boot.voice.say(wire, BootAnswer::reboot_sentence,
                       {reboot_answer.begin(), reboot_answer.end()});
        enter_loader(now);
    } else if (line_.size() > longest_sentence) {
        line_.clear();
    }
}

void Ag3352Module::power_on(Micros now, Wire& wire) {
    app_loader_caught_ = false;
    boot.voice.forget();
    boot.reset();
    baud = start_baud;  // the application's boot loader may have another rate
    app_loader.power_on(now, wire);
    listens_at_ = now + settings_.reset_pressed_after;
}

void Ag3352Module::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (now < listens_at_) {
        return;
    }
    if (!app_loader_caught_) {
        boot.receive(byte, now, wire);
    }
    if (!boot.engaged()) {
        const std::size_t said = wire.utterances.size();
        app_loader.receive(byte, now, wire);
        app_loader_caught_ = app_loader_caught_ || wire.utterances.size() > said;
    }
}

std::optional<Micros> Ag3352Module::wake_time() const {
    return boot.engaged() ? boot.watchdog_bites_at() : app_loader.wake_time();
}

void Ag3352Module::wake(Micros now, Wire& wire) {
    if (boot.engaged()) {
        boot.reset();  // the watchdog has bitten
    } else {
        app_loader.wake(now, wire);
    }
}

}  // namespace orbix::sim
