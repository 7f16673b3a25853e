// Modules on the AG33xx chips.
#pragma once

#include <optional>
#include <string>

#include "app_loader.h"
#include "model.h"
#include "rom_boot.h"

namespace orbix::sim {

/// A module on AG3335 with 4 MiB of flash. Its ROM loader waits for the host without a limit, as
/// when the operator holds the reset button until the tool asks for it. A module that runs its
/// firmware has to be sent there by the reboot sentence instead.
class Ag3335Module : public Model {
  public:
    struct Settings {
        RomBoot::Settings boot = ag3335_boot();
        /// The module has been running since long before the tool came. After a reset its ROM
        /// loader waits for `start_window`, then the firmware starts, at `start_baud`.
        bool runs_firmware = false;
        Micros start_window = milliseconds(500);
        /// From power-on until the ROM loader listens: the operator has not pressed reset yet.
        Micros reset_pressed_after = 0;
    };

    static constexpr std::uint32_t flash_base = 0x08000000;
    static constexpr std::uint32_t flash_size = 4 * 1024 * 1024;

    explicit Ag3335Module(const Settings& settings, std::uint32_t size = flash_size)
        : flash_(flash_base, size), boot(settings.boot, flash_, baud), settings_(settings) {}
    Ag3335Module() : Ag3335Module(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return flash_; }

    /// How often the running firmware was told to reboot.
    [[nodiscard]] unsigned reboots() const { return reboots_; }

  private:
    Flash flash_;

  public:
    RomBoot boot;

  private:
    void enter_loader(Micros now);
    void hear_sentence(std::uint8_t byte, Micros now, Wire& wire);

    Settings settings_;
    bool found_ = false;    ///< the tool has met this module before
    bool running_ = false;  ///< the firmware, not the ROM loader
    Micros listens_at_ = 0;
    Micros window_ends_ = 0;
    Micros next_sentence_ = 0;
    std::string line_;
    unsigned reboots_ = 0;
};

/// A module on AG3352 with 2 MiB of flash. It tells the application boot loader from the ROM
/// loader by what the host says first.
class Ag3352Module : public Model {
  public:
    struct Settings {
        RomBoot::Settings boot = ag3352_boot();
        /// From power-on until anything listens: the operator has not pressed reset yet.
        Micros reset_pressed_after = 0;
    };

    explicit Ag3352Module(const Settings& settings)
        : boot(settings.boot, app_loader.flash(), baud), settings_(settings) {}
    Ag3352Module() : Ag3352Module(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return app_loader.flash(); }

    AppLoader app_loader;
    RomBoot boot;

  private:
    Settings settings_;
    bool app_loader_caught_ = false;
    Micros listens_at_ = 0;
};

}  // namespace orbix::sim
