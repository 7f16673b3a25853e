#include "peers.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace orbix::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t loader_header_size = 36;

/// The value behind an option.
std::string value_of(const Arguments& arguments, const std::string& option) {
    return *std::next(std::ranges::find(arguments, option));
}

// --- sx of lrzsz: the two XMODEM-1K transfers of an RX7040 download ------------------------------

/// A port in raw mode, with just what the words around the transfers need.
class Port {
  public:
    explicit Port(const std::string& name) : descriptor_(open(name.c_str(), O_RDWR | O_NOCTTY)) {
        termios raw{};
        tcgetattr(descriptor_, &raw);
        cfmakeraw(&raw);
        tcsetattr(descriptor_, TCSANOW, &raw);
    }
    ~Port() { close(descriptor_); }
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }

    void set_rate(speed_t rate) const {
        termios settings{};
        tcgetattr(descriptor_, &settings);
        cfsetspeed(&settings, rate);
        tcsetattr(descriptor_, TCSANOW, &settings);
    }

    /// Says the words again and again until an answer contains what is expected.
    [[nodiscard]] bool call(const std::string& words, const std::string& expected,
                            int patience_ms) const {
        for (int attempt = 0; attempt < 100; ++attempt) {
            if (write(descriptor_, words.data(), words.size()) < 0) {
                return false;
            }
            if (hear(expected, patience_ms)) {
                return true;
            }
        }
        return false;
    }

    /// Whether the expected text arrives, with no silence longer than that before it.
    [[nodiscard]] bool hear(const std::string& expected, int patience_ms) const {
        std::string heard;
        pollfd entry{.fd = descriptor_, .events = POLLIN, .revents = 0};
        while (heard.find(expected) == std::string::npos) {
            std::array<char, 256> bytes{};
            if (poll(&entry, 1, patience_ms) <= 0) {
                return false;
            }
            const ssize_t count = read(descriptor_, bytes.data(), bytes.size());
            if (count <= 0) {
                return false;
            }
            heard.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return true;
    }

  private:
    int descriptor_;
};

/// Sends a file by XMODEM-1K, the port as its standard input and output.
bool send_by_xmodem(const std::string& program, const Port& port, const std::string& file,
                    const std::string& folder) {
    return run_side_by_side({{program, "-q", "-k", file}}, folder, port.descriptor())
               .front()
               .status == 0;
}

Measured sx_download(const Peer& peer, const std::string& port_name, unsigned /*rate*/,
                     const Arguments& arguments, const std::string& folder) {
    const std::string code = folder + "/loader_code";
    std::ofstream(code, std::ios::binary)
        << sim::read_text(value_of(arguments, "-L")).substr(loader_header_size);
    Measured measured;
    const auto begun = Clock::now();
    const Port port(port_name);
    port.set_rate(B115200);
    bool going = port.call("DLS", "CCC", 10);
    going = going && send_by_xmodem(peer.program, port, code, folder);
    port.set_rate(B460800);
    going = going && port.call("xmodem pkg\r\n", "Waiting for XMODEM transfer", 20);
    going = going && send_by_xmodem(peer.program, port, value_of(arguments, "-f"), folder);
    going = going && port.hear("success", 30'000);
    measured.seconds = std::chrono::duration<double>(Clock::now() - begun).count();
    measured.status = going ? 0 : 1;
    return measured;
}

// --- stm32flash: the download through the ROM boot loader of a ZPX710P ---------------------------

/// A pseudo-terminal takes no parity, so the peer is told of none: the simulated line takes the
/// time of the parity bit all the same. Pages are erased as the tool does, only those that the
/// image needs; the frames hold `data_size` bytes.
Measured stm32flash_download(const Peer& peer, const std::string& port, unsigned rate,
                             const Arguments& arguments, const std::string& folder,
                             const std::string& frame) {
    Command command{
        peer.program, "-m", "8n1", "-b", std::to_string(rate), "-w", value_of(arguments, "-f")};
    if (!frame.empty()) {
        command.insert(command.end(), {"-F", frame});
    }
    command.push_back(port);
    return run_side_by_side({command}, folder).front();
}

/// The tool has every page erased by a command of its own: two bytes, the page's number in three,
/// and an acknowledgement for each. The peer names all pages in one command, with two bytes for
/// each and seven around them. In return it asks the loader for its version, its commands and the
/// controller.
std::size_t more_bytes_than_stm32flash(std::size_t size) {
    constexpr std::size_t page_size = 2048;
    constexpr std::size_t bytes_of_its_questions = 26;
    const std::size_t pages = (size + page_size - 1) / page_size;
    return 7 * pages - (7 + 2 * pages) - bytes_of_its_questions;
}

std::size_t none(std::size_t /*size*/) {
    return 0;
}

const std::vector<Peer> known_peers{
    {"lrzsz sx -k", "/usr/bin/sx", "RX7040 download", {460800}, true, none, sx_download},
    {"stm32flash, blocks of 240",
     "/usr/bin/stm32flash",
     "ZPX710P download",
     {115200, 921600},
     true,
     more_bytes_than_stm32flash,
     [](const Peer& peer, const std::string& port, unsigned rate, const Arguments& arguments,
        const std::string& folder) {
         return stm32flash_download(peer, port, rate, arguments, folder, "256:242");
     }},
    {"stm32flash, blocks of 256",
     "/usr/bin/stm32flash",
     "ZPX710P download",
     {921600},
     false,
     more_bytes_than_stm32flash,
     [](const Peer& peer, const std::string& port, unsigned rate, const Arguments& arguments,
        const std::string& folder) {
         return stm32flash_download(peer, port, rate, arguments, folder, "");
     }},
};

}  // namespace

std::vector<Peer> installed_peers() {
    std::vector<Peer> installed;
    std::ranges::copy_if(known_peers, std::back_inserter(installed),
                         [](const Peer& peer) { return std::filesystem::exists(peer.program); });
    return installed;
}

}  // namespace orbix::bench
