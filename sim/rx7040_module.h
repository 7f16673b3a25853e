// An RX7040 module. Its ROM loader is called by "DLS" and takes a loader package by XMODEM-1K; the
// loader then takes a firmware package in the same way, at its own rate. Its application's boot
// loader is called by the sync words. Which of the two is spoken with shows in what arrives first.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "app_loader.h"
#include "xmodem_receiver.h"

namespace orbix::sim {

class Rx7040Module : public AppLoader {
  public:
    struct Behaviour {
        bool loader_starts = true;                   ///< the loader package is a good one
        std::vector<std::uint8_t> loader_code = {};  ///< only this runs; empty: any
        bool loader_has_words = true;  ///< an older loader answers a command with 'C's alone
        std::string_view verdict = "Download success\r\n";  ///< on the firmware package
        Micros loader_start_time = milliseconds(80);
        Micros erase_time = milliseconds(400);
        Micros verify_time = milliseconds(300);
    };

    explicit Rx7040Module(Behaviour behaviour);
    Rx7040Module() : Rx7040Module(Behaviour{}) {}

    /// The rate of the running loader.
    static constexpr unsigned loader_baud = 460800;

    /// Where the application begins, behind the boot loader.
    static constexpr std::uint32_t application_address = 0x08020000;

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;

    /// What the ROM loader has taken into memory, with the padding of the last block.
    [[nodiscard]] const std::vector<std::uint8_t>& loader_code() const { return loader_code_; }

    /// Whether a download has been completed.
    [[nodiscard]] bool download_is_over() const { return stage_ == Stage::finished; }

    /// A test's way of making a receiver misbehave: called with every answer to a block or to the
    /// end of a transfer, and with every 'C'; may change it, or empty it for silence.
    std::function<void(std::vector<std::uint8_t>& answer)> tamper_xmodem;

  private:
    enum class Stage : std::uint8_t {
        uncaught,         ///< ROM loader and boot loader listen
        application,      ///< the boot loader is spoken with
        taking_loader,    ///< ROM loader
        loader_starts,    ///< nobody listens
        loader_waits,     ///< for a command
        taking_firmware,  ///< the loader
        loader_verifies,
        finished,
    };

    [[nodiscard]] bool loader_runs() const;
    [[nodiscard]] bool heard(std::string_view word) const;
    void take_xmodem_byte(std::uint8_t byte, Micros now, Wire& wire);
    void start_firmware(Micros now, Wire& wire);
    bool store_firmware(std::span<const std::uint8_t> data);
    void say(std::uint8_t answer, Wire& wire);

    Behaviour behaviour_;
    Stage stage_ = Stage::uncaught;
    std::string heard_;  ///< the end of what came in
    XmodemReceiver receiver_;
    Micros stage_ends_ = 0;
    std::vector<std::uint8_t> loader_code_;
    std::uint32_t stored_ = 0;  ///< bytes of firmware
};

}  // namespace orbix::sim
