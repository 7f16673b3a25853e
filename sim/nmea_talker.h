// A running receiver as far as it talks NMEA: sentences every second, and an answer to the sentence
// that asks it to enter its boot loader.
#pragma once

#include <optional>
#include <string>

#include "model.h"

namespace orbix::sim {

/// How the firmware answers "$PSTMFWUPGRADE*5B".
enum class UpgradeAnswer : std::uint8_t { none, accepted, refused };

/// "$", the text, "*", the checksum and the line end.
std::string nmea_sentence(const std::string& text);

class NmeaTalker {
  public:
    struct Settings {
        Micros period = milliseconds(1000);  ///< 0: it says nothing by itself
        UpgradeAnswer answer = UpgradeAnswer::accepted;
        Micros answer_delay = milliseconds(20);
    };

    explicit NmeaTalker(Settings settings) : settings_(settings) {}

    void power_on(Micros now);

    /// Takes a byte that the tool has sent. Returns whether the receiver leaves for its boot loader
    /// with it; the answer, if any, is on the wire then.
    bool hear(std::uint8_t byte, Wire& wire);

    /// Silent once the receiver is busy with something else; `power_on` ends it.
    void fall_silent() { next_report_.reset(); }

    [[nodiscard]] std::optional<Micros> wake_time() const { return next_report_; }
    void wake(Micros now, Wire& wire);

  private:
    Settings settings_;
    std::optional<Micros> next_report_;
    std::string heard_;
};

}  // namespace orbix::sim
