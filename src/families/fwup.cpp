#include "families/fwup.h"

#include "core/kv_log.h"
#include "families/fwup_frames.h"

namespace orbix::hd8xx0 {

namespace {

constexpr std::uint8_t first_sync_byte = 0xF1;
constexpr std::uint8_t second_sync_byte = 0xD9;

constexpr std::uint16_t longest_payload = 4;

constexpr unsigned reply_timeout_ms = 1000;
constexpr int reply_reads = 3;
constexpr int boot_probes = 3;

constexpr auto boot_probe = make_frame(0x0A, 0x04);

/// What the decoder waits for.
enum class Step : std::uint8_t {
    first_sync,
    second_sync,
    frame_class,
    id,
    length_low,
    length_high,
    payload,
    checksum_a,
    checksum_b,
};

Step cmd_step = Step::first_sync;
std::size_t cmd_len = 0;  // bytes of the frame taken so far
std::uint16_t cmd_payload_len = 0;
std::uint16_t cmd_crc = 0;

/// The frame that the decoder gathers for `fw_update_ack_check`; as long-lived as its state.
ReplyFrame reply_frame{};

int refuse_frame() {
    cmd_step = Step::first_sync;
    cmd_len = 0;
    return frame_bad;
}

int go_on_with(Step step) {
    cmd_step = step;
    return frame_incomplete;
}

bool is_flash_id_answer(const ReplyFrame& frame) {
    return frame[2] == 0xF4 && frame[3] == 0x07;
}

bool is_nak(const ReplyFrame& frame) {
    return frame[3] == 0x00;
}

}  // namespace

void reset_frame_decoder() {
    cmd_step = Step::first_sync;
    cmd_len = 0;
    cmd_payload_len = 0;
    cmd_crc = 0;
    reply_frame.fill(0);
}

int Kv_FWUP_STEP_Composite(std::uint8_t byte, ReplyFrame& frame, std::size_t& length) {
    if (cmd_step == Step::first_sync) {
        if (byte != first_sync_byte) {
            return frame_incomplete;
        }
        cmd_len = 0;
    }
    if (cmd_step == Step::second_sync && byte != second_sync_byte) {
        return refuse_frame();
    }
    frame[cmd_len++] = byte;
    switch (cmd_step) {
        case Step::first_sync:
            return go_on_with(Step::second_sync);
        case Step::second_sync:
            return go_on_with(Step::frame_class);
        case Step::frame_class:
            return go_on_with(Step::id);
        case Step::id:
            return go_on_with(Step::length_low);
        case Step::length_low:
            cmd_payload_len = byte;
            return go_on_with(Step::length_high);
        case Step::length_high:
            cmd_payload_len = static_cast<std::uint16_t>(cmd_payload_len + byte * 256);
            if (cmd_payload_len > longest_payload) {
                return refuse_frame();
            }
            return go_on_with(cmd_payload_len == 0 ? Step::checksum_a : Step::payload);
        case Step::payload:
            return go_on_with(cmd_len == cmd_payload_len + frame_head_size ? Step::checksum_a
                                                                           : Step::payload);
        case Step::checksum_a:
            cmd_crc = byte;
            return go_on_with(Step::checksum_b);
        case Step::checksum_b:
            break;
    }
    cmd_crc = static_cast<std::uint16_t>(cmd_crc + byte * 256);
    if (cmd_crc != Kv_Check_Korvane(std::span(frame).first(cmd_len - 2))) {
        return refuse_frame();
    }
    length = cmd_len;
    cmd_step = Step::first_sync;
    cmd_len = 0;
    return frame_complete;
}

int fw_update_ack_check(SerialHandle handle, std::span<const std::uint8_t> expected) {
    for (int read = 0; read < reply_reads; ++read) {
        std::array<std::uint8_t, 128> buffer{};
        const auto wanted = std::span(buffer).first(std::min(expected.size(), buffer.size()));
        const auto received = wanted.first(serial_read_until(handle, wanted, reply_timeout_ms));
        // Behind a bad frame the search goes on at the second byte of this read, behind the next
        // one at the third: each time a byte further, so that it comes to an end.
        std::size_t resume = 0;
        std::size_t next = 0;
        while (next < received.size()) {
            std::size_t length = 0;
            const int result = Kv_FWUP_STEP_Composite(received[next++], reply_frame, length);
            if (result == frame_bad) {
                log_error("wrong crc\n");
                next = ++resume;
            }
            if (result != frame_complete || length != expected.size()) {
                continue;
            }
            if (std::equal(expected.begin(), expected.end(), reply_frame.begin()) ||
                is_flash_id_answer(reply_frame)) {
                return 0;
            }
            if (is_nak(reply_frame)) {
                log_error("Received NAK\n");
            }
        }
    }
    return -1;
}

int is_in_boot_mode(SerialHandle handle) {
    constexpr std::array<std::uint8_t, 4> word{'B', 'O', 'O', 'T'};
    SequenceFinder finder(word);
    for (int probe = 0; probe < boot_probes; ++probe) {
        std::array<std::uint8_t, 100> buffer{};
        serial_write(handle, boot_probe);
        const unsigned count = serial_read_until(handle, buffer, reply_timeout_ms);
        for (const std::uint8_t byte : std::span(buffer).first(count)) {
            if (finder.push(byte)) {
                return 0;
            }
        }
    }
    log_error("Failed to enter boot mode.\n");
    return -1;
}

void log_block_done(std::size_t done, std::size_t total) {
    const int bytes = static_cast<int>(done);
    log_progress(100.0F * static_cast<float>(done) / static_cast<float>(total), LineEnd::lf);
    log_speed(bytes, static_cast<int>(total), rounded_kbytes(bytes), flash_tool_secs());
}

}  // namespace orbix::hd8xx0
