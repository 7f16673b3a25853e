#include <algorithm>
#include <array>

#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "families/monitor.h"

namespace orbix::monitor {

namespace {

constexpr std::array<std::uint8_t, 12> reset_frame{0x4B, 0x47, 0x03, 0x01, 0x04, 0x00,
                                                   0x00, 0x00, 0x44, 0x00, 0x4C, 0xBF};

/// What the payload of a good acknowledgement begins with: class and id of the reset, no error.
constexpr std::array<std::uint8_t, 3> reset_accepted{0x03, 0x01, 0x00};

constexpr int wrong_acknowledgement = 258;
constexpr int timed_out = 1024;
constexpr unsigned frame_deadline_ms = 200;
constexpr unsigned byte_timeout_ms = 50;

/// Class, id and length.
constexpr std::size_t head_size = 4;
constexpr std::size_t length_offset = 2;

/// Gathers a frame of the reset dialogue byte by byte.
class FrameReader {
  public:
    explicit FrameReader(ResetHeader header) : header_(header) {}

    /// Returns whether `byte` completes a frame whose checksum is right. A frame with a wrong one
    /// is dropped, and the next header waited for.
    bool push(std::uint8_t byte) {
        switch (state_) {
            case State::first_header:
                if (byte == header_.first) {
                    state_ = State::second_header;
                }
                return false;
            case State::second_header:
                state_ = byte == header_.second ? State::body : State::first_header;
                body_.clear();
                return false;
            case State::body:
                body_.push_back(byte);
                return body_is_complete() && checksum_is_right_or_start_over();
        }
        return false;
    }

    [[nodiscard]] std::span<const std::uint8_t> payload() const {
        return std::span(body_).subspan(head_size, payload_length());
    }

  private:
    enum class State : std::uint8_t { first_header, second_header, body };

    [[nodiscard]] std::size_t payload_length() const {
        return get_le16(std::span(body_).subspan(length_offset));
    }

    [[nodiscard]] bool body_is_complete() const {
        return body_.size() >= head_size && body_.size() == head_size + payload_length() + 2;
    }

    bool checksum_is_right_or_start_over() {
        state_ = State::first_header;
        const auto summed = std::span(body_).first(head_size + payload_length());
        return Vn_Check_Fletcher(summed) == get_le16(std::span(body_).last(2));
    }

    ResetHeader header_;
    State state_ = State::first_header;
    std::vector<std::uint8_t> body_;  ///< class to checksum
};

}  // namespace

std::uint16_t Vn_Check_Fletcher(std::span<const std::uint8_t> bytes) {
    std::uint8_t a = 0;
    std::uint8_t b = 0;
    for (const std::uint8_t byte : bytes) {
        a = static_cast<std::uint8_t>(a + byte);
        b = static_cast<std::uint8_t>(b + a);
    }
    return static_cast<std::uint16_t>(a + b * 256);
}

int Kv_Upgrade_RecvAndParseRspFormat2(SerialHandle handle, ResetHeader header,
                                      std::vector<std::uint8_t>& payload) {
    const std::uint64_t deadline = monotonic_ms() + frame_deadline_ms;
    FrameReader reader(header);
    while (monotonic_ms() < deadline) {
        std::uint8_t byte = 0;
        if (serial_read(handle, {&byte, 1}, byte_timeout_ms) != 0 && reader.push(byte)) {
            log_info("Checksum success\n");
            payload.assign(reader.payload().begin(), reader.payload().end());
            return 0;
        }
    }
    return timed_out;
}

int Kv_Upgrade_SoftReset(SerialHandle handle, ResetHeader header) {
    serial_write(handle, reset_frame);
    std::vector<std::uint8_t> payload;
    const int result = Kv_Upgrade_RecvAndParseRspFormat2(handle, header, payload);
    if (result != 0) {
        return result;
    }
    const bool accepted = payload.size() >= reset_accepted.size() &&
                          std::equal(reset_accepted.begin(), reset_accepted.end(), payload.begin());
    if (!accepted) {
        return wrong_acknowledgement;
    }
    hints::synchronised();
    return 0;
}

}  // namespace orbix::monitor
