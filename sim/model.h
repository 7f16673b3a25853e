// A simulated module: bytes in with a time, bytes out with a delay, its own rate, its own flash.
// A model checks what a real module would check and answers as a real module would, refusals
// included. It never uses the encoders, checksums or tables of the tool: it is a second reading of
// each protocol.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "flash.h"

namespace orbix::sim {

/// Time on the line, in microseconds.
using Micros = std::uint64_t;

inline constexpr Micros milliseconds(std::uint64_t count) {
    return count * 1000;
}

/// When something came in, from its first byte to its last.
struct Span {
    Micros begin;
    Micros end;
};

/// What a model says while it handles a byte or wakes up. The line carries it on.
class Wire {
  public:
    struct Utterance {
        std::vector<std::uint8_t> bytes;
        Micros delay;
        unsigned baud;
    };

    /// The model's own rate is read when it speaks: a module that announces a change and then
    /// changes sets `baud` after `send`.
    explicit Wire(const unsigned& model_baud) : model_baud_(model_baud) {}

    /// Sends bytes, `delay` after now and after all that was sent before.
    void send(std::span<const std::uint8_t> bytes, Micros delay = 0) {
        utterances.push_back({{bytes.begin(), bytes.end()}, delay, model_baud_});
    }
    void send(std::initializer_list<std::uint8_t> bytes, Micros delay = 0) {
        utterances.push_back({bytes, delay, model_baud_});
    }
    void send(std::string_view text, Micros delay = 0) {
        utterances.push_back({{text.begin(), text.end()}, delay, model_baud_});
    }

    std::vector<Utterance> utterances;

  private:
    const unsigned& model_baud_;
};

class Model {
  public:
    Model() = default;
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    virtual ~Model() = default;

    /// The rate at which the module starts, in bits a second.
    unsigned start_baud = 115200;

    /// The rate at which the module listens and speaks now. Bytes at another rate are garbage.
    /// The line sets it to `start_baud` before it calls `power_on`.
    unsigned baud = start_baud;

    /// Whether the module expects even parity.
    bool even_parity = false;

    /// How many bit times a byte takes: start bit, eight data bits, stop bit, and the parity bit
    /// where there is one.
    [[nodiscard]] virtual unsigned byte_bits() const { return even_parity ? 11 : 10; }

    /// Power comes on, or comes back: everything but the flash is as after a start.
    virtual void power_on(Micros now, Wire& wire) = 0;

    /// A byte has arrived.
    virtual void receive(std::uint8_t byte, Micros now, Wire& wire) = 0;

    /// When the model wants `wake` to be called, if at all (a receiver that talks by itself).
    [[nodiscard]] virtual std::optional<Micros> wake_time() const { return std::nullopt; }
    virtual void wake(Micros /*now*/, Wire& /*wire*/) {}

    /// The module's main flash.
    [[nodiscard]] virtual Flash& flash() = 0;
};

}  // namespace orbix::sim
