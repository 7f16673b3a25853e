// A module with a Teseo chip: a running receiver that talks NMEA and may be asked for its boot
// loader, the boot loader in its flash, and the boot ROM. Which of them is meant it tells by what
// it hears.
#pragma once

#include "model.h"
#include "nmea_talker.h"
#include "teseo_loader.h"

namespace orbix::sim {

class TeseoChip : public Model {
  public:
    struct Settings {
        NmeaTalker::Settings talker;
        bool loader_listens = true;  ///< without being asked for by a sentence, as after power-on
        bool rom_listens = true;
        std::uint32_t flash_size = 0x00200000;
        TeseoBootLoader::Settings loader;
        TeseoBootRom::Settings rom;
    };

    /// An STA8089 module.
    static Settings sta8089();

    /// An STA9100 module: it has no boot loader in flash that the host could catch.
    static Settings sta9100();

    explicit TeseoChip(Settings settings);

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override { return talker_.wake_time(); }
    void wake(Micros now, Wire& wire) override { talker_.wake(now, wire); }
    [[nodiscard]] Flash& flash() override { return flash_; }

    [[nodiscard]] TeseoBootLoader& loader() { return loader_; }
    [[nodiscard]] TeseoBootRom& rom() { return rom_; }

    /// Whether an image has been written and found right since power came on.
    [[nodiscard]] bool completed() const { return loader_.completed() || rom_.completed(); }

  private:
    Settings settings_;
    Flash flash_;
    NmeaTalker talker_;
    TeseoBootLoader loader_;
    TeseoBootRom rom_;
    bool receiver_runs_ = true;
    bool loader_listens_ = true;
};

}  // namespace orbix::sim
