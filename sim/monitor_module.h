// A monitor: an application that answers a reset frame at its own rate, and the boot loader that it
// then starts, which takes an application or a boot image.
#pragma once

#include <array>
#include <functional>
#include <vector>

#include "app_loader.h"

namespace orbix::sim {

class MonitorModule : public AppLoader {
  public:
    struct Behaviour {
        /// What the acknowledgement of a reset begins with.
        std::array<std::uint8_t, 2> reset_header{0x4B, 0x47};
        /// Whether the boot loader runs only after a reset. A module on a bench has just been
        /// switched on: its boot loader is there as well.
        bool needs_reset = false;
        /// The boot loader's rate after a reset, 0: the application's.
        unsigned loader_baud = 0;
        Micros restart_time = milliseconds(300);
    };

    static constexpr std::array<std::uint8_t, 2> first_variant{0x4B, 0x47};
    static constexpr std::array<std::uint8_t, 2> second_variant{0x56, 0x4E};

    static constexpr std::uint32_t boot_address = 0x08000000;
    static constexpr std::uint32_t boot_size = 0x20000;
    static constexpr std::uint32_t application_address = boot_address + boot_size;

    explicit MonitorModule(Behaviour behaviour);
    MonitorModule() : MonitorModule(Behaviour{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;

    /// How many resets the application has obeyed.
    [[nodiscard]] int resets() const { return resets_; }

    /// A test's way of making the application misbehave: may change the acknowledgement of a reset,
    /// or empty it for silence.
    std::function<void(std::vector<std::uint8_t>& acknowledgement)> tamper_reset;

  private:
    void restart(Micros now, Wire& wire);

    Behaviour behaviour_;
    bool application_runs_ = true;
    bool loader_runs_ = false;
    int resets_ = 0;
    std::vector<std::uint8_t> heard_;  ///< a reset frame as far as it has come
};

}  // namespace orbix::sim
