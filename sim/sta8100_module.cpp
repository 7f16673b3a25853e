#include "sta8100_module.h"

#include <array>

namespace orbix::sim {

Sta8100Module::Settings Sta8100Module::of_model(std::string_view name) {
    // The lower part of the flash holds the code, the upper one the NVM area. The TS6x modules have
    // 4 MiB, the others 2 MiB, TS52A-L a little less.
    Settings settings;
    const bool large = name.starts_with("TS6");
    auto& loader = settings.chip.loader;
    settings.chip.flash_size = large ? 0x400000 : 0x200000;
    loader.baud_selector = 2;
    loader.nvm_offset = settings.chip.flash_size / 2 - 0x1000;
    loader.nvm_size = name.starts_with("TS52A-L") ? 0xF9000 : settings.chip.flash_size / 2 + 0x1000;
    loader.ready_time = milliseconds(1500);
    settings.chip.rom.dialogue = TeseoBootRom::Dialogue::sta9100;
    settings.agent.talker.period = 0;  // the chip's own talks
    return settings;
}

Sta8100Module::Sta8100Module(const Settings& settings)
    : chip_(settings.chip), agent_(settings.agent), app_(settings.app), written_(&chip_) {
    even_parity = settings.app_waits;
}

void Sta8100Module::power_on(Micros now, Wire& wire) {
    active_ = nullptr;
    for (Model* part : std::array<Model*, 3>{&chip_, &agent_, &app_}) {
        part->baud = baud;
        part->power_on(now, wire);
    }
}

void Sta8100Module::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (active_ != nullptr) {
        feed(*active_, byte, now, wire);
        baud = active_->baud;
        return;
    }
    if (!even_parity) {
        feed(chip_, byte, now, wire);
        feed(agent_, byte, now, wire);
        baud = chip_.baud;
    }
    feed(app_, byte, now, wire);
    if (chip_.loader().caught() || chip_.rom().caught()) {
        active_ = &chip_;
    } else if (agent_.caught()) {
        active_ = &agent_;
    } else if (app_.caught()) {
        active_ = &app_;
    }
    if (active_ != nullptr) {
        written_ = active_;
    }
}

/// A part changes its own rate and speaks at it.
void Sta8100Module::feed(Model& part, std::uint8_t byte, Micros now, Wire& wire) {
    Wire spoken(part.baud);
    part.receive(byte, now, spoken);
    wire.utterances.insert(wire.utterances.end(), spoken.utterances.begin(),
                           spoken.utterances.end());
}

std::optional<Micros> Sta8100Module::wake_time() const {
    if (active_ != nullptr) {
        return active_->wake_time();
    }
    return even_parity ? std::nullopt : chip_.wake_time();
}

void Sta8100Module::wake(Micros now, Wire& wire) {
    Model& part = active_ != nullptr ? *active_ : chip_;
    part.wake(now, wire);
}

}  // namespace orbix::sim
