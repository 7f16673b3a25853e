#include "virtual_port.h"

#include <algorithm>
#include <cerrno>

namespace orbix::sim {

namespace {

constexpr platform::Port the_port = 42;
constexpr Micros for_ever = UINT64_MAX;

/// A dialogue that asks the port this often without time passing is stuck.
constexpr int most_idle_calls = 100'000;

VirtualPort* active = nullptr;

}  // namespace

struct VirtualPort::Access {
    static platform::Port open(const char* name) {
        VirtualPort& port = *active;
        const int number = port.opens++;
        if (port.settings_.open_error != 0) {
            errno = port.settings_.open_error;
            return platform::no_port;
        }
        if (name != port.settings_.name) {
            errno = ENOENT;
            return platform::no_port;
        }
        if (port.line_.unplugged() || port.settings_.failing_open == number) {
            errno = ENODEV;
            return platform::no_port;
        }
        port.open = true;
        port.received_.clear();
        return the_port;
    }

    static int read(platform::Port handle, std::span<std::uint8_t> buffer, unsigned interval_ms,
                    unsigned total_ms) {
        VirtualPort& port = *active;
        if (handle != the_port || !port.open) {
            return -1;
        }
        const Micros end = total_ms == 0 ? for_ever : port.now + milliseconds(total_ms);
        Micros deadline = end;
        std::size_t count = 0;
        while (true) {
            const std::size_t before = count;
            while (count < buffer.size() && !port.received_.empty()) {
                buffer[count++] = port.received_.front();
                port.received_.pop_front();
            }
            if (count == buffer.size()) {
                break;
            }
            if (port.line_.unplugged()) {
                return count > 0 ? static_cast<int>(count) : -1;
            }
            if (count > before && interval_ms != 0) {
                deadline = std::min(end, port.now + milliseconds(interval_ms));
            }
            if (port.now >= deadline) {
                break;
            }
            port.advance(std::min(deadline, port.line_.next_event().value_or(for_ever)));
        }
        return static_cast<int>(count);
    }

    static int write(platform::Port handle, std::span<const std::uint8_t> bytes) {
        VirtualPort& port = *active;
        if (port.writes++ == port.settings_.failing_write) {
            return 0;
        }
        if (handle != the_port || !port.open || port.line_.unplugged()) {
            port.advance(port.now);
            return -1;
        }
        port.advance(port.line_.send(bytes, port.now));
        return static_cast<int>(bytes.size());
    }

    static void discard_received(platform::Port /*handle*/) {
        active->advance(active->now);
        active->received_.clear();
        ++active->discards;
    }

    static bool get_settings(platform::Port handle, platform::LineSettings& settings) {
        if (handle != the_port || !active->open || !active->settings_.settings_readable) {
            return false;
        }
        settings = active->line_settings;
        return true;
    }

    static bool set_settings(platform::Port handle, const platform::LineSettings& settings) {
        VirtualPort& port = *active;
        if (handle != the_port || !port.open || !port.settings_.settings_writable) {
            return false;
        }
        const bool rate_given = static_cast<int>(settings.baud) > 0;
        const unsigned baud = rate_given ? settings.baud : port.line_settings.baud;
        port.line_settings = settings;
        port.line_settings.baud = baud;
        port.settings_written.push_back(settings);
        port.line_.set_host_rate(baud, settings.parity == platform::Parity::even);
        return true;
    }

    static bool set_modem_line(platform::Port /*handle*/, platform::ModemLine line, bool on) {
        active->modem_events.push_back({line, on});
        return true;
    }

    static void close(platform::Port /*handle*/) {
        ++active->closes;
        active->open = false;
    }

    static std::uint64_t now_ms() { return active->now / 1000; }

    static void sleep_us(std::uint64_t microseconds) {
        active->advance(active->now + microseconds);
    }

    static constexpr platform::Backend backend{
        .open = open,
        .read = read,
        .write = write,
        .discard_received = discard_received,
        .get_settings = get_settings,
        .set_settings = set_settings,
        .set_modem_line = set_modem_line,
        .close = close,
        .now_ms = now_ms,
        .sleep_us = sleep_us,
    };
};

VirtualPort::VirtualPort(Line& line, Settings settings)
    : line_(line), settings_(std::move(settings)) {
    line_settings.baud = 9600;
    active = this;
    platform::use(Access::backend);
}

VirtualPort::~VirtualPort() {
    active = nullptr;
    platform::use(platform::native());
}

void VirtualPort::advance(Micros until) {
    if (until > start + settings_.limit) {
        throw TimeLimitReached("the run went on past its time limit");
    }
    idle_calls_ = until > now ? 0 : idle_calls_ + 1;
    if (idle_calls_ > most_idle_calls) {
        throw TimeLimitReached("the run spins without time passing");
    }
    line_.run_until(until);
    now = std::max(now, until);
    const auto arrived = line_.take_arrived(now);
    received_.insert(received_.end(), arrived.begin(), arrived.end());
}

}  // namespace orbix::sim
