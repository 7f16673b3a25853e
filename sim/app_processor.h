// The application processor of an STA8100 module, as its serial boot loader shows it: the protocol
// of ST application note AN3155.
#pragma once

#include <functional>

#include "model.h"

namespace orbix::sim {

/// What an answer of the boot loader is about.
enum class AppStep : std::uint8_t {
    synchronise,
    get,  ///< acknowledgement, length, version, commands, acknowledgement
    get_id,
    read_command,
    read_address,
    read_data,  ///< acknowledgement of the length, then the data
    unprotect_command,
    unprotect,
    erase_command,
    erase,
    write_command,
    write_address,
    write_data,
    unknown_command,
};

class AppProcessor : public Model {
  public:
    struct Settings {
        std::uint32_t flash_base = 0x08000000;
        std::uint32_t page_size = 0x20000;
        std::uint32_t pages = 16;
        bool write_protected = false;  ///< erase and write are refused until it is lifted
        bool read_protected = false;   ///< reading is refused
        Micros erase_time = milliseconds(800);
        Micros program_time = milliseconds(1);  ///< a block
    };

    explicit AppProcessor(Settings settings);
    AppProcessor() : AppProcessor(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return flash_; }

    [[nodiscard]] bool caught() const { return state_ != State::waiting; }
    [[nodiscard]] bool write_protected() const { return write_protected_; }

    /// The blocks that it has programmed since the object exists.
    [[nodiscard]] const std::vector<Span>& accepted_packets() const { return accepted_packets_; }

    /// How often pages have been erased.
    int erases = 0;

    /// A test's way of making the boot loader misbehave: called with every answer before it is
    /// sent; may change it, or empty it for silence.
    std::function<void(AppStep step, std::vector<std::uint8_t>& answer)> tamper;

  private:
    enum class State : std::uint8_t {
        waiting,
        command,
        read_address,
        read_length,
        erase_pages,
        write_address,
        write_data
    };

    [[nodiscard]] std::size_t message_size() const;
    void handle(Micros now, Wire& wire);
    void take_command(Wire& wire);
    void take_address(AppStep step, State next, Wire& wire);
    void erase_pages(Wire& wire);
    void write_block(Micros now, Wire& wire);
    void say(AppStep step, std::vector<std::uint8_t> answer, Wire& wire, Micros delay = 0);
    void refuse(AppStep step, Wire& wire);

    Settings settings_;
    Flash flash_;
    bool write_protected_;
    State state_ = State::waiting;
    std::vector<std::uint8_t> message_;
    std::uint32_t address_ = 0;
    std::optional<Micros> last_byte_;
    Micros message_begun_ = 0;
    std::vector<Span> accepted_packets_;
};

}  // namespace orbix::sim
