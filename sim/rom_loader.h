// The mask-ROM loader of the AG33xx chips: answers the start handshake, writes 16-bit registers,
// loads a program into RAM and jumps to it. Every item that the host sends comes back as an echo;
// all fields are big-endian.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "boot_answers.h"
#include "model.h"

namespace orbix::sim {

class RomLoader {
  public:
    /// A 16-bit register and the value that it must be given.
    struct RegisterWrite {
        std::uint32_t address;
        std::uint16_t value;
        bool operator==(const RegisterWrite&) const = default;
    };

    struct Settings {
        /// Only these together keep the watchdog from biting. No other register can be written.
        std::vector<RegisterWrite> watchdog_off;
        /// From the start of the dialogue to the bite.
        Micros watchdog_time = milliseconds(3000);
        /// Where a program may be loaded.
        std::vector<std::uint32_t> agent_addresses;
        std::uint32_t agent_space = 0x10000;
        /// What the rate command takes; empty for a loader without that command.
        std::vector<unsigned> rates;
    };

    RomLoader(Settings settings, BootVoice& voice)
        : settings_(std::move(settings)), voice_(voice) {}

    /// As after a reset: waits for the start handshake.
    void reset();

    void receive(std::uint8_t byte, Micros now, Wire& wire, unsigned& baud);

    /// Whether the host has begun to talk to the loader.
    [[nodiscard]] bool engaged() const { return step_ != Step::start || start_matched_ > 0; }

    /// When the watchdog bites, if it has not been switched off.
    [[nodiscard]] std::optional<Micros> watchdog_bites_at() const {
        return engaged() && !watchdog_off_ ? std::optional(started_at_ + settings_.watchdog_time)
                                           : std::nullopt;
    }

    /// Where the loader has jumped to, once it has.
    [[nodiscard]] std::optional<std::uint32_t> jumped_to() const {
        return step_ == Step::left ? std::optional(agent_address_) : std::nullopt;
    }

    /// The program that was loaded.
    [[nodiscard]] const std::vector<std::uint8_t>& agent() const { return agent_; }

    [[nodiscard]] const std::vector<RegisterWrite>& writes() const { return writes_; }

  private:
    enum class Step : std::uint8_t {
        start,
        command,
        write_address,
        write_count,
        write_value,
        rate,
        agent_address,
        agent_length,
        agent_signature,
        agent_data,
        jump_address,
        left
    };

    void hear_start(std::uint8_t byte, Micros now, Wire& wire);
    void take_command(Wire& wire);
    void take_register_item(Wire& wire);
    void take_agent_item(Wire& wire);
    void take_rate(Wire& wire, unsigned& baud);
    void take_jump(Wire& wire);
    void echo(BootAnswer which, Wire& wire);
    void echo(BootAnswer which, std::uint16_t status, Wire& wire);
    [[nodiscard]] std::size_t item_size() const;

    Settings settings_;
    BootVoice& voice_;
    Step step_ = Step::start;
    std::size_t start_matched_ = 0;
    Micros started_at_ = 0;
    std::vector<std::uint8_t> item_;
    std::uint32_t register_address_ = 0;
    std::uint32_t values_left_ = 0;
    std::vector<RegisterWrite> writes_;
    bool watchdog_off_ = false;
    std::uint32_t agent_address_ = 0;
    std::uint32_t agent_length_ = 0;
    std::vector<std::uint8_t> agent_;
};

}  // namespace orbix::sim
