#include "monitor_module.h"

#include <algorithm>

#include "checksums.h"

namespace orbix::sim {

namespace {

constexpr std::uint32_t flash_size = 1024 * 1024;
constexpr std::uint8_t reset_class = 0x03;
constexpr std::uint8_t reset_id = 0x01;
constexpr std::size_t reset_frame_size = 12;

AppLoader::Settings boot_loader() {
    AppLoader::Settings settings;
    settings.flash_base = MonitorModule::boot_address;
    settings.flash_size = flash_size;
    settings.areas = {
        {.announced = 65,
         .address = MonitorModule::application_address,
         .size = flash_size - MonitorModule::boot_size},
        {.announced = 66, .address = MonitorModule::boot_address, .size = MonitorModule::boot_size},
    };
    settings.largest_block = 5120;
    settings.start = AppLoader::Start::by_itself;
    return settings;
}

/// The sums of a frame go from its class to the end of its payload.
bool is_reset(std::span<const std::uint8_t> frame) {
    const std::array<std::uint8_t, 4> payload{0x00, 0x00, 0x44, 0x00};
    const auto sums = fletcher(frame.subspan(2, 8));
    return frame[2] == reset_class && frame[3] == reset_id && frame[4] == payload.size() &&
           frame[5] == 0 && std::equal(payload.begin(), payload.end(), frame.begin() + 6) &&
           frame[10] == sums[0] && frame[11] == sums[1];
}

}  // namespace

MonitorModule::MonitorModule(Behaviour behaviour)
    : AppLoader(boot_loader()), behaviour_(behaviour) {}

void MonitorModule::power_on(Micros now, Wire& wire) {
    AppLoader::power_on(now, wire);
    application_runs_ = true;
    loader_runs_ = !behaviour_.needs_reset;
    heard_.clear();
}

void MonitorModule::receive(std::uint8_t byte, Micros now, Wire& wire) {
    if (loader_runs_) {
        AppLoader::receive(byte, now, wire);
    }
    if (!application_runs_ || was_caught()) {
        return;
    }
    heard_.push_back(byte);
    if ((heard_.size() == 1 && byte != 0x4B) || (heard_.size() == 2 && byte != 0x47)) {
        heard_.clear();
    }
    if (heard_.size() < reset_frame_size) {
        return;
    }
    if (is_reset(heard_)) {
        restart(now, wire);
    }
    heard_.clear();
}

void MonitorModule::restart(Micros now, Wire& wire) {
    ++resets_;
    const auto& header = behaviour_.reset_header;
    std::vector<std::uint8_t> acknowledgement{header[0], header[1],   reset_class, reset_id, 4,
                                              0,         reset_class, reset_id,    0,        0};
    const auto sums = fletcher(std::span(acknowledgement).subspan(2));
    acknowledgement.insert(acknowledgement.end(), sums.begin(), sums.end());
    if (tamper_reset) {
        tamper_reset(acknowledgement);
    }
    wire.send(acknowledgement);
    application_runs_ = false;
    loader_runs_ = true;
    if (behaviour_.loader_baud != 0) {
        baud = behaviour_.loader_baud;
    }
    AppLoader::power_on(now + behaviour_.restart_time, wire);
}

}  // namespace orbix::sim
