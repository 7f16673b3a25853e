#include "rom_boot.h"

namespace orbix::sim {

RomBoot::RomBoot(Settings settings, Flash& flash, unsigned& baud)
    : settings_(std::move(settings)),
      baud_(baud),
      loader_(settings_.loader, voice),
      old_agent_(settings_.old_agent, flash, voice),
      new_agent_(settings_.new_agent, flash, voice) {}

void RomBoot::reset() {
    loader_.reset();
    running_ = Running::loader;
    baud_ = loader_baud;
}

void RomBoot::receive(std::uint8_t byte, Micros now, Wire& wire) {
    switch (running_) {
        case Running::loader:
            loader_.receive(byte, now, wire, baud_);
            break;
        case Running::old_agent:
            old_agent_.receive(byte, wire, baud_);
            return;
        case Running::new_agent:
            new_agent_.receive(byte, now, wire, baud_);
            return;
    }
    if (const auto address = loader_.jumped_to()) {
        if (*address == settings_.new_agent_address) {
            running_ = Running::new_agent;
            new_agent_.start();
        } else {
            running_ = Running::old_agent;
            old_agent_.start(wire);
        }
    }
}

RomBoot::Settings ag3335_boot() {
    RomBoot::Settings settings;
    settings.loader.watchdog_off = {{.address = 0xA2080000, .value = 0x0010}};
    settings.loader.agent_addresses = {0x04204000, 0x04000000};
    settings.new_agent_address = 0x04000000;
    return settings;
}

RomBoot::Settings ag3352_boot() {
    RomBoot::Settings settings;
    settings.loader.watchdog_off = {{.address = 0xA2080000, .value = 0x0010},
                                    {.address = 0xA2080030, .value = 0x0040}};
    settings.loader.agent_addresses = {0x04200000};
    settings.loader.rates = {115200, 230400, 460800, 921600};
    settings.new_agent_address = 0x04200000;
    return settings;
}

}  // namespace orbix::sim
