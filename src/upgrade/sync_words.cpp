#include "upgrade/sync_words.h"

#include <algorithm>

#include "core/hints.h"
#include "core/kv_util.h"

namespace orbix::upgrade {

namespace {

/// How long an answer, with what a starting receiver says around it, may last at most, in ms.
constexpr unsigned longest_answer = 1000;

/// Takes bytes into the register until the line is silent for `byte_timeout_ms`. An answer is taken
/// to its end even when the deadline passes meanwhile; a line that is never silent is left then, or
/// after `longest_answer` if that is later.
std::uint32_t drain_into(std::uint32_t last_four, SerialHandle handle, unsigned byte_timeout_ms,
                         std::uint64_t deadline) {
    const std::uint64_t end = std::max(deadline, monotonic_ms() + longest_answer);
    std::uint8_t byte = 0;
    while (serial_read(handle, {&byte, 1}, byte_timeout_ms) != 0) {
        last_four = last_four >> 8 | std::uint32_t{byte} << 24;
        if (monotonic_ms() > end) {
            break;
        }
    }
    return last_four;
}

}  // namespace

int catch_boot_loader(SerialHandle handle, SyncTiming timing, std::uint64_t* last_attempt) {
    const std::uint64_t deadline = monotonic_ms() + sync_deadline;
    std::uint32_t last_four = 0;
    while (last_four != first_answer_word) {
        const std::uint64_t now = monotonic_ms();
        if (now > deadline) {
            return sync_timed_out;
        }
        if (last_attempt != nullptr) {
            *last_attempt = now;
        }
        serial_write(handle, first_probe);
        sleep_ms(timing.pause);
        last_four = drain_into(last_four, handle, timing.byte, deadline);
    }
    hints::synchronised();
    return 0;
}

std::uint32_t second_sync_answer(SerialHandle handle, SyncTiming timing) {
    serial_write(handle, second_probe);
    sleep_ms(timing.pause);
    return drain_into(0, handle, timing.byte, monotonic_ms() + sync_deadline);
}

int sync_boot_loader(SerialHandle handle, SyncTiming first, SyncTiming second) {
    const int result = catch_boot_loader(handle, first);
    if (result != 0) {
        return result;
    }
    return second_sync_answer(handle, second) == second_answer_word ? 0 : sync_answer_wrong;
}

}  // namespace orbix::upgrade
