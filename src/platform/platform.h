// The seam between the tool and the system it runs on: one serial port, one clock, one way to
// wait. Everything above it (kv_uart, kv_log, kv_util and the families) is written once; below it
// stand the native back end, chosen at build time, and the virtual one that tests put in its place
// at run time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace orbix::platform {

/// A port opened by a back end: a file descriptor or a system handle.
using Port = std::intptr_t;

/// No port: what `open` returns when the device cannot be had.
inline constexpr Port no_port = -1;

enum class Parity : std::uint8_t { none, even };
enum class ModemLine : std::uint8_t { rts, dtr };

/// The settings of a port that the tool changes. Everything else is set up by `open` for a raw
/// line with 8 data bits, 1 stop bit and no flow control.
struct LineSettings {
    unsigned baud = 0;  ///< bits a second; 0 or a negative number in disguise keeps the rate
    Parity parity = Parity::none;
    bool rts_control = false;  ///< the port's RTS control field: the line on or off
    bool dtr_control = false;  ///< the same for DTR
};

/// One way of reaching a serial port and a clock. All functions are set.
struct Backend {
    /// Opens the device for this process alone. Returns `no_port` and leaves the reason in `errno`.
    Port (*open)(const char* name);

    /// Reads up to `buffer.size()` bytes. Returns as soon as the buffer is full, when
    /// `total_ms` have passed since the call (0: no such limit), or, with an `interval_ms` other
    /// than 0, when the line has been quiet for that long since the last byte. While written bytes
    /// are still under way, the times begin when they have left. Returns the number of bytes, 0 on
    /// a time-out, or -1 at once when the device is gone.
    int (*read)(Port port, std::span<std::uint8_t> buffer, unsigned interval_ms, unsigned total_ms);

    /// Writes all bytes. They have left the port when it returns, or, of a few bytes, before the
    /// next of these functions does anything but read: the wait for them is left to that. Returns
    /// the number of bytes written, or -1 when nothing could be written because the device is gone.
    int (*write)(Port port, std::span<const std::uint8_t> bytes);

    /// Drops the bytes received and not yet read. Nothing that was written is lost.
    void (*discard_received)(Port port);

    bool (*get_settings)(Port port, LineSettings& settings);
    bool (*set_settings)(Port port, const LineSettings& settings);
    bool (*set_modem_line)(Port port, ModemLine line, bool on);

    /// Gives the port back. A port that is closed already is left alone.
    void (*close)(Port port);

    /// Milliseconds of a clock that never steps back.
    std::uint64_t (*now_ms)();

    void (*sleep_us)(std::uint64_t microseconds);
};

/// To be called when the program starts: standard streams that the caller has closed lead nowhere
/// from then on. Otherwise the port, or a file, would take the place of one, and what is printed
/// would go there.
void settle_standard_streams();

/// What a person can do about a port that could not be opened, by the error number; null when there
/// is nothing particular to say.
const char* port_remedy(int error);

/// For examples: how a port is called here.
const char* example_port();

/// Where a person finds the manual here.
const char* manual();

/// The back end of the system that the tool was built for.
const Backend& native();

/// The back end in use: the native one unless `use` has set another.
const Backend& current();

/// Puts another back end in place. It must outlive its use.
void use(const Backend& backend);

}  // namespace orbix::platform
