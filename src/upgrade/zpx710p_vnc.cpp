#include "upgrade/zpx710p_vnc.h"

#include <algorithm>

#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::zpx710p {

namespace {

constexpr std::uint8_t first_header = 'V';
constexpr std::uint8_t second_header = 'N';

constexpr std::size_t group_offset = 2;
constexpr std::size_t number_offset = 3;
constexpr std::size_t length_offset = 4;
constexpr std::size_t payload_offset = 6;

/// What an acknowledgement carries.
constexpr std::size_t acknowledgement_payload = 4;
constexpr std::size_t checksum_offset = payload_offset + acknowledgement_payload;

constexpr std::uint8_t group_of(std::uint16_t id) {
    return static_cast<std::uint8_t>(id >> 8);
}
constexpr std::uint8_t number_of(std::uint16_t id) {
    return static_cast<std::uint8_t>(id);
}

/// The part of a frame that the checksum covers.
template <typename Frame>
auto checked_part(const Frame& frame, std::size_t payload_length) {
    return std::span<const std::uint8_t>(frame).subspan(group_offset, payload_length + 4);
}

/// Puts an acknowledgement together byte by byte.
class Receiver {
  public:
    enum class Verdict : std::uint8_t { unfinished, complete, refused };

    explicit Receiver(VncBuffer& buffer) : buffer_(buffer) {}

    Verdict take(std::uint8_t byte) {
        switch (state_) {
            case State::header_1:
                return byte == first_header ? store(byte, State::header_2) : Verdict::unfinished;
            case State::header_2:
                return byte == second_header ? store(byte, State::group) : Verdict::unfinished;
            case State::group:
                if (byte != group_of(vnc_acknowledgement)) {
                    log_error("Msg Group GET %x\n", byte);
                    return Verdict::refused;
                }
                return store(byte, State::number);
            case State::number:
                if (byte != number_of(vnc_acknowledgement)) {
                    log_error("Msg Number GET %x\n", byte);
                    return Verdict::refused;
                }
                return store(byte, State::length_low);
            case State::length_low:
                return store(byte, State::length_high);
            case State::length_high:
                return take_length(byte);
            case State::payload:
                return take_payload(byte);
            case State::checksum_low:
                checksum_low_ = byte;
                return store(byte, State::checksum_high);
            case State::checksum_high:
                break;
        }
        return take_checksum_high(byte);
    }

  private:
    enum class State : std::uint8_t {
        header_1,
        header_2,
        group,
        number,
        length_low,
        length_high,
        payload,
        checksum_low,
        checksum_high,
    };

    Verdict store(std::uint8_t byte, State next) {
        if (position_ < buffer_.size()) {
            buffer_[position_++] = byte;
        }
        state_ = next;
        return Verdict::unfinished;
    }

    Verdict take_length(std::uint8_t byte) {
        store(byte, State::payload);
        length_ = get_le16(std::span(buffer_).subspan(length_offset));
        if (length_ > vnc_longest_payload) {
            log_error("Payload length GET %x\n", length_);
            return Verdict::refused;
        }
        if (length_ == 0) {
            state_ = State::checksum_low;
        }
        return Verdict::unfinished;
    }

    Verdict take_payload(std::uint8_t byte) {
        const auto number = static_cast<int>(position_ - payload_offset + 1);
        if (number == 1 && byte != group_of(vnc_pass_through)) {
            log_error("Payload[%d] GET%x --- 0x03\n", number, byte);
            return Verdict::refused;
        }
        if (number == 2 && byte != number_of(vnc_pass_through)) {
            log_error("Payload[%d] GET%x --- 0x55\n", number, byte);
            return Verdict::refused;
        }
        return store(byte, number < length_ ? State::payload : State::checksum_low);
    }

    /// Every two bytes that follow the payload may be the checksum: the frame is complete with the
    /// first that are.
    Verdict take_checksum_high(std::uint8_t byte) {
        store(byte, State::checksum_high);
        const int received = byte * 256 + checksum_low_;
        checksum_low_ = byte;
        if (received != ZPX710P_VNC_Check_Fletcher(checked_part(buffer_, length_))) {
            return Verdict::unfinished;
        }
        log_info("complete GET%x\n", 1U);
        return Verdict::complete;
    }

    VncBuffer& buffer_;
    State state_ = State::header_1;
    std::size_t position_ = 0;
    std::uint16_t length_ = 0;
    std::uint8_t checksum_low_ = 0;
};

}  // namespace

std::uint16_t ZPX710P_VNC_Check_Fletcher(std::span<const std::uint8_t> bytes) {
    std::uint8_t a = 0;
    std::uint8_t b = 0;
    for (const std::uint8_t byte : bytes) {
        a = static_cast<std::uint8_t>(a + byte);
        b = static_cast<std::uint8_t>(b + a);
    }
    return static_cast<std::uint16_t>(a + 256 * b);
}

std::int32_t ZPX710P_VNC_EncodeData(std::span<std::uint8_t> buffer, std::uint16_t id,
                                    std::span<const std::uint8_t> payload) {
    buffer[0] = first_header;
    buffer[1] = second_header;
    put_be16(buffer.subspan(group_offset), id);
    put_le16(buffer.subspan(length_offset), static_cast<std::uint16_t>(payload.size()));
    std::copy(payload.begin(), payload.end(), buffer.begin() + payload_offset);
    put_le16(buffer.subspan(payload_offset + payload.size()),
             ZPX710P_VNC_Check_Fletcher(checked_part(buffer, payload.size())));
    return static_cast<std::int32_t>(payload.size() + vnc_overhead);
}

int Vn_Framer_VNC(SerialHandle handle, VncBuffer& buffer, unsigned timeout_ms) {
    const std::uint64_t deadline = monotonic_ms() + timeout_ms;
    Receiver receiver(buffer);
    while (monotonic_ms() <= deadline) {
        std::uint8_t byte = 0;
        if (serial_read(handle, {&byte, 1}, 100) == 0) {
            continue;
        }
        const Receiver::Verdict verdict = receiver.take(byte);
        if (verdict != Receiver::Verdict::unfinished) {
            return verdict == Receiver::Verdict::complete ? 0 : -1;
        }
    }
    return -1;
}

int ZPX710P_VNC_DecodeData(std::span<const std::uint8_t> frame) {
    if (frame[0] != first_header) {
        log_error("VNC_HEADER1 ERROR %x\n", frame[0]);
        return -1;
    }
    if (frame[1] != second_header) {
        log_error("VNC_HEADER2 ERROR %x\n", frame[1]);
        return -1;
    }
    if (frame[group_offset] != group_of(vnc_acknowledgement)) {
        log_error("ACK MSG TYPE ERROR %x\n", frame[group_offset]);
        return -1;
    }
    if (frame[number_offset] != number_of(vnc_acknowledgement)) {
        log_error("ACK MSG TYPE ERROR %x\n", frame[number_offset]);
        return -1;
    }
    const std::uint16_t length = get_le16(frame.subspan(length_offset));
    if (length != acknowledgement_payload) {
        log_error("PayloadLen ERROR %x\n", length);
        return -1;
    }
    const std::uint16_t acknowledged_id = get_be16(frame.subspan(payload_offset));
    if (acknowledged_id != vnc_pass_through) {
        log_error("MSG TYPE ERROR %x\n", acknowledged_id);
        return -1;
    }
    const std::uint16_t error = get_le16(frame.subspan(payload_offset + 2));
    if (error != 0) {
        log_error("ERRORCODE ERROR %x\n", error);
        return -1;
    }
    const std::uint16_t computed =
        ZPX710P_VNC_Check_Fletcher(checked_part(frame, acknowledgement_payload));
    const std::uint16_t received = get_le16(frame.subspan(checksum_offset));
    if (computed != received) {
        log_error("CHECKSUM ERROR %x --- %x\n", computed, received);
        return -1;
    }
    return 0;
}

}  // namespace orbix::zpx710p
