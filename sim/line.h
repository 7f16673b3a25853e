// The line between the tool and a simulated module: bit times, rates, faults. It knows nothing of
// where its clock comes from; the virtual port and the pseudo-terminal host drive it.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <random>
#include <span>
#include <vector>

#include "faults.h"
#include "model.h"

namespace orbix::sim {

/// One byte as it arrived at its end of the line.
struct TracedByte {
    Micros time;
    Direction direction;
    std::uint8_t byte;
};

/// A fault as it struck: a byte that was lost, turned, doubled or made up, or the moment at which a
/// delay, a silence, an unplug or a power cycle began.
struct Strike {
    Micros time;
    FaultKind kind;
    Direction direction;
    std::uint8_t was;     ///< the byte as it was sent; 0 for a byte from nowhere
    std::uint8_t became;  ///< the byte as it arrives; 0 for a byte that is lost
};

class Line {
  public:
    struct Settings {
        /// The module's bytes take their bit times, as the tool's do; without it they take none.
        bool paced = true;
        /// The tool's bytes take no time, for a tool that does not wait until its bytes have left.
        bool instant = false;
        /// How many bytes of an answer arrive together, as from a USB adapter; 1 for a UART.
        std::size_t packet = 1;
        bool traced = true;
        std::uint64_t seed = 1;
    };

    Line(Model& model, std::vector<Fault> faults, Settings settings, Micros start);

    /// The tool's side of the line: the rate it is set to, in bits a second, and its parity.
    void set_host_rate(unsigned baud, bool even_parity);

    /// The tool sends bytes from `now` on. Returns when the last one has left.
    Micros send(std::span<const std::uint8_t> bytes, Micros now);

    /// Lets everything happen up to `until` that needs no byte to be handed to the tool.
    void run_until(Micros until);

    /// When the next byte arrives at the tool, if one is under way.
    [[nodiscard]] std::optional<Micros> next_arrival() const;

    /// When something happens by itself next: an arrival, a wake-up of the model, a timed fault.
    [[nodiscard]] std::optional<Micros> next_event() const;

    /// Takes the bytes that have arrived at the tool by `now`.
    std::vector<std::uint8_t> take_arrived(Micros now);

    /// The module loses its power and gets it back.
    void power_cycle(Micros now);

    /// How long the bytes of both directions have taken so far, and how long the module has let its
    /// answers wait.
    [[nodiscard]] Micros busy() const { return busy_; }
    [[nodiscard]] Micros delayed() const { return delayed_; }

    [[nodiscard]] bool unplugged() const { return unplugged_; }
    void unplug() { unplugged_ = true; }
    [[nodiscard]] const std::vector<TracedByte>& trace() const { return trace_; }

    /// What the faults have done so far, in the order in which it was done.
    [[nodiscard]] const std::vector<Strike>& strikes() const { return strikes_; }

  private:
    struct Transit {
        Micros arrival;
        std::uint8_t byte;
        unsigned baud;  ///< the sender's rate
        bool even_parity;
    };

    /// One direction's state.
    struct Lane {
        std::deque<Transit> transit;
        Micros free_at = 0;
        std::uint64_t count = 0;  ///< bytes sent so far
        Micros silent_until = 0;
    };

    void enqueue(Direction direction, Transit transit);
    void note_strike(const Fault& fault, Micros time, std::uint8_t was, std::uint8_t became);
    void deliver_to_module(const Transit& transit);
    void carry(Wire& wire, Micros now);
    void happen(const Fault& fault, Micros now);
    std::uint8_t garbled();
    Lane& lane(Direction direction) {
        return direction == Direction::to_module ? to_module_ : to_host_;
    }

    Model& model_;
    std::vector<Fault> faults_;
    Settings settings_;
    Micros start_;
    std::mt19937_64 random_;
    Lane to_module_;
    Lane to_host_;
    unsigned host_baud_ = 115200;
    bool host_even_parity_ = false;
    bool unplugged_ = false;
    Micros busy_ = 0;
    Micros delayed_ = 0;
    std::vector<TracedByte> trace_;
    std::vector<Strike> strikes_;
};

}  // namespace orbix::sim
