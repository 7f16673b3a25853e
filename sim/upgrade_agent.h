// The upgrade agent of a running firmware: it talks NMEA until the synchronisation words catch it,
// then takes an image for one flash area by upgrade frames and checks it as it arrives.
#pragma once

#include <functional>

#include "model.h"
#include "nmea_talker.h"
#include "upgrade_frames.h"

namespace orbix::sim {

/// Status codes of a reply.
enum class AgentStatus : std::uint8_t {
    success = 0x00,
    crc_error = 0x02,
    timeout = 0x03,
    unsupported = 0x04,
    package_error = 0x05,  ///< wrong length or fixed words, out of order, wrong packet number
    size_error = 0x06,
    gnss_upgrade_error = 0x14,  ///< the whole image's CRC is wrong
    app_write_error = 0x21,     ///< the same, in a processor's area
};

/// One flash area, as the agent serves it.
struct AgentArea {
    std::uint8_t code;
    std::uint32_t flash_address;  ///< where it stands in the model's flash
    std::uint32_t flash_size;
    std::uint32_t address;                  ///< what the address command must say
    std::vector<std::uint8_t> information;  ///< what must follow size and CRC
    std::vector<std::uint8_t> order;        ///< the commands, each in its turn
    AgentStatus wrong_image;
};

/// The areas of the Teseo modules: 1 to 5, each 1 MiB, one behind the other from address 0.
std::vector<AgentArea> teseo_areas();

class UpgradeAgent : public Model {
  public:
    struct Settings {
        std::vector<AgentArea> areas = teseo_areas();
        std::uint32_t largest_packet = 5120;
        NmeaTalker::Settings talker;
        Micros start_time = 0;  ///< from power-on until it listens and talks
        Micros erase_time = milliseconds(400);
        Micros program_time = milliseconds(2);  ///< a packet
    };

    explicit UpgradeAgent(Settings settings);
    UpgradeAgent() : UpgradeAgent(Settings{}) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return flash_; }

    /// What stands at the start of an area.
    [[nodiscard]] std::span<const std::uint8_t> area(std::uint8_t code, std::size_t length) const;

    /// Whether every command came in its turn and the image is whole and right.
    [[nodiscard]] bool completed() const;

    /// Whether the synchronisation has caught it.
    [[nodiscard]] bool caught() const { return state_ != State::running; }

    /// A test's way of making the agent misbehave: called with every frame and the reply it would
    /// get; may change the reply, or empty it for silence.
    std::function<void(const UpgradeFrame& frame, std::vector<std::uint8_t>& reply)> tamper;

    /// The same for the answers to the two probes.
    std::function<void(SyncEvent probe, std::vector<std::uint8_t>& answer)> tamper_sync;

  private:
    enum class State : std::uint8_t { running, half_caught, upgrading };

    void forget_upgrade();
    void hear_sync(std::uint8_t byte, Micros now, Wire& wire);
    AgentStatus execute(const UpgradeFrame& frame, Micros& duration);
    AgentStatus take_information(const UpgradeFrame& frame);
    AgentStatus take_packet(const UpgradeFrame& frame);
    [[nodiscard]] bool image_is_right() const;
    void reply(const UpgradeFrame& frame, AgentStatus status, Micros delay, Wire& wire);

    Settings settings_;
    Flash flash_;
    NmeaTalker talker_;
    State state_ = State::running;
    Micros listens_at_ = 0;
    SyncListener sync_;
    Micros answered_at_ = 0;  ///< the first probe
    UpgradeFrameReader reader_;
    Micros last_byte_ = 0;
    const AgentArea* area_ = nullptr;  ///< chosen by the first command
    std::size_t turn_ = 0;             ///< index of the next command in the area's order
    std::uint32_t size_ = 0;
    std::uint32_t crc_ = 0;
    std::uint32_t received_ = 0;
    std::uint32_t next_packet_ = 0;
};

}  // namespace orbix::sim
