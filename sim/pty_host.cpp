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
#include <deque>
#include <filesystem>
#include <optional>
#include <vector>

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

/// How late a timer wakes the process, most of the time.
constexpr Micros late_timer = 60;

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

/// A symbolic link that goes when the host does. It takes the place of another link, but of nothing
/// else.
class Link {
  public:
    Link(std::string path, std::string port) : path_(std::move(path)), port_(std::move(port)) {
        if (!path_.empty()) {
            if (std::filesystem::is_symlink(path_, error_)) {
                std::filesystem::remove(path_, error_);
            }
            std::filesystem::create_symlink(port_, path_, error_);
        }
    }
    ~Link() {
        std::error_code none;
        if (!path_.empty() && !error_ && std::filesystem::read_symlink(path_, none) == port_) {
            std::filesystem::remove(path_, none);
        }
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    [[nodiscard]] const std::error_code& error() const { return error_; }

  private:
    std::string path_;
    std::string port_;
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

/// Waits for bytes of a tool until the deadline, with the ports that are to be looked at in
/// `entries`. A timer wakes a process some ten microseconds late, which a dialogue of many short
/// exchanges would feel: the very end of the wait is spent looking.
void wait_for_tools(std::vector<pollfd>& entries, std::optional<Micros> deadline,
                    const StopSignals& signals) {
    const auto wait = [&entries, &signals](const timespec* limit) {
        return ppoll(entries.data(), entries.size(), limit, signals.while_waiting());
    };
    if (!deadline) {
        wait(nullptr);
        return;
    }
    Micros now = real_now();
    if (*deadline > now + late_timer) {
        const Micros left = *deadline - now - late_timer;
        const timespec limit{static_cast<time_t>(left / 1'000'000),
                             static_cast<long>(left % 1'000'000 * 1000)};
        if (wait(&limit) != 0) {
            return;
        }
    }
    const timespec at_once{};
    while (wait(&at_once) == 0 && real_now() < *deadline) {
    }
}

/// One module on a pseudo-terminal of its own.
class Served {
  public:
    Served(Model& model, const PtySettings& settings, const std::string& link, std::uint64_t seed)
        : model_(model),
          master_(std::in_place),
          link_(link, master_->usable() ? master_->port() : ""),
          port_(link.empty() && master_->usable() ? master_->port() : link),
          line_(model, settings.faults,
                {.paced = settings.paced,
                 .instant = settings.instant,
                 .packet = adapter_packet,
                 .traced = false,
                 .seed = seed},
                real_now()) {}

    [[nodiscard]] bool usable() const { return master_->usable(); }
    [[nodiscard]] const Link& link() const { return link_; }
    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] bool unplugged() const { return line_.unplugged(); }

    /// The port, to be waited at; not while it is closed and its next look is not due, since a
    /// closed port never lets anybody wait.
    [[nodiscard]] pollfd entry(Micros now) const {
        const bool watched = !unplugged() && (!closed_ || now >= next_look_);
        return {.fd = watched ? master_->descriptor() : -1, .events = POLLIN, .revents = 0};
    }

    /// When `serve` is due even if no byte comes.
    [[nodiscard]] std::optional<Micros> next_event() const {
        if (unplugged()) {
            return std::nullopt;
        }
        return closed_ ? next_look_ : line_.next_event();
    }

    /// Takes what the tool has sent, if the port's events tell so, and hands over what is due.
    void serve(int events) {
        if ((events & (POLLIN | POLLHUP)) == POLLHUP) {
            wait_closed();
            return;
        }
        closed_ = false;
        line_.set_host_rate(terminal_rate(master_->descriptor()), model_.even_parity);
        if ((events & POLLIN) != 0) {
            take_sent();
        }
        last_open_ = real_now();
        line_.run_until(last_open_);
        master_->write_all(line_.take_arrived(real_now()));
        if (unplugged()) {
            master_.reset();  // the tool sees the device vanish
        }
    }

  private:
    void take_sent() {
        std::array<std::uint8_t, 4096> bytes{};
        const ssize_t count = read(master_->descriptor(), bytes.data(), bytes.size());
        if (count > 0) {
            in_use_ = true;
            const auto sent = std::span(bytes).first(static_cast<std::size_t>(count));
            // When the bytes arrive is known now; the model may hear them ahead of time, its
            // answers wait in the line until theirs has come.
            line_.run_until(line_.send(sent, real_now()));
        }
    }

    void wait_closed() {
        const Micros now = real_now();
        closed_ = true;
        if (in_use_ && now - last_open_ > closed_restart) {
            in_use_ = false;
            line_.power_cycle(now);
        }
        line_.run_until(now);
        line_.take_arrived(now);  // nobody hears them
        next_look_ = now + closed_poll;
        if (unplugged()) {
            master_.reset();
        }
    }

    Model& model_;
    std::optional<Master> master_;
    Link link_;
    std::string port_;
    Line line_;
    bool in_use_ = false;
    bool closed_ = false;
    Micros last_open_ = 0;  ///< when something happened at the open port
    Micros next_look_ = 0;  ///< at the closed one
};

/// Whether all have their ports and links; otherwise a line on standard error tells why.
bool ready(const std::deque<Served>& modules) {
    for (const Served& module : modules) {
        if (!module.usable()) {
            std::fprintf(stderr, "orbix_sim: no pseudo-terminal: %s\n", std::strerror(errno));
            return false;
        }
        if (module.link().error()) {
            std::fprintf(stderr, "orbix_sim: cannot make the link %s: %s\n", module.port().c_str(),
                         module.link().error().message().c_str());
            return false;
        }
    }
    return true;
}

std::optional<Micros> next_event(const std::deque<Served>& modules) {
    std::optional<Micros> next;
    for (const Served& module : modules) {
        const auto event = module.next_event();
        next = event && next ? std::min(*event, *next) : event ? event : next;
    }
    return next;
}

}  // namespace

int serve_on_pty(std::span<const std::unique_ptr<Model>> models, const PtySettings& settings) {
    const StopSignals signals;
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::deque<Served> modules;
    for (std::size_t number = 0; number < models.size(); ++number) {
        const bool named = settings.link.empty() || models.size() == 1;
        const std::string link = settings.link + (named ? "" : "." + std::to_string(number + 1));
        modules.emplace_back(*models[number], settings, link, settings.seed + number);
    }
    if (!ready(modules)) {
        return 1;
    }
    for (const Served& module : modules) {
        std::printf("%s\n", module.port().c_str());
    }
    std::fflush(stdout);

    std::vector<pollfd> entries(modules.size());
    const auto any_plugged = [&modules] {
        return !std::ranges::all_of(modules, &Served::unplugged);
    };
    while (stop_requested == 0 && any_plugged()) {
        const Micros now = real_now();
        std::ranges::transform(modules, entries.begin(),
                               [now](const Served& module) { return module.entry(now); });
        wait_for_tools(entries, next_event(modules), signals);
        const Micros woken = real_now();
        for (std::size_t number = 0; number < modules.size(); ++number) {
            Served& module = modules[number];
            const std::optional<Micros> event = module.next_event();
            const bool due = event && *event <= woken;
            if (entries[number].fd >= 0 && (due || entries[number].revents != 0)) {
                module.serve(entries[number].revents);
            }
        }
    }
    return 0;
}

}  // namespace orbix::sim
