// The serial port layer: what the families use to talk to a module. Opening a port at a rate with
// 8N1 and no flow control, two kinds of timed read, writes, purge, rate and parity changes, the
// DTR and RTS lines, and a hex dump of the traffic.
//
// All time-outs are in milliseconds, rates in bits a second. Failures of the port surface as short
// counts; a device that vanished can be told by `serial_gone`, so that a wait without a limit of
// its own ends.
#pragma once

#include <cstdint>
#include <span>

#include "platform/platform.h"

namespace orbix {

using SerialHandle = platform::Port;

/// The handle before a port is opened, and the result of a failed open.
inline constexpr SerialHandle no_port = platform::no_port;

/// Opens a port at `baud` with 8N1, no flow control and the remembered DTR and RTS states.
/// Returns `no_port` when the device cannot be opened, with the reason in `errno`; prints nothing.
SerialHandle serial_open(const char* name, unsigned baud);

/// Reads a burst: returns when the buffer is full, when the line pauses for more than 1 ms after a
/// byte, or when `timeout_ms` have passed. Returns the number of bytes, 0 on a time-out.
unsigned serial_read(SerialHandle handle, std::span<std::uint8_t> buffer, unsigned timeout_ms);

/// Reads until the buffer is full or `timeout_ms` have passed. Returns the number of bytes.
unsigned serial_read_until(SerialHandle handle, std::span<std::uint8_t> buffer,
                           unsigned timeout_ms);

/// Writes the bytes. They have left the port before anything else is done with it, and before the
/// time-out of a read begins. Returns the number written.
unsigned serial_write(SerialHandle handle, std::span<const std::uint8_t> bytes);

/// Writes one byte, never dumped. Returns 1, or 0 when it could not be written.
unsigned serial_write_byte(SerialHandle handle, std::uint8_t byte);

/// Drops what was received and not yet read. Returns 0.
int serial_flush(SerialHandle handle);

/// Sets another rate, and 8N1 again. Returns 0, -1 when the settings cannot be read, -2 when they
/// cannot be written.
int serial_change_br(SerialHandle handle, unsigned baud);

/// Closes the port. Returns 0.
int serial_close(SerialHandle handle);

/// Turns the hex dumps on. Returns 0.
int serial_enable_debug();

/// Switches to even parity. Returns 0, or -1 after an ERROR line, with the port closed.
int serial_CfgEvenParity(SerialHandle handle);

/// With `no_port`: remembers the state for the next port that is opened and returns 1.
/// With a port: sets the line and the port's RTS control field and returns 1, or 0 when one of
/// the two fails.
unsigned serial_CfgRTS(SerialHandle handle, unsigned on);

/// As `serial_CfgRTS` for the DTR line. On an open port it moves the RTS control field, not the
/// DTR control field; front ends and modules have come to rely on it.
unsigned serial_CfgDTR(SerialHandle handle, unsigned on);

/// Whether the device vanished while the port was open (an unplugged adapter). Reads then last
/// their time-out and bring nothing; a wait without a limit of its own has to ask.
bool serial_gone(SerialHandle handle);

/// Puts the layer's state (dumps, remembered lines) to its initial values; once at each run.
void kv_uart_reset();

/// A port that is closed when it goes out of scope, for families that close theirs once.
class SerialPort {
  public:
    SerialPort(const char* name, unsigned baud) : handle_(serial_open(name, baud)) {}
    ~SerialPort() { close(); }
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    [[nodiscard]] bool is_open() const { return handle_ != no_port; }
    [[nodiscard]] SerialHandle handle() const { return handle_; }
    void close();

  private:
    SerialHandle handle_;
};

}  // namespace orbix
