// The native back end for Windows: a communications device, read and written synchronously.
#include <windows.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "platform/platform.h"

namespace orbix::platform {

namespace {

/// The device path, its terminating zero included; a longer one is cut.
constexpr std::size_t longest_device_path = 32;

/// The ports of this process, so that one that is closed already is not closed again: its handle
/// may belong to something else by then.
std::array<Port, 8> open_ports = [] {
    std::array<Port, 8> none{};
    none.fill(no_port);
    return none;
}();

HANDLE handle_of(Port port) {
    return reinterpret_cast<HANDLE>(port);  // the seam's Port is an integer of a handle's size
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

bool read_settings(Port port, DCB& settings) {
    settings = {};
    settings.DCBlength = sizeof settings;
    return GetCommState(handle_of(port), &settings) != 0;
}

Port open_port(const char* name) {
    const auto slot = std::find(open_ports.begin(), open_ports.end(), no_port);
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
    const Port port = reinterpret_cast<Port>(handle);
    DCB settings;
    if (!read_settings(port, settings)) {
        CloseHandle(handle);
        errno = ENOTTY;  // a file or another device of that name
        return no_port;
    }
    *slot = port;
    return port;
}

int read_port(Port port, std::span<std::uint8_t> buffer, unsigned interval_ms, unsigned total_ms) {
    COMMTIMEOUTS timeouts{};
    timeouts.ReadIntervalTimeout = interval_ms;
    timeouts.ReadTotalTimeoutConstant = total_ms;
    if (SetCommTimeouts(handle_of(port), &timeouts) == 0) {
        return -1;
    }
    DWORD count = 0;
    if (ReadFile(handle_of(port), buffer.data(), static_cast<DWORD>(buffer.size()), &count,
                 nullptr) == 0) {
        return count > 0 ? static_cast<int>(count) : -1;
    }
    return static_cast<int>(count);
}

int write_port(Port port, std::span<const std::uint8_t> bytes) {
    DWORD count = 0;
    const bool written = WriteFile(handle_of(port), bytes.data(), static_cast<DWORD>(bytes.size()),
                                   &count, nullptr) != 0;
    return written || count > 0 ? static_cast<int>(count) : -1;
}

void discard_received(Port port) {
    // Writes are synchronous: there is nothing under way that the transmit flags could lose.
    PurgeComm(handle_of(port), PURGE_TXABORT | PURGE_RXABORT | PURGE_TXCLEAR | PURGE_RXCLEAR);
}

bool get_settings(Port port, LineSettings& settings) {
    DCB device;
    if (!read_settings(port, device)) {
        return false;
    }
    settings.baud = device.BaudRate;
    settings.parity = device.Parity == EVENPARITY ? Parity::even : Parity::none;
    settings.rts_control = device.fRtsControl == RTS_CONTROL_ENABLE;
    settings.dtr_control = device.fDtrControl == DTR_CONTROL_ENABLE;
    return true;
}

bool set_settings(Port port, const LineSettings& settings) {
    DCB device;
    if (!read_settings(port, device)) {
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
    return SetCommState(handle_of(port), &device) != 0;
}

bool set_modem_line(Port port, ModemLine line, bool on) {
    const DWORD function = line == ModemLine::rts ? (on ? SETRTS : CLRRTS) : (on ? SETDTR : CLRDTR);
    return EscapeCommFunction(handle_of(port), function) != 0;
}

void close_port(Port port) {
    const auto slot = std::find(open_ports.begin(), open_ports.end(), port);
    if (port != no_port && slot != open_ports.end()) {
        CloseHandle(handle_of(port));
        *slot = no_port;
    }
}

std::uint64_t now_ms() {
    static const std::uint64_t frequency = [] {
        LARGE_INTEGER ticks_a_second{};
        QueryPerformanceFrequency(&ticks_a_second);
        return static_cast<std::uint64_t>(ticks_a_second.QuadPart);
    }();
    LARGE_INTEGER ticks{};
    QueryPerformanceCounter(&ticks);
    const auto count = static_cast<std::uint64_t>(ticks.QuadPart);
    return count / frequency * 1000 + count % frequency * 1000 / frequency;
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

void sleep_us(std::uint64_t microseconds) {
    LARGE_INTEGER due{};
    due.QuadPart = -static_cast<LONGLONG>(microseconds * 10);  // relative, in 100 ns
    const HANDLE timer = precise_timer();
    if (timer != nullptr && SetWaitableTimer(timer, &due, 0, nullptr, nullptr, FALSE) != 0) {
        WaitForSingleObject(timer, INFINITE);
    } else {
        Sleep(static_cast<DWORD>((microseconds + 999) / 1000));
    }
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
