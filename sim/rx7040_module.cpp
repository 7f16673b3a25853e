#include "rx7040_module.h"

#include <algorithm>
#include <utility>

namespace orbix::sim {

namespace {

constexpr std::uint32_t flash_base = 0x08000000;
constexpr std::uint32_t flash_size = 1024 * 1024;

constexpr std::string_view rom_call = "DLS";
constexpr std::string_view rom_answer = "CCC";
constexpr std::string_view loader_command = "xmodem pkg\r\n";

AppLoader::Settings boot_loader() {
    AppLoader::Settings settings;
    settings.flash_base = flash_base;
    settings.flash_size = flash_size;
    settings.areas = {{.announced = 0,
                       .address = Rx7040Module::application_address,
                       .size = flash_base + flash_size - Rx7040Module::application_address}};
    settings.largest_block = 5120;
    settings.start = AppLoader::Start::plain_reboot;
    return settings;
}

}  // namespace

Rx7040Module::Rx7040Module(Behaviour behaviour)
    : AppLoader(boot_loader()), behaviour_(std::move(behaviour)) {}

void Rx7040Module::power_on(Micros now, Wire& wire) {
    AppLoader::power_on(now, wire);
    stage_ = Stage::uncaught;
    heard_.clear();
    loader_code_.clear();
    stored_ = 0;
}

bool Rx7040Module::loader_runs() const {
    const auto& code = behaviour_.loader_code;
    return behaviour_.loader_starts && loader_code_.size() >= code.size() &&
           std::equal(code.begin(), code.end(), loader_code_.begin());
}

bool Rx7040Module::heard(std::string_view word) const {
    return std::string_view(heard_).ends_with(word);
}

void Rx7040Module::receive(std::uint8_t byte, Micros now, Wire& wire) {
    heard_.push_back(static_cast<char>(byte));
    if (heard_.size() > 2 * loader_command.size()) {
        heard_.erase(0, heard_.size() - loader_command.size());
    }
    switch (stage_) {
        case Stage::uncaught:
            if (heard(rom_call)) {
                stage_ = Stage::taking_loader;
                receiver_.start(now + milliseconds(100), [this](auto data) {
                    loader_code_.insert(loader_code_.end(), data.begin(), data.end());
                    return true;
                });
                wire.send(rom_answer);
                break;
            }
            AppLoader::receive(byte, now, wire);
            if (was_caught()) {
                stage_ = Stage::application;
            }
            break;
        case Stage::application:
            AppLoader::receive(byte, now, wire);
            break;
        case Stage::taking_loader:
            take_xmodem_byte(byte, now, wire);
            if (receiver_.is_over() && loader_runs()) {
                stage_ = Stage::loader_starts;
                stage_ends_ = now + behaviour_.loader_start_time;
            }
            break;
        case Stage::loader_waits:
            if (heard(loader_command)) {
                start_firmware(now, wire);
            }
            break;
        case Stage::taking_firmware:
            if (!receiver_.has_begun() && heard(loader_command)) {
                start_firmware(now, wire);
                break;
            }
            take_xmodem_byte(byte, now, wire);
            if (receiver_.is_over()) {
                stage_ = Stage::loader_verifies;
                stage_ends_ = now + behaviour_.verify_time;
            }
            break;
        case Stage::loader_verifies:
            if (byte == 0x04) {
                say(0x06, wire);  // the end once more: our answer was lost
            }
            break;
        case Stage::loader_starts:
        case Stage::finished:
            break;
    }
}

void Rx7040Module::take_xmodem_byte(std::uint8_t byte, Micros now, Wire& wire) {
    if (const auto answer = receiver_.push(byte, now)) {
        say(*answer, wire);
    }
}

void Rx7040Module::start_firmware(Micros now, Wire& wire) {
    stage_ = Stage::taking_firmware;
    flash().erase(flash_base, flash_size);
    stored_ = 0;
    receiver_.start(now + behaviour_.erase_time,
                    [this](auto data) { return store_firmware(data); });
    wire.send(behaviour_.loader_has_words ? "\r\nWaiting for XMODEM transfer\r\n" : "CCCCCCCCCC");
}

bool Rx7040Module::store_firmware(std::span<const std::uint8_t> data) {
    const bool fits = flash().program(flash_base + stored_, data);
    stored_ += static_cast<std::uint32_t>(data.size());
    return fits;
}

void Rx7040Module::say(std::uint8_t answer, Wire& wire) {
    std::vector<std::uint8_t> bytes{answer};
    if (tamper_xmodem) {
        tamper_xmodem(bytes);
    }
    wire.send(bytes);
}

std::optional<Micros> Rx7040Module::wake_time() const {
    switch (stage_) {
        case Stage::application:
            return AppLoader::wake_time();
        case Stage::taking_loader:
        case Stage::taking_firmware:
            return receiver_.timeout_at();
        case Stage::loader_starts:
        case Stage::loader_verifies:
            return stage_ends_;
        default:
            return std::nullopt;
    }
}

void Rx7040Module::wake(Micros now, Wire& wire) {
    switch (stage_) {
        case Stage::application:
            AppLoader::wake(now, wire);
            break;
        case Stage::taking_loader:
        case Stage::taking_firmware:
            say(receiver_.timeout(now), wire);
            break;
        case Stage::loader_starts:
            baud = loader_baud;
            wire.send("\r\nDelos >");
            stage_ = Stage::loader_waits;
            break;
        case Stage::loader_verifies:
            wire.send(behaviour_.verdict);
            stage_ = Stage::finished;
            break;
        default:
            break;
    }
}

}  // namespace orbix::sim
