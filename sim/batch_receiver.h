// The receiving end of a YMODEM batch of one file: block 0 with name and length, blocks of 1024
// bytes, end of file, an empty block 0. It ends with five cancel bytes once the file is taken.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "model.h"

namespace orbix::sim {

/// What the receiver answers to.
enum class BatchEvent : std::uint8_t { waiting, header, block, end_of_file, end_of_batch, taken };

class BatchReceiver {
  public:
    /// Starts to ask for a file.
    void start(Micros now);

    void receive(std::uint8_t byte, Micros now, Wire& wire);
    [[nodiscard]] std::optional<Micros> wake_time() const;

    /// Returns true once: when the batch is complete and the file is to be stored.
    bool wake(Micros now, Wire& wire);

    [[nodiscard]] const std::vector<std::uint8_t>& file() const { return file_; }
    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::size_t announced() const { return announced_; }

    /// How long it takes to check and store the file.
    Micros store_time = milliseconds(300);

    /// A test's way of making the receiver misbehave: may change each answer, or empty it.
    std::function<void(BatchEvent event, std::vector<std::uint8_t>& answer)> tamper;

  private:
    enum class State : std::uint8_t { idle, wants_header, wants_data, wants_end, storing };

    void say(BatchEvent event, std::vector<std::uint8_t> answer, Wire& wire);
    void end_of_file(Wire& wire);
    void take_block(Micros now, Wire& wire);
    bool take_header(std::span<const std::uint8_t> data);
    [[nodiscard]] bool is_intact() const;

    State state_ = State::idle;
    std::vector<std::uint8_t> block_;  ///< the one under way
    Micros last_byte_ = 0;
    Micros next_request_ = 0;
    std::uint8_t next_number_ = 0;
    std::vector<std::uint8_t> file_;
    std::string name_;
    std::size_t announced_ = 0;
};

}  // namespace orbix::sim
