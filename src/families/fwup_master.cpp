#include "families/fwup.h"
#include "teseo/nmea_upgrade.h"

namespace orbix::hd8xx0 {

namespace {

using teseo::NmeaUpgrade;
using teseo::UpgradeStep;

/// Both processors listen once they are powered up; 700 probes take some 28 s.
constexpr teseo::SyncRules sync_rules{
    .prompt = "Please power up the module within 15s.\n",
    .passes = 700,
    .read_timeout_ms = 20,
    .pause_ms = 20,
    .pauses_after_silence = true,
};

constexpr std::size_t packet_size = 1024;

constexpr std::array<std::uint8_t, 8> master_information{0x00, 0x00, 0x00, 0x00,
                                                         0x01, 0x00, 0x00, 0x00};
constexpr std::array<std::uint8_t, 8> slave_information{0x90, 0x01, 0x00, 0x00,
                                                        0x01, 0x00, 0x00, 0x00};

constexpr std::array master_steps{UpgradeStep::address, UpgradeStep::information,
                                  UpgradeStep::start, UpgradeStep::firmware};

/// The slave is told to get ready first, and restarted at the end.
constexpr std::array slave_steps{UpgradeStep::start, UpgradeStep::address, UpgradeStep::information,
                                 UpgradeStep::firmware, UpgradeStep::restart};

constexpr NmeaUpgrade master_upgrade{
    .area = static_cast<std::uint8_t>(Processor::master),
    .address = 0,
    .information = master_information,
    .start_command = 0x03,
    .packet_size = packet_size,
    .steps = master_steps,
    .sync = sync_rules,
};

constexpr NmeaUpgrade slave_upgrade{
    .area = static_cast<std::uint8_t>(Processor::slave),
    .address = 0x90000000,
    .information = slave_information,
    .start_command = 0xE2,
    .packet_size = packet_size,
    .steps = slave_steps,
    .sync = sync_rules,
};

}  // namespace

int fw_update_master(SerialHandle handle, std::span<const std::uint8_t> image,
                     Processor processor) {
    const NmeaUpgrade& upgrade = processor == Processor::master ? master_upgrade : slave_upgrade;
    std::int32_t file_len = 0;
    return teseo::run_nmea_upgrade(handle, upgrade, teseo::UpgradeImage::in_memory(image),
                                   file_len);
}

}  // namespace orbix::hd8xx0
