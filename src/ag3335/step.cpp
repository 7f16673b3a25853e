#include "ag3335/step.h"

#include <algorithm>
#include <vector>

#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::loader {

std::array<std::uint8_t, 2> be16(std::uint16_t value) {
    std::array<std::uint8_t, 2> bytes{};
    put_be16(bytes, value);
    return bytes;
}

std::array<std::uint8_t, 4> be32(std::uint32_t value) {
    std::array<std::uint8_t, 4> bytes{};
    put_be32(bytes, value);
    return bytes;
}

int Step::failed(const char* text, unsigned number) const {
    if (speaks()) {
        log_error(text, function, number);
    }
    return -1;
}

bool Step::send(Item item, const char* write_failure, unsigned number) const {
    if (serial_write(handle, item.bytes()) == 0) {
        failed(write_failure, number);
        return false;
    }
    sleep_ms(item_pause);
    return true;
}

bool Step::expect(Item answer, const char* read_failure, unsigned number) const {
    std::vector<std::uint8_t> received(answer.bytes().size());
    const unsigned count = serial_read_until(handle, received, timeout);
    sleep_ms(item_pause);
    if (count < received.size() || !std::ranges::equal(received, answer.bytes())) {
        failed(read_failure, number);
        return false;
    }
    return true;
}

bool Step::exchange(Item item, Item answer, const char* write_failure, const char* read_failure,
                    unsigned number) const {
    return send(item, write_failure, number) && expect(answer, read_failure, number);
}

bool Step::exchange_with_status(Item item, Status status, const char* write_failure,
                                const char* read_failure) const {
    if (!send(item, write_failure)) {
        return false;
    }
    const std::size_t echo_size = item.bytes().size();
    std::vector<std::uint8_t> received(echo_size + 2);
    const unsigned count = serial_read_until(handle, received, timeout);
    sleep_ms(item_pause);
    if (count < received.size()) {
        return false;
    }
    if (!std::ranges::equal(std::span(received).first(echo_size), item.bytes())) {
        failed(read_failure);
        return false;
    }
    if (get_be16(std::span(received).subspan(echo_size)) != status.accepted) {
        failed("%s serial_read brom_status %04x fail\n", status.shown);
        return false;
    }
    return true;
}

}  // namespace orbix::loader
