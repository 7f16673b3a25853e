#include "pty_host.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>

#include "line.h"
#include "terminal_rate.h"

namespace orbix::sim {

namespace {

/// A USB adapter hands on what it received in pieces of this size.
constexpr std::size_t adapter_packet = 64;

/// How often a closed port is looked at, and for how long it has to be closed until the module
/// restarts: a run that closes its port to open it again keeps its module.
constexpr Micros closed_poll = milliseconds(5);
constexpr Micros closed_restart = milliseconds(100);

volatile std::sig_atomic_t stop_requested = 0;

void request_stop(int /*signal_number*/) {
    stop_requested = 1;
}

Micros real_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<Micros>(now.tv_sec) * 1'000'000 + static_cast<Micros>(now.tv_nsec) / 1000;
}

/// The module's end of a pseudo-terminal.
class Master {
  public:
    Master() : descriptor_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC)) {
        termios raw{};
        usable_ = descriptor_ >= 0 && grantpt(descriptor_) == 0 && unlockpt(descriptor_) == 0 &&
                  tcgetattr(descriptor_, &raw) == 0;
        if (usable_) {
            cfmakeraw(&raw);
            tcsetattr(descriptor_, TCSANOW, &raw);
            // Only a terminal that was open once reports that it is closed; what a module says into
            // a closed port must not wait there for the tool.
            close(open(ptsname(descriptor_), O_RDWR | O_NOCTTY | O_CLOEXEC));
        }
    }
    ~Master() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    Master(const Master&) = delete;
    Master& operator=(const Master&) = delete;

    [[nodiscard]] bool usable() const { return usable_; }
    [[nodiscard]] int descriptor() const { return descriptor_; }
    [[nodiscard]] std::string port() const { return ptsname(descriptor_); }

    void write_all(std::span<const std::uint8_t> bytes) const {
        while (!bytes.empty()) {
            const ssize_t count = write(descriptor_, bytes.data(), bytes.size());
            if (count > 0) {
                bytes = bytes.subspan(static_cast<std::size_t>(count));
            } else if (errno == EAGAIN) {
                pollfd room{.fd = descriptor_, .events = POLLOUT, .revents = 0};
                if (poll(&room, 1, 100) <= 0) {
                    return;  // nobody reads: the bytes are lost, as on a wire
                }
            } else if (errno != EINTR) {
                return;
            }
        }
    }

  private:
    int descriptor_;
    bool usable_ = false;
};

/// A symbolic link that goes when the host does.
class Link {
  public:
    Link(std::string path, const std::string& port) : path_(std::move(path)) {
        if (!path_.empty()) {
            std::filesystem::remove(path_, error_);
            std::filesystem::create_symlink(port, path_, error_);
        }
    }
    ~Link() {
        if (!path_.empty() && !error_) {
            std::filesystem::remove(path_, error_);
        }
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    [[nodiscard]] const std::error_code& error() const { return error_; }

  private:
    std::string path_;
    std::error_code error_;
};

/// SIGINT and SIGTERM are held back except while the host waits.
class StopSignals {
  public:
    StopSignals() {
        sigset_t held{};
        sigemptyset(&held);
        sigaddset(&held, SIGINT);
        sigaddset(&held, SIGTERM);
        sigprocmask(SIG_BLOCK, &held, &while_waiting_);
        struct sigaction action {};
        action.sa_handler = request_stop;
        sigaction(SIGINT, &action, nullptr);
        sigaction(SIGTERM, &action, nullptr);
    }
    [[nodiscard]] const sigset_t* while_waiting() const { return &while_waiting_; }

  private:
    sigset_t while_waiting_{};
};

/// Waits for bytes of the tool until `deadline`. Returns the poll events, 0 on time-out.
int wait_for_tool(const Master& master, std::optional<Micros> deadline,
                  const StopSignals& signals) {
    pollfd entry{.fd = master.descriptor(), .events = POLLIN, .revents = 0};
    timespec left{};
    if (deadline) {
        const Micros now = real_now();
        const Micros wait = *deadline > now ? *deadline - now : 0;
        left = {static_cast<time_t>(wait / 1'000'000), static_cast<long>(wait % 1'000'000 * 1000)};
    }
    const int ready = ppoll(&entry, 1, deadline ? &left : nullptr, signals.while_waiting());
    return ready > 0 ? entry.revents : 0;
}

}  // namespace

int serve_on_pty(Model& model, const PtySettings& settings) {
    const StopSignals signals;
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    const Master master;
    if (!master.usable()) {
        std::fprintf(stderr, "orbix_sim: no pseudo-terminal: %s\n", std::strerror(errno));
        return 1;
    }
    const Link link(settings.link, master.port());
    if (link.error()) {
        std::fprintf(stderr, "orbix_sim: cannot make the link %s: %s\n", settings.link.c_str(),
                     link.error().message().c_str());
        return 1;
    }
    std::printf("%s\n", settings.link.empty() ? master.port().c_str() : settings.link.c_str());
    std::fflush(stdout);

    Line line(model, settings.faults,
              {.paced = settings.paced,
               .instant = settings.instant,
               .packet = adapter_packet,
               .traced = false,
               .seed = settings.seed},
              real_now());
    bool in_use = false;
    Micros last_open = real_now();
    while (stop_requested == 0 && !line.unplugged()) {
        const int events = wait_for_tool(master, line.next_event(), signals);
        const unsigned rate = terminal_rate(master.descriptor());
        line.set_host_rate(rate, model.even_parity);
        if ((events & POLLIN) != 0) {
            std::array<std::uint8_t, 4096> bytes{};
            const ssize_t count = read(master.descriptor(), bytes.data(), bytes.size());
            if (count > 0) {
                in_use = true;
                const auto sent = std::span(bytes).first(static_cast<std::size_t>(count));
                // When the bytes arrive is known now; the model may hear them ahead of time, its
                // answers wait in the line until theirs has come.
                line.run_until(line.send(sent, real_now()));
            }
        } else if ((events & POLLHUP) != 0) {
            if (in_use && real_now() - last_open > closed_restart) {
                in_use = false;
                line.power_cycle(real_now());
            }
            const timespec pause{0, static_cast<long>(closed_poll * 1000)};
            ppoll(nullptr, 0, &pause, signals.while_waiting());
            line.take_arrived(real_now());  // nobody hears them
            line.run_until(real_now());
            continue;
        }
        last_open = real_now();
        line.run_until(last_open);
        master.write_all(line.take_arrived(real_now()));
    }
    return 0;
}

}  // namespace orbix::sim
