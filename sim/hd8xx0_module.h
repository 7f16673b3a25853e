// An HD8xx0 module with all its ways of being flashed: the boot loader in the chip's ROM, the
// running firmware that receives an image as a batch, and the two processors of a dual-processor
// module. Which one the tool wants shows in what it sends.
#pragma once

#include <functional>
#include <string_view>

#include "batch_receiver.h"
#include "korvane_frames.h"
#include "model.h"
#include "nmea_talker.h"
#include "upgrade_agent.h"

namespace orbix::sim {

class Hd8xx0Module : public Model {
  public:
    struct Settings {
        int variant = 0;
        /// The boot pin is strapped: the boot loader answers without having been entered by a
        /// command, and the firmware keeps silent until it is spoken to.
        bool strapped = true;
        NmeaTalker::Settings talker{
            .period = milliseconds(1000), .answer = UpgradeAnswer::none, .answer_delay = 0};
        Micros restart_time = milliseconds(200);
        Micros erase_time = milliseconds(400);
        Micros program_time = milliseconds(2);  ///< a block
    };

    /// A block as the boot loader wrote it.
    struct Write {
        std::uint32_t address;
        unsigned index;
        std::size_t length;
        bool operator==(const Write&) const = default;
    };

    /// Each processor's part of the flash, in bytes. The slave's stands behind the other, so that
    /// one memory shows both.
    static constexpr std::uint32_t processor_flash_size = 2 * 1024 * 1024;

    explicit Hd8xx0Module(Settings settings);
    Hd8xx0Module() : Hd8xx0Module(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return agent_.flash(); }

    /// What the second processor of a dual-processor module holds.
    [[nodiscard]] std::span<const std::uint8_t> slave_flash(std::size_t length) const {
        return agent_.area(4, length);
    }

    /// The blocks that the boot loader took, in their order.
    [[nodiscard]] const std::vector<Write>& writes() const { return writes_; }

    /// Whether the boot loader has taken an image to its end.
    [[nodiscard]] bool boot_image_complete() const { return complete_; }

    /// The batch that the running firmware takes, and the agents of the two processors.
    [[nodiscard]] BatchReceiver& batch() { return batch_; }
    [[nodiscard]] UpgradeAgent& agent() { return agent_; }

    /// A test's way of making the module misbehave: called with every intact frame and the answer
    /// it would get; may change the answer, or empty it for silence.
    std::function<void(const KorvaneFrame& frame, std::vector<std::uint8_t>& answer)> tamper;

  private:
    enum class State : std::uint8_t { running, in_boot_loader, receiving_batch };

    void handle(const KorvaneFrame& frame, Micros now, Wire& wire);
    std::vector<std::uint8_t> run_firmware_command(const KorvaneFrame& frame, Micros now);
    std::vector<std::uint8_t> run_boot_command(const KorvaneFrame& frame);
    std::vector<std::uint8_t> set_up_flash(const KorvaneFrame& frame);
    std::vector<std::uint8_t> write(const KorvaneFrame& frame);
    void store_batch();

    Settings settings_;
    UpgradeAgent agent_;
    BatchReceiver batch_;
    NmeaTalker talker_;
    KorvaneReader reader_;
    State state_ = State::running;
    Micros listens_at_ = 0;
    Micros last_byte_ = 0;
    std::optional<unsigned> next_baud_;  ///< taken once the answer is out
    Micros delay_ = 0;                   ///< of the answer under way
    std::size_t flash_steps_ = 0;        ///< of the set-up, done so far
    bool writing_ = false;
    bool complete_ = false;
    std::vector<Write> writes_;
};

/// The chip variant of a model name.
int hd8xx0_variant(std::string_view name);

}  // namespace orbix::sim
