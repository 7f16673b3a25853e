// The answers of a chip that starts in its mask ROM, by name, and the way tests get at each.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "model.h"

namespace orbix::sim {

/// Everything that the ROM loader and the download agents say.
enum class BootAnswer : std::uint8_t {
    // The ROM loader
    start_a0,         ///< 5F, to A0
    start_0a,         ///< F5
    start_50,         ///< AF
    start_05,         ///< FA
    write_command,    ///< echo of D2
    write_address,    ///< echo
    write_count,      ///< echo and status
    write_value,      ///< echo and status
    rate_command,     ///< echo of DC
    rate_value,       ///< echo and status
    agent_command,    ///< echo of D7
    agent_address,    ///< echo
    agent_length,     ///< echo
    agent_signature,  ///< echo and status
    agent_checksum,   ///< checksum and status
    jump_command,     ///< echo of D5
    jump_address,     ///< echo
    jump_status,      ///< status
    // The old agent
    first_word,       ///< C0, as soon as it runs
    sync_3f,          ///< 0C
    sync_f3,          ///< 3F
    sync_c0,          ///< F3
    sync_0c00,        ///< 5A 69 69
    sync_5a00,        ///< 69
    sync_5a,          ///< 69
    rate_probe,       ///< C0, at the new rate
    sync_end,         ///< 5A 69
    flash_report,     ///< 19 bytes
    format_accepted,  ///< 5A 5A
    format_progress,  ///< status and percentage
    format_closed,    ///< 5A
    image_accepted,   ///< 5A 5A
    packet_written,   ///< 69
    last_packet,      ///< 69 5A
    image_sum,        ///< 5A
    image_closed,     ///< 5A
    read_accepted,    ///< 5A
    read_packet,      ///< 4096 bytes and their sum
    // The new agent: one reply a command
    set_rate,
    flash_address,
    flash_size,
    flash_id,
    erase_block,
    write_block,
    read_block,
    // The running firmware
    reboot_sentence,
};

/// What a chip says goes through here, so that a test can change it.
class BootVoice {
  public:
    using Bytes = std::vector<std::uint8_t>;

    /// A test's way of making an answer wrong, short or missing: called with every answer and how
    /// often it has been given since power-on (from 0). May change the bytes, or empty them for
    /// silence.
    std::function<void(BootAnswer which, unsigned number, Bytes& bytes)> tamper;

    /// A test's way of making the flash fail: asked before each erase and each write with the
    /// answer that tells of it and how often it has been given.
    std::function<bool(BootAnswer which, unsigned number)> flash_fails;

    /// Says it, and returns whether anything was said.
    bool say(Wire& wire, BootAnswer which, Bytes bytes, Micros delay = 0) {
        const unsigned number = counts_[static_cast<std::size_t>(which)]++;
        if (tamper) {
            tamper(which, number, bytes);
        }
        if (bytes.empty()) {
            return false;
        }
        wire.send(bytes, delay);
        return true;
    }

    [[nodiscard]] bool flash_holds(BootAnswer which) const {
        return !flash_fails || !flash_fails(which, count(which));
    }

    /// Power comes on.
    void forget() { counts_ = {}; }

    /// How often that answer was due since power-on.
    [[nodiscard]] unsigned count(BootAnswer which) const {
        return counts_[static_cast<std::size_t>(which)];
    }

  private:
    static constexpr std::size_t answers =
        static_cast<std::size_t>(BootAnswer::reboot_sentence) + 1;
    std::array<unsigned, answers> counts_{};
};

}  // namespace orbix::sim
