#include <algorithm>
#include <array>
#include <string_view>

#include "ag3335/ag3335.h"
#include "core/hints.h"
#include "core/kv_log.h"

namespace orbix::ag3335 {

namespace {

constexpr std::array<std::string_view, 2> soft_reset_models{"TR75XBA-SR01", "TR75XBA-SR02"};

/// The chip vendor's reboot command, and how its answer begins.
constexpr std::string_view reboot_sentence = "$PAIR023*3B\r\n";
constexpr std::string_view answer_head = "$PAIR";

std::span<const std::uint8_t> bytes_of(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

bool needs_soft_reset(const char* model) {
    return std::ranges::any_of(soft_reset_models, [model](std::string_view name) {
        return std::string_view(model).starts_with(name);
    });
}

int soft_reset(const std::string& port, unsigned baud) {
    SerialPort line(port.c_str(), baud);
    if (!line.is_open()) {
        log_plain(" serial_open error\n");
        return -1;
    }
    // A module that runs answers sooner or later; one that is gone ends the loop by a failed write.
    while (true) {
        serial_flush(line.handle());
        const unsigned written = serial_write(line.handle(), bytes_of(reboot_sentence));
        if (written < reboot_sentence.size()) {
            line.close();
            log_plain(" ret = %d serial_write error\n", static_cast<int>(written));
            return -1;
        }
        std::array<std::uint8_t, answer_head.size()> answer{};
        serial_read(line.handle(), answer, 100);
        if (std::ranges::equal(answer, bytes_of(answer_head))) {
            hints::synchronised();
            return 0;
        }
    }
}

}  // namespace orbix::ag3335
