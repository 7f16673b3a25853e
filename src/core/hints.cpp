#include "core/hints.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "platform/platform.h"

namespace orbix::hints {

namespace {

/// How much of what arrived is looked at, and how much of it is shown.
constexpr std::size_t sample_size = 256;
constexpr std::size_t bytes_shown = 8;
constexpr std::size_t letters_shown = 32;

/// What arrived while the first answer was awaited.
struct Arrivals {
    bool awaited = false;
    unsigned count = 0;
    std::array<std::uint8_t, sample_size> first{};

    [[nodiscard]] std::span<const std::uint8_t> sample() const {
        return std::span(first).first(std::min<std::size_t>(count, first.size()));
    }
};

Arrivals arrivals;

bool is_text(std::uint8_t byte) {
    return (byte >= 0x20 && byte < 0x7F) || byte == '\r' || byte == '\n';
}

/// Two UARTs that disagree about the rate make long runs of equal bits of each other's bytes, and
/// bytes with the top bit set, which commands and sentences hardly have.
bool is_rate_garbage(std::uint8_t byte) {
    return byte == 0x00 || byte >= 0x80;
}

/// The first line of text in the sample, or as much of it as is shown.
std::string first_line(std::span<const std::uint8_t> sample) {
    const auto is_end = [](std::uint8_t byte) { return byte < 0x20 || byte >= 0x7F; };
    const auto begin = std::find_if_not(sample.begin(), sample.end(), is_end);
    const auto end = std::find_if(begin, sample.end(), is_end);
    std::string line(begin, end);
    if (line.size() > letters_shown) {
        line = line.substr(0, letters_shown) + "...";
    }
    return line;
}

std::string first_bytes(std::span<const std::uint8_t> sample) {
    std::string text;
    for (const std::uint8_t byte : sample.first(std::min(sample.size(), bytes_shown))) {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", byte);
        text += text.empty() ? "" : " ";
        text += digits.data();
    }
    return sample.size() > bytes_shown ? text + " ..." : text;
}

}  // namespace

void give(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::fputs("hint: ", stderr);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

void reset() {
    arrivals = {};
}

void port_not_opened(int error) {
    const char* remedy = platform::port_remedy(error);
    if (remedy != nullptr) {
        give("%s\n", remedy);
    } else {
        give("the port could not be opened: %s\n", std::strerror(error));
    }
}

void port_opened() {
    arrivals = {.awaited = true};
}

void received(std::span<const std::uint8_t> bytes) {
    if (!arrivals.awaited) {
        return;
    }
    for (const std::uint8_t byte : bytes) {
        if (arrivals.count < arrivals.first.size()) {
            arrivals.first[arrivals.count] = byte;
        }
        ++arrivals.count;
    }
}

void synchronised() {
    arrivals.awaited = false;
}

void explain_failure() {
    if (!arrivals.awaited) {
        return;
    }
    const auto sample = arrivals.sample();
    const auto share = [sample](bool (*kind)(std::uint8_t)) {
        return std::count_if(sample.begin(), sample.end(), kind) * 100 /
               static_cast<std::ptrdiff_t>(sample.size());
    };
    if (sample.empty()) {
        give("nothing arrived; is the module powered, wired (TX to RX), and was it reset?\n");
    } else if (share(is_text) >= 90) {
        give("the module sends text (\"%s\"): its firmware runs; reset it, or try another mode\n",
             first_line(sample).c_str());
    } else if (share(is_rate_garbage) >= 30) {
        give("%u bytes arrived (%s) as if at another rate; try another -b\n", arrivals.count,
             first_bytes(sample).c_str());
    } else {
        give("%u bytes arrived (%s) that are no answer; is the model right, and the mode?\n",
             arrivals.count, first_bytes(sample).c_str());
    }
}

}  // namespace orbix::hints
