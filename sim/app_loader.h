// An application-level boot loader that speaks the upgrade frames: caught by the sync words, then
// boot version, firmware information, erase, numbered firmware frames, reboot.
#pragma once

#include <array>
#include <functional>
#include <vector>

#include "model.h"
#include "upgrade_frames.h"

namespace orbix::sim {

/// The slave states of a response.
enum class SlaveState : std::uint16_t {
    success = 0x00,
    crc_error = 0x02,
    timeout = 0x03,
    unsupported = 0x04,
    package_error = 0x05,  ///< a command out of order, or a wrong block number
    size_error = 0x06,
    upgrade_error = 0x14,  ///< the image's CRC is wrong
};

class AppLoader : public Model {
  public:
    /// A part of the flash that an image may be meant for.
    struct Area {
        std::uint32_t announced;  ///< the third word of the firmware information
        std::uint32_t address;
        std::uint32_t size;
    };

    /// How the new application is started.
    enum class Start : std::uint8_t {
        reboot_with_mode,  ///< by a reboot command with `reboot_mode` and 0
        plain_reboot,      ///< by a reboot command without a payload
        by_itself,         ///< as soon as the image is complete
    };

    struct Settings {
        std::uint8_t address = 2;  ///< device address byte of every frame
        std::uint32_t flash_base = 0x08000000;
        std::uint32_t flash_size = 2 * 1024 * 1024;
        std::uint32_t load_address = 0x08009000;
        std::vector<Area> areas =
            {};  ///< empty: from the load address, which is announced, to the end
        std::uint32_t fourth_word = 0;  ///< of the firmware information
        std::uint32_t largest_block = 4096;
        std::uint8_t reboot_mode = 2;
        Start start = Start::reboot_with_mode;
        std::uint8_t version_address = 0;  ///< of the version query alone, 0: `address`
        std::uint8_t version_command = 0x71;
        std::array<std::uint8_t, 3> version{1, 4, 2};
        Micros start_time = 0;  ///< from power-on until it listens
        Micros erase_time = milliseconds(400);
        Micros program_time = milliseconds(2);  ///< a block
    };

    explicit AppLoader(Settings settings);
    AppLoader() : AppLoader(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return flash_; }

    /// Whether somebody has called the loader by the first sync word.
    [[nodiscard]] bool was_caught() const { return state_ != State::waiting; }

    /// Whether the loader has handed over to the application.
    [[nodiscard]] bool rebooted() const { return state_ == State::rebooted; }

    /// How many commands it has refused since the object exists, power cycles or not.
    [[nodiscard]] unsigned refusals() const { return refusals_; }

    /// A test's way of making the loader misbehave: called with every intact frame and the
    /// response it would get; may change the response, or empty it for silence.
    std::function<void(const UpgradeFrame& frame, std::vector<std::uint8_t>& response)> tamper;

    /// The same for the answers to the two probes.
    std::function<void(SyncEvent probe, std::vector<std::uint8_t>& answer)> tamper_sync;

  private:
    enum class State : std::uint8_t { waiting, half_caught, ready, informed, erased, rebooted };

    void hear_sync(std::uint8_t byte, Wire& wire);
    void handle(const UpgradeFrame& frame, Wire& wire);
    [[nodiscard]] bool is_version_query(const UpgradeFrame& frame) const;
    SlaveState execute(const UpgradeFrame& frame, Micros& duration);
    SlaveState inform(const UpgradeFrame& frame);
    [[nodiscard]] bool is_reboot(const UpgradeFrame& frame) const;
    SlaveState program(const UpgradeFrame& frame);
    [[nodiscard]] bool image_is_complete_and_right() const;
    void respond(const UpgradeFrame& frame, SlaveState state, Micros delay, Wire& wire);

    Settings settings_;
    Flash flash_;
    State state_ = State::waiting;
    Micros listens_at_ = 0;
    SyncListener sync_;
    UpgradeFrameReader reader_;
    Micros last_byte_ = 0;
    Area area_{};
    std::uint32_t size_ = 0;
    std::uint32_t crc_ = 0;
    std::uint32_t received_ = 0;
    std::uint32_t next_block_ = 0;
    std::vector<std::uint8_t> last_block_;
    unsigned refusals_ = 0;
};

}  // namespace orbix::sim
