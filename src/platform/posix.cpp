// The native back end for Linux: a terminal device in raw mode.
//
// The line settings go through the termios2 interface of the kernel (asm/termbits.h) instead of the
// C library's termios: it takes any rate that the driver accepts, and it lets even parity pass on a
// pseudo-terminal, where the C library reports EINVAL although the kernel has no complaint.
#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/line_time.h"
#include "platform/platform.h"

namespace orbix::platform {

namespace {

constexpr std::uint64_t never = UINT64_MAX;

/// A descriptor that is open as a port, the time at which the line has carried the last byte
/// written to it, and whether that is still to be waited for.
struct OpenPort {
    int descriptor = -1;
    std::uint64_t line_free_ns = 0;
    bool sending = false;
};

/// The ports of this process. Read by the signal handler, so it is a plain array.
std::array<OpenPort, 8> open_ports;

std::uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * second +
           static_cast<std::uint64_t>(now.tv_nsec);
}

timespec to_timespec(std::uint64_t nanoseconds) {
    return {static_cast<time_t>(nanoseconds / second), static_cast<long>(nanoseconds % second)};
}

/// A sleep whose end has passed already would still cost a turn of the scheduler.
void sleep_until_ns(std::uint64_t deadline) {
    if (now_ns() >= deadline) {
        return;
    }
    const timespec until = to_timespec(deadline);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

OpenPort* find_port(Port port) {
    const auto found = std::find_if(open_ports.begin(), open_ports.end(), [port](const auto& open) {
        return open.descriptor >= 0 && open.descriptor == port;
    });
    return found != open_ports.end() ? found : nullptr;
}

/// Waits for input, or for room to write, until the deadline. Returns whether it came; a device
/// that is gone counts, so that the read or write that follows finds out.
bool wait_for(int descriptor, short event, std::uint64_t deadline) {
    while (true) {
        pollfd entry{.fd = descriptor, .events = event, .revents = 0};
        const std::uint64_t now = now_ns();
        const timespec left = to_timespec(deadline > now ? deadline - now : 0);
        const int ready = ppoll(&entry, 1, deadline == never ? nullptr : &left, nullptr);
        if (ready >= 0) {
            return ready > 0;
        }
        if (errno != EINTR) {
            return false;
        }
    }
}

std::uint64_t line_time_at(int descriptor, std::size_t bytes) {
    termios2 settings{};
    if (ioctl(descriptor, TCGETS2, &settings) != 0) {
        return 0;
    }
    return line_time_ns(bytes, settings.c_ospeed, (settings.c_cflag & PARENB) != 0);
}

/// Waits until the line has carried what was written: for the time that the bytes take, because a
/// USB adapter has a queue of its own that the kernel does not see, and then until the kernel's
/// queue is empty. The queue's length is asked for instead of tcdrain, which rounds its wait up to
/// a timer tick.
void wait_until_sent(OpenPort& open) {
    if (!open.sending) {
        return;
    }
    open.sending = false;
    sleep_until_ns(open.line_free_ns);
    int queued = 0;
    while (ioctl(open.descriptor, TIOCOUTQ, &queued) == 0 && queued > 0) {
        const std::uint64_t left = line_time_at(open.descriptor, static_cast<std::size_t>(queued));
        sleep_until_ns(now_ns() + std::clamp(left, 50 * microsecond, 100 * millisecond));
    }
}

/// The descriptor of a port whose bytes have all been sent.
int idle_descriptor(Port port) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return -1;
    }
    wait_until_sent(*open);
    return open->descriptor;
}

void wait_until_all_is_sent() {
    for (OpenPort& open : open_ports) {
        wait_until_sent(open);
    }
}

/// Gives the terminal's exclusive flag back: another process may hold the same terminal open, and
/// the flag would outlive this one there.
void release_all_ports() {
    for (const OpenPort& open : open_ports) {
        if (open.descriptor >= 0) {
            ioctl(open.descriptor, TIOCNXCL);
        }
    }
}

void release_and_die(int signal_number) {
    release_all_ports();
    std::signal(signal_number, SIG_DFL);
    std::raise(signal_number);
}

void release_ports_when_the_process_ends() {
    static const bool once = [] {
        std::atexit([] {
            wait_until_all_is_sent();
            release_all_ports();
        });
        for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction before {};
            sigaction(signal_number, nullptr, &before);
            if (before.sa_handler == SIG_DFL) {
                std::signal(signal_number, release_and_die);
            }
        }
        // Sleeps of one millisecond that last one millisecond.
        prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
        return true;
    }();
    static_cast<void>(once);
}

/// A port name as typed, or in /dev when it has no slash and does not exist as typed.
std::string device_path(const char* name) {
    std::string path = name;
    if (path.find('/') == std::string::npos && access(name, F_OK) != 0) {
        return "/dev/" + path;
    }
    return path;
}

/// Raw: no echo, no line editing, no translation, no flow control, 8 data bits, 1 stop bit. Every
/// read returns at once with what is there.
bool make_raw(int descriptor) {
    termios2 settings{};
    if (ioctl(descriptor, TCGETS2, &settings) != 0) {
        return false;
    }
    settings.c_iflag = IGNBRK;
    settings.c_oflag = 0;
    settings.c_lflag = 0;
    settings.c_cflag &= ~static_cast<tcflag_t>(CSIZE | CSTOPB | PARENB | PARODD | CMSPAR | CRTSCTS);
    settings.c_cflag |= CS8 | CREAD | CLOCAL;
    settings.c_cc[VMIN] = 1;
    settings.c_cc[VTIME] = 0;
    return ioctl(descriptor, TCSETS2, &settings) == 0;
}

/// USB adapters gather received bytes for up to 16 ms before they hand them on; where the driver
/// can be asked not to, it is.
void ask_for_low_latency(int descriptor) {
    serial_struct adapter{};
    if (ioctl(descriptor, TIOCGSERIAL, &adapter) == 0) {
        adapter.flags |= ASYNC_LOW_LATENCY;
        ioctl(descriptor, TIOCSSERIAL, &adapter);
    }
}

/// Takes the device for this process alone: by a file lock and by the terminal's own flag, because
/// other programs honour one or the other. Both are had before the line is touched.
bool hold_exclusively(int descriptor) {
    if (flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        errno = EBUSY;
        return false;
    }
    return ioctl(descriptor, TIOCEXCL) == 0;
}

Port open_port(const char* name) {
    OpenPort* slot = std::find_if(open_ports.begin(), open_ports.end(),
                                  [](const auto& open) { return open.descriptor < 0; });
    if (slot == open_ports.end()) {
        errno = EMFILE;
        return no_port;
    }
    const std::string path = device_path(name);
    const int descriptor = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        return no_port;
    }
    if (isatty(descriptor) == 0 || !hold_exclusively(descriptor) || !make_raw(descriptor)) {
        const int reason = errno;
        close(descriptor);
        errno = reason;
        return no_port;
    }
    release_ports_when_the_process_ends();
    ask_for_low_latency(descriptor);
    *slot = {.descriptor = descriptor, .line_free_ns = 0};
    return descriptor;
}

/// Reads as the seam wants it, with times that begin when the line is free.
int read_until_quiet(int descriptor, std::span<std::uint8_t> buffer, unsigned interval_ms,
                     unsigned total_ms, std::uint64_t line_free) {
    const std::uint64_t begun = std::max(now_ns(), line_free);
    const std::uint64_t end = total_ms == 0 ? never : begun + total_ms * millisecond;
    std::uint64_t deadline = end;
    std::size_t received = 0;
    while (received < buffer.size()) {
        const ssize_t count = read(descriptor, &buffer[received], buffer.size() - received);
        if (count > 0) {
            received += static_cast<std::size_t>(count);
            if (interval_ms != 0) {
                deadline = std::min(end, std::max(now_ns(), begun) + interval_ms * millisecond);
            }
            continue;
        }
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
            return received > 0 ? static_cast<int>(received) : -1;
        }
        if (!wait_for(descriptor, POLLIN, deadline)) {
            break;
        }
    }
    return static_cast<int>(received);
}

int read_port(Port port, std::span<std::uint8_t> buffer, unsigned interval_ms, unsigned total_ms) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return -1;
    }
    const int count = read_until_quiet(open->descriptor, buffer, interval_ms, total_ms,
                                       open->sending ? open->line_free_ns : 0);
    wait_until_sent(*open);  // an answer ahead of its time does not bring the rest forward
    return count;
}

/// Takes note of what the line is busy with now. The wait for it is a part of the write, but after
/// a few bytes it is left to whatever is done next: a read, which is what follows a short command,
/// then waits once, for the answer, instead of being woken before by a timer that is late.
void begin_sending(OpenPort& open, std::size_t bytes, std::uint64_t started) {
    const std::uint64_t line_time = line_time_at(open.descriptor, bytes);
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
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = write(open->descriptor, &bytes[written], bytes.size() - written);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
            continue;
        }
        if (errno != EAGAIN && errno != EINTR) {
            break;
        }
        wait_for(open->descriptor, POLLOUT, never);
    }
    if (written == 0 && !bytes.empty()) {
        return -1;
    }
    begin_sending(*open, written, started);
    return static_cast<int>(written);
}

void discard_received(Port port) {
    ioctl(idle_descriptor(port), TCFLSH, TCIFLUSH);
}

bool get_settings(Port port, LineSettings& settings) {
    const int descriptor = idle_descriptor(port);
    termios2 current_settings{};
    if (ioctl(descriptor, TCGETS2, &current_settings) != 0) {
        return false;
    }
    settings.baud = current_settings.c_ospeed;
    settings.parity = (current_settings.c_cflag & PARENB) != 0 ? Parity::even : Parity::none;
    int lines = 0;
    if (ioctl(descriptor, TIOCMGET, &lines) != 0) {
        lines = 0;  // a pseudo-terminal has none
    }
    settings.rts_control = (lines & TIOCM_RTS) != 0;
    settings.dtr_control = (lines & TIOCM_DTR) != 0;
    return true;
}

bool set_rate_and_parity(int descriptor, const LineSettings& wanted) {
    termios2 settings{};
    if (ioctl(descriptor, TCGETS2, &settings) != 0) {
        return false;
    }
    settings.c_cflag &= ~static_cast<tcflag_t>(PARENB | PARODD | CMSPAR);
    if (wanted.parity == Parity::even) {
        settings.c_cflag |= PARENB;
    }
    // A rate of 0 would hang the line up; it is left as it is instead.
    const bool rate_given = wanted.baud > 0 && wanted.baud <= INT_MAX;
    if (rate_given) {
        settings.c_cflag &= ~static_cast<tcflag_t>(CBAUD | CIBAUD);
        settings.c_cflag |= BOTHER;
        settings.c_ospeed = wanted.baud;
        settings.c_ispeed = wanted.baud;
    }
    if (ioctl(descriptor, TCSETS2, &settings) != 0) {
        return false;
    }
    // A driver that cannot do a rate picks another and reports success. More than 3 % off, no byte
    // survives.
    termios2 got{};
    if (!rate_given || ioctl(descriptor, TCGETS2, &got) != 0) {
        return true;
    }
    const std::uint64_t off =
        got.c_ospeed > wanted.baud ? got.c_ospeed - wanted.baud : wanted.baud - got.c_ospeed;
    return off * 100 <= std::uint64_t{wanted.baud} * 3;
}

bool set_line_state(int descriptor, int line, bool on) {
    return ioctl(descriptor, on ? TIOCMBIS : TIOCMBIC, &line) == 0;
}

bool set_settings(Port port, const LineSettings& settings) {
    const int descriptor = idle_descriptor(port);
    // Without fields of their own here, RTS and DTR control are the lines themselves. A
    // pseudo-terminal has no lines; that is no failure of the settings.
    set_line_state(descriptor, TIOCM_RTS, settings.rts_control);
    set_line_state(descriptor, TIOCM_DTR, settings.dtr_control);
    return set_rate_and_parity(descriptor, settings);
}

bool set_modem_line(Port port, ModemLine line, bool on) {
    return set_line_state(idle_descriptor(port), line == ModemLine::rts ? TIOCM_RTS : TIOCM_DTR,
                          on);
}

void close_port(Port port) {
    OpenPort* open = find_port(port);
    if (open == nullptr) {
        return;
    }
    wait_until_sent(*open);
    ioctl(open->descriptor, TIOCNXCL);
    close(open->descriptor);
    *open = {};
}

std::uint64_t now_ms() {
    wait_until_all_is_sent();
    return now_ns() / millisecond;
}

void sleep_us(std::uint64_t microseconds) {
    wait_until_all_is_sent();
    sleep_until_ns(now_ns() + microseconds * microsecond);
}

constexpr Backend posix_backend{
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
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(stream, F_GETFD) == -1) {
            static_cast<void>(open("/dev/null", O_RDWR));  // takes the lowest free number: this one
        }
    }
}

const char* port_remedy(int error) {
    switch (error) {
        case ENOENT:
        case ENODEV:
        case ENXIO:
            return "there is no such port; see ls /dev/ttyUSB* /dev/ttyACM* /dev/ttyS*";
        case EBUSY:
            return "another program holds the port; fuser -v PORT names it";
        case EACCES:
        case EPERM:
            return "you may not use the port; sudo usermod -a -G dialout $USER, and log in again";
        case ENOTTY:
        case EINVAL:
        case EISDIR:
            return "that is no serial port";
        default:
            return nullptr;
    }
}

const char* example_port() {
    return "/dev/ttyUSB0";
}

const char* manual() {
    return "man orbix_flash";
}

const Backend& native() {
    return posix_backend;
}

}  // namespace orbix::platform
