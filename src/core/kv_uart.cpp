#include "core/kv_uart.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix {

namespace {

/// The longest transfer that the hex dumps show.
constexpr unsigned longest_dump = 100;

int Kv_UartDebug = 0;
unsigned rts_state = 0;
unsigned dtr_state = 0;
SerialHandle vanished = no_port;

void dump_read(std::span<const std::uint8_t> bytes) {
    if (Kv_UartDebug == 0 || bytes.size() > longest_dump) {
        return;
    }
    log_stamp();
    std::fputs("[DEBUG] recv to module -- < ", log_stream());
    for (const std::uint8_t byte : bytes) {
        std::fprintf(log_stream(), "%02X ", byte);
    }
    std::fprintf(log_stream(), ",ret:%d\n", static_cast<int>(bytes.size()));
}

void dump_written(std::span<const std::uint8_t> bytes) {
    if (Kv_UartDebug == 0 || bytes.size() > longest_dump) {
        return;
    }
    log_stamp();
    std::fputs("[DEBUG] send to module -- < ", log_stream());
    for (const std::uint8_t byte : bytes) {
        std::fprintf(log_stream(), "%02x ", byte);
    }
    std::fputs("\n", log_stream());
}

unsigned timed_read(SerialHandle handle, std::span<std::uint8_t> buffer, unsigned interval_ms,
                    unsigned timeout_ms) {
    int count = platform::current().read(handle, buffer, interval_ms, timeout_ms);
    if (count < 0) {
        // A read from a vanished device lasts as long as one from a silent one: the dialogues'
        // own limits then end the run at the usual time, without a spin.
        vanished = handle;
        hints::port_vanished();
        sleep_ms(std::max(timeout_ms, 1U));
        count = 0;
    }
    const auto received = static_cast<unsigned>(count);
    hints::received(buffer.first(received));
    dump_read(buffer.first(received));
    return received;
}

unsigned plain_write(SerialHandle handle, std::span<const std::uint8_t> bytes) {
    hints::called();
    const int count = platform::current().write(handle, bytes);
    if (count < 0) {
        vanished = handle;
        hints::port_vanished();
        return 0;
    }
    return static_cast<unsigned>(count);
}

unsigned set_line(SerialHandle handle, platform::ModemLine line, unsigned on) {
    const bool line_set = platform::current().set_modem_line(handle, line, on != 0);
    platform::LineSettings settings;
    if (!platform::current().get_settings(handle, settings)) {
        return 0;
    }
    settings.rts_control = on != 0;
    const bool field_set = platform::current().set_settings(handle, settings);
    return line_set && field_set ? 1 : 0;
}

}  // namespace

SerialHandle serial_open(const char* name, unsigned baud) {
    const SerialHandle handle = platform::current().open(name);
    if (handle == no_port) {
        const int reason = errno;
        hints::port_not_opened(name, reason);
        errno = reason;
        return no_port;
    }
    vanished = no_port;
    // No parity, both control fields off.
    hints::rate_set(baud, platform::current().set_settings(handle, {.baud = baud}));
    hints::answer_awaited();
    serial_CfgDTR(handle, dtr_state);
    serial_CfgRTS(handle, rts_state);
    return handle;
}

unsigned serial_read(SerialHandle handle, std::span<std::uint8_t> buffer, unsigned timeout_ms) {
    return timed_read(handle, buffer, 1, timeout_ms);
}

unsigned serial_read_until(SerialHandle handle, std::span<std::uint8_t> buffer,
                           unsigned timeout_ms) {
    return timed_read(handle, buffer, 0, timeout_ms);
}

unsigned serial_write(SerialHandle handle, std::span<const std::uint8_t> bytes) {
    const unsigned written = plain_write(handle, bytes);
    dump_written(bytes.first(written));
    return written;
}

unsigned serial_write_byte(SerialHandle handle, std::uint8_t byte) {
    return plain_write(handle, {&byte, 1});
}

int serial_flush(SerialHandle handle) {
    platform::current().discard_received(handle);
    return 0;
}

int serial_change_br(SerialHandle handle, unsigned baud) {
    platform::LineSettings settings;
    if (!platform::current().get_settings(handle, settings)) {
        return -1;
    }
    settings.baud = baud;
    settings.parity = platform::Parity::none;
    const bool taken = platform::current().set_settings(handle, settings);
    hints::rate_set(baud, taken);
    return taken ? 0 : -2;
}

int serial_close(SerialHandle handle) {
    platform::current().close(handle);
    return 0;
}

int serial_enable_debug() {
    Kv_UartDebug = 1;
    return 0;
}

int serial_CfgEvenParity(SerialHandle handle) {
    platform::LineSettings settings;
    if (!platform::current().get_settings(handle, settings)) {
        log_error("Unable to obtain serial port configuration\n");
        serial_close(handle);
        return -1;
    }
    settings.parity = platform::Parity::even;
    if (!platform::current().set_settings(handle, settings)) {
        log_error("Unable to set serial port configuration\n");
        serial_close(handle);
        return -1;
    }
    return 0;
}

unsigned serial_CfgRTS(SerialHandle handle, unsigned on) {
    if (handle == no_port) {
        rts_state = on;
        return 1;
    }
    return set_line(handle, platform::ModemLine::rts, on);
}

unsigned serial_CfgDTR(SerialHandle handle, unsigned on) {
    if (handle == no_port) {
        dtr_state = on;
        return 1;
    }
    return set_line(handle, platform::ModemLine::dtr, on);
}

bool serial_gone(SerialHandle handle) {
    return handle == no_port || handle == vanished;
}

void kv_uart_reset() {
    Kv_UartDebug = 0;
    rts_state = 0;
    dtr_state = 0;
    vanished = no_port;
}

void SerialPort::close() {
    if (is_open()) {
        serial_close(handle_);
        handle_ = no_port;
    }
}

}  // namespace orbix
