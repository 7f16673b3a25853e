// The boot side of an AG33xx chip: the mask-ROM loader with its watchdog, and the download agent
// that it starts. Which agent runs is told by the address it was loaded to.
#pragma once

#include <cstdint>
#include <optional>

#include "boot_answers.h"
#include "flash.h"
#include "model.h"
#include "new_agent.h"
#include "old_agent.h"
#include "rom_loader.h"

namespace orbix::sim {

class RomBoot {
  public:
    struct Settings {
        RomLoader::Settings loader;
        std::uint32_t new_agent_address = 0;  ///< any other address runs the old agent
        OldAgent::Settings old_agent;
        NewAgent::Settings new_agent;
    };

    /// The rate at which every ROM loader starts.
    static constexpr unsigned loader_baud = 115200;

    /// `baud` is the module's own rate, which the loader and the agents change.
    RomBoot(Settings settings, Flash& flash, unsigned& baud);
    RomBoot(const RomBoot&) = delete;
    RomBoot& operator=(const RomBoot&) = delete;

    void reset();
    void receive(std::uint8_t byte, Micros now, Wire& wire);

    /// Whether the host has begun to talk to the loader; the chip then stays in it.
    [[nodiscard]] bool engaged() const { return loader_.engaged(); }

    [[nodiscard]] std::optional<Micros> watchdog_bites_at() const {
        return loader_.watchdog_bites_at();
    }

    BootVoice voice;
    [[nodiscard]] const RomLoader& loader() const { return loader_; }
    [[nodiscard]] const OldAgent& old_agent() const { return old_agent_; }
    [[nodiscard]] const NewAgent& new_agent() const { return new_agent_; }

  private:
    enum class Running : std::uint8_t { loader, old_agent, new_agent };

    Settings settings_;
    unsigned& baud_;
    RomLoader loader_;
    OldAgent old_agent_;
    NewAgent new_agent_;
    Running running_ = Running::loader;
};

/// The values of AG3335: an old agent at 0x04204000 or a new one at 0x04000000.
RomBoot::Settings ag3335_boot();

/// The values of AG3352: two watchdogs, a rate command, one agent at 0x04200000.
RomBoot::Settings ag3352_boot();

}  // namespace orbix::sim
