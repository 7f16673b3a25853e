// A serial port in virtual time: the platform that tests put in place of the native one. A read or
// a sleep moves the clock; a run that waits 40 seconds takes microseconds, and the same seed gives
// the same run.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "line.h"
#include "platform/platform.h"

namespace orbix::sim {

/// The run has gone on for longer than the test allows.
class TimeLimitReached : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The one port of a virtual machine. While the object lives, the tool's platform is this one.
class VirtualPort {
  public:
    struct Settings {
        std::string name = "COM6";  ///< the only device that can be opened
        int open_error = 0;         ///< an errno with which every open fails
        std::optional<int> failing_open =
            std::nullopt;  ///< the open of that number (from 0) fails with ENODEV
        std::optional<int> failing_write =
            std::nullopt;  ///< the write of that number (from 0) sends nothing
        bool settings_readable = true;
        bool settings_writable = true;
        Micros limit = milliseconds(24ULL * 3600 * 1000);  ///< of the whole run
    };

    /// When the clock stands at the start: not 0, as on any machine that has been on for a while.
    static constexpr Micros start = milliseconds(5000);

    VirtualPort(Line& line, Settings settings);
    ~VirtualPort();
    VirtualPort(const VirtualPort&) = delete;
    VirtualPort& operator=(const VirtualPort&) = delete;

    /// What the tool did with the port.
    struct ModemEvent {
        platform::ModemLine line;
        bool on;
        bool operator==(const ModemEvent&) const = default;
    };
    std::vector<ModemEvent> modem_events;
    std::vector<platform::LineSettings> settings_written;
    platform::LineSettings line_settings;
    int opens = 0;
    int closes = 0;
    int writes = 0;
    int discards = 0;
    bool open = false;
    Micros now = start;

  private:
    struct Access;  // the back end's functions

    void advance(Micros until);

    Line& line_;
    Settings settings_;
    std::deque<std::uint8_t> received_;
    int idle_calls_ = 0;
};

}  // namespace orbix::sim
