#include "teseo_chip.h"

namespace orbix::sim {

namespace {

/// The rate of boot loader and boot ROM.
constexpr unsigned loader_baud = 115200;

}  // namespace

TeseoChip::Settings TeseoChip::sta8089() {
    return {};
}

TeseoChip::Settings TeseoChip::sta9100() {
    Settings settings;
    settings.talker.answer = UpgradeAnswer::none;
    settings.loader_listens = false;
    settings.rom.dialogue = TeseoBootRom::Dialogue::sta9100;
    return settings;
}

TeseoChip::TeseoChip(Settings settings)
    : settings_(settings),
      flash_(teseo_flash_base, settings.flash_size),
      talker_(settings.talker),
      loader_(settings.loader, flash_, baud),
      rom_(settings.rom, flash_, baud) {}

void TeseoChip::power_on(Micros now, Wire& /*wire*/) {
    talker_.power_on(now);
    loader_.power_on();
    rom_.power_on();
    receiver_runs_ = true;
    loader_listens_ = settings_.loader_listens;
}

void TeseoChip::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (receiver_runs_ && talker_.hear(byte, wire)) {
        receiver_runs_ = false;
        loader_listens_ = true;
        talker_.fall_silent();
        baud = loader_baud;
        return;
    }
    if (loader_listens_ && !rom_.caught()) {
        loader_.receive(byte, now, wire);
    }
    if (settings_.rom_listens && !loader_.caught()) {
        rom_.receive(byte, now, wire);
    }
    if (loader_.caught() || rom_.caught()) {
        receiver_runs_ = false;
        talker_.fall_silent();
    }
}

}  // namespace orbix::sim
