#include "nmea_talker.h"

#include <array>
#include <cstdio>

namespace orbix::sim {

namespace {

constexpr std::string_view upgrade_request = "$PSTMFWUPGRADE*5B\r\n";

}  // namespace

std::string nmea_sentence(const std::string& text) {
    unsigned sum = 0;
    for (const char letter : text) {
        sum ^= static_cast<unsigned char>(letter);
    }
    std::array<char, 6> ending{};
    std::snprintf(ending.data(), ending.size(), "*%02X\r\n", sum & 0xFFU);
    return "$" + text + ending.data();
}

void NmeaTalker::power_on(Micros now) {
    heard_.clear();
    next_report_.reset();
    if (settings_.period != 0) {
        next_report_ = now + settings_.period;
    }
}

bool NmeaTalker::hear(std::uint8_t byte, Wire& wire) {
    heard_.push_back(static_cast<char>(byte));
    if (!upgrade_request.starts_with(heard_)) {
        heard_ = byte == '$' ? "$" : "";
        return false;
    }
    if (heard_.size() < upgrade_request.size()) {
        return false;
    }
    heard_.clear();
    switch (settings_.answer) {
        case UpgradeAnswer::accepted:
            wire.send(nmea_sentence("PSTMFWUPGRADEOK"), settings_.answer_delay);
            return true;
        case UpgradeAnswer::refused:
            wire.send(nmea_sentence("PZRNFWUPGRADEERROR"), settings_.answer_delay);
            return false;
        case UpgradeAnswer::none:
            break;
    }
    return false;
}

void NmeaTalker::wake(Micros now, Wire& wire) {
    next_report_ = now + settings_.period;
    wire.send(nmea_sentence("GNGGA,081530.00,4717.1137,N,00833.9159,E,1,12,0.8,499.6,M,48.0,M,,"));
    wire.send(nmea_sentence("GNGSA,A,3,05,07,13,14,15,20,28,30,,,,,1.5,0.8,1.2,1"));
    wire.send(nmea_sentence("GNRMC,081530.00,A,4717.1137,N,00833.9159,E,0.0,,201126,,,A"));
}

}  // namespace orbix::sim
