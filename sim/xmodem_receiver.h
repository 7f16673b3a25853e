// The receiving side of XMODEM-1K with CRC, as a loader holds it.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "model.h"

namespace orbix::sim {

class XmodemReceiver {
  public:
    /// Takes the data of each new block; returns whether there was room for it.
    using Sink = std::function<bool(std::span<const std::uint8_t>)>;

    /// Starts a transfer: 'C' is due at `first_request`.
    void start(Micros first_request, Sink sink);

    /// Hears a byte and returns the answer to it, if it calls for one.
    std::optional<std::uint8_t> push(std::uint8_t byte, Micros now);

    /// When `timeout` is to be called: for the next 'C', or for a block that stopped half-way.
    [[nodiscard]] std::optional<Micros> timeout_at() const;

    /// Returns what the receiver says by itself.
    std::uint8_t timeout(Micros now);

    /// Whether a block has been taken.
    [[nodiscard]] bool has_begun() const { return next_number_ != 1; }

    /// Whether the sender has ended the transfer.
    [[nodiscard]] bool is_over() const { return is_over_; }

  private:
    std::optional<std::uint8_t> judge_block();

    Sink sink_;
    std::vector<std::uint8_t> block_;
    unsigned next_number_ = 1;
    Micros next_request_ = 0;
    Micros last_byte_ = 0;
    bool is_over_ = false;
    bool purging_ = false;  ///< what comes in belongs to a damaged block
};

}  // namespace orbix::sim
