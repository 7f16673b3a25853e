// The native back end for Windows: a communications device, read and written synchronously.
#include <windows.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "platform/line_time.h"
#include "platform/platform.h"

namespace orbix::platform {

namespace {

/// The device path, its terminating zero included; a longer one is cut.
constexpr std::size_t longest_device_path = 32;

/// A handle that is open as a port, how its line is set, the time at which the line has carried the
/// last byte written to it, and whether that is still to be waited for.
struct OpenPort {
    Port port = no_port;
    DWORD baud = 0;
    bool parity = false;
    std::uint64_t line_free_ns = 0;
    bool sending = false;
};

/// The ports of this process. One that is closed already is not among them: its handle may belong
/// to something else by then.
std::array<OpenPort, 8> open_ports;

std::uint64_t now_ns() {
    static const std::uint64_t frequency = [] {
        LARGE_INTEGER ticks_a_second{};
        QueryPerformanceFrequency(&ticks_a_second);
        return static_cast<std::uint64_t>(ticks_a_second.QuadPart);
    }();
    LARGE_INTEGER ticks{};
    QueryPerformanceCounter(&ticks);
    const auto count = static_cast<std::uint64_t>(ticks.QuadPart);
    return count / frequency * second + count % frequency * second / frequency;
}

/// A timer that is not bound to the system's tick of 15 ms, where the system has one; otherwise the
/// tick is set to 1 ms for as long as the program runs.
HANDLE precise_timer() {
    static const HANDLE timer = [] {
        constexpr DWORD high_resolution = 0x00000002;  // CREATE_WAITABLE_TIMER_HIGH_RESOLUTION
        HANDLE created =
            CreateWaitableTimerExW(nullptr, nullptr, high_resolution, TIMER_ALL_ACCESS);
        if (created == nullptr) {
            timeBeginPeriod(1);
            created = CreateWaitableTimerExW(nullptr, nullptr, 0, TIMER_ALL_ACCESS);
        }
        return created;
    }();
    return timer;
}

void sleep_ns(std::uint64_t nanoseconds) {
    LARGE_INTEGER due{};
    due.QuadPart = -static_cast<LONGLONG>((nanoseconds + 99) / 100);  // relative, in 100 ns
    const HANDLE timer = precise_timer();
    if (timer != nullptr && SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE) != 0) {
        WaitForSingleObject(timer, INFINITE);
    } else {
        Sleep(static_cast<DWORD>((nanoseconds + millisecond - 1) / millisecond));
    }
}

OpenPort* find_port(Port port) {
    const auto found = std::find_if(
        open_ports.begin(), open_ports.end(),
        [port](const OpenPort& open) { return open.port != no_port && open.port == port; });
    return found != open_ports.end() ? found : nullptr;
}

HANDLE handle_of(Port port) {
    return reinterpret_cast<HANDLE>(port);  // the seam's Port is an integer of a handle's size
}

/// Waits until the line has carried what was written: a write is done as soon as the driver has the
/// bytes, and the queues of a UART or a USB adapter may hold them still.
void wait_until_sent(OpenPort& open) {
    if (!open.sending) {
        return;
    }
    open.sending = false;
    for (std::uint64_t now = now_ns(); now < open.line_free_ns; now = now_ns()) {
        sleep_ns(open.line_free_ns - now);
    }
}

/// The handle of a port whose bytes have all been sent.
HANDLE idle_handle(Port port) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return INVALID_HANDLE_VALUE;
    }
    wait_until_sent(*open);
    return handle_of(port);
}

void wait_until_all_is_sent() {
    for (OpenPort& open : open_ports) {
        wait_until_sent(open);
    }
}

void send_all_before_the_process_ends() {
    static const bool once = std::atexit(wait_until_all_is_sent) == 0;
    static_cast<void>(once);
}

/// What the families print as the reason comes from `errno`.
int errno_of(DWORD error) {
    switch (error) {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
        case ERROR_INVALID_NAME:
            return ENOENT;
        case ERROR_ACCESS_DENIED:
        case ERROR_SHARING_VIOLATION:
            return EBUSY;  // a port that another program holds is refused as "access denied"
        default:
            return EIO;
    }
}

bool read_settings(HANDLE handle, DCB& settings) {
    settings = {};
    settings.DCBlength = sizeof settings;
    return GetCommState(handle, &settings) != 0;
}

/// Takes note of how the line is set, so that a write need not ask.
void remember_line(OpenPort& open, const DCB& settings) {
    open.baud = settings.BaudRate;
    open.parity = settings.Parity != NOPARITY;
}

Port open_port(const char* name) {
    OpenPort* slot = std::find_if(open_ports.begin(), open_ports.end(),
                                  [](const OpenPort& open) { return open.port == no_port; });
    if (slot == open_ports.end()) {
        errno = EMFILE;
        return no_port;
    }
    // The prefix reaches ports above COM9 too.
    std::array<char, longest_device_path> path{};
    std::snprintf(path.data(), path.size(), "\\\\.\\%.27s", name);
    const HANDLE handle = CreateFileA(path.data(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        errno = errno_of(GetLastError());
        return no_port;
    }
    // The device keeps the time-outs of the program that had it before. Without any, a write blocks
    // until it is done; each read sets its own.
    COMMTIMEOUTS no_timeouts{};
    DCB settings;
    if (!read_settings(handle, settings) || SetCommTimeouts(handle, &no_timeouts) == 0) {
        CloseHandle(handle);
        errno = ENOTTY;  // a file or another device of that name
        return no_port;
    }
    send_all_before_the_process_ends();
    *slot = {};
    slot->port = reinterpret_cast<Port>(handle);
    remember_line(*slot, settings);
    return slot->port;
}

/// The device counts the total time-out from the call. As it is to begin when the line is free,
/// what the bytes under way still take comes on top; a wait for them before would end late by its
/// timer.
int read_port(Port port, std::span<std::uint8_t> buffer, unsigned interval_ms, unsigned total_ms) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return -1;
    }
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = interval_ms;
    timeouts.ReadTotalTimeoutConstant = total_ms;
    if (open->sending && total_ms != 0) {
        timeouts.ReadTotalTimeoutConstant += rest_ms(open->line_free_ns, now_ns());
    }
    if (SetCommTimeouts(handle_of(port), &timeouts) == 0) {
        return -1;
    }
    DWORD count = 0;
    const bool done = ReadFile(handle_of(port), buffer.data(), static_cast<DWORD>(buffer.size()),
                               &count, nullptr) != 0;
    wait_until_sent(*open);  // an answer ahead of its time does not bring the rest forward
    return done || count > 0 ? static_cast<int>(count) : -1;
}

/// Takes note of what the line is busy with now. The wait for it is a part of the write, but after
/// a few bytes it is left to whatever is done next: a read, which is what follows a short command,
/// then waits once, for the answer, instead of being woken before by a timer that is late.
void begin_sending(OpenPort& open, std::size_t bytes, std::uint64_t started) {
    const std::uint64_t line_time = line_time_ns(bytes, open.baud, open.parity);
    open.line_free_ns = std::max(open.line_free_ns, started) + line_time;
    open.sending = true;
    if (line_time > short_write) {
        wait_until_sent(open);
    }
}

int write_port(Port port, std::span<const std::uint8_t> bytes) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return -1;
    }
    wait_until_sent(*open);
    const std::uint64_t started = now_ns();
    DWORD count = 0;
    const bool written = WriteFile(handle_of(port), bytes.data(), static_cast<DWORD>(bytes.size()),
                                   &count, nullptr) != 0;
    if (!written && count == 0) {
        return -1;
    }
    begin_sending(*open, count, started);
    return static_cast<int>(count);
}

void discard_received(Port port) {
    // What was written has left: there is nothing under way that the transmit flags could lose.
    PurgeComm(idle_handle(port), PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR);
}

bool get_settings(Port port, LineSettings& settings) {
    DCB device;
    if (!read_settings(idle_handle(port), device)) {
        return false;
    }
    settings.baud = device.BaudRate;
    settings.parity = device.Parity == EVENPARITY ? Parity::even : Parity::none;
    settings.rts_control = device.fRtsControl == RTS_CONTROL_ENABLE;
    settings.dtr_control = device.fDtrControl == DTR_CONTROL_ENABLE;
    return true;
}

bool set_settings(Port port, const LineSettings& settings) {
    OpenPort* open = find_port(port);
    const HANDLE handle = idle_handle(port);
    DCB device;
    if (open == nullptr || !read_settings(handle, device)) {
        return false;
    }
    if (settings.baud > 0 && settings.baud <= INT_MAX) {
        device.BaudRate = settings.baud;
    }
    device.ByteSize = 8;
    device.StopBits = ONESTOPBIT;
    device.Parity = settings.parity == Parity::even ? EVENPARITY : NOPARITY;
    device.fRtsControl = settings.rts_control ? RTS_CONTROL_ENABLE : RTS_CONTROL_DISABLE;
    device.fDtrControl = settings.dtr_control ? DTR_CONTROL_ENABLE : DTR_CONTROL_DISABLE;
    device.fOutxCtsFlow = FALSE;
    device.fOutxDsrFlow = FALSE;
    device.fOutX = FALSE;
    device.fInX = FALSE;
    if (SetCommState(handle, &device) == 0) {
        return false;
    }
    remember_line(*open, device);
    return true;
}

bool set_modem_line(Port port, ModemLine line, bool on) {
    const DWORD function = line == ModemLine::rts ? (on ? SETRTS : CLRRTS) : (on ? SETDTR : CLRDTR);
    return EscapeCommFunction(idle_handle(port), function) != 0;
}

void close_port(Port port) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return;
    }
    wait_until_sent(*open);
    CloseHandle(handle_of(port));
    *open = {};
}

std::uint64_t now_ms() {
    wait_until_all_is_sent();
    return now_ns() / millisecond;
}

void sleep_us(std::uint64_t microseconds) {
    wait_until_all_is_sent();
    sleep_ns(microseconds * microsecond);
}

constexpr Backend win32_backend{
    .open = open_port,
    .read = read_port,
    .write = write_port,
    .discard_received = discard_received,
    .get_settings = get_settings,
    .set_settings = set_settings,
    .set_modem_line = set_modem_line,
    .close = close_port,
    .now_ms = now_ms,
    .sleep_us = sleep_us,
};

}  // namespace

void settle_standard_streams() {
    // The C runtime keeps the places of missing streams free.
}

const char* port_remedy(int error) {
    switch (error) {
        case ENOENT:
            return "there is no such port; the Device Manager lists them";
        case EBUSY:
            return "another program holds the port; close it";
        case ENOTTY:
            return "that is no serial port";
        default:
            return nullptr;
    }
}

const char* example_port() {
    return "COM6";
}

const char* manual() {
    return "README.md";
}

const Backend& native() {
    return win32_backend;
}

}  // namespace orbix::platform
