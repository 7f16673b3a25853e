// The new download agent of AG3335, and the agent of AG3352: commands in frames with little-endian
// fields, each answered by one reply of the same kind.
//
//   0     1     2              4            6
//   0x05  0x5A  length of the  16-bit       the rest; the commands that touch the flash end with
//               rest, 16-bit   command      a CRC-32 over all before it
//
// A reply carries a status at offset 6, 0 for success.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "boot_answers.h"
#include "flash.h"
#include "model.h"

namespace orbix::sim {

class NewAgent {
  public:
    struct Settings {
        /// What the rate command takes.
        std::vector<unsigned> rates{115200, 230400, 460800, 921600, 3'000'000};
        /// From the rate command to its reply, which goes out at the new rate.
        Micros rate_settles = milliseconds(150);
        Micros erase_64k_time = milliseconds(30);
        Micros erase_4k_time = milliseconds(5);
        Micros program_time = milliseconds(2);  ///< of 4096 bytes
    };

    NewAgent(Settings settings, Flash& flash, BootVoice& voice)
        : settings_(std::move(settings)), flash_(flash), voice_(voice) {}

    void start();
    void receive(std::uint8_t byte, Micros now, Wire& wire, unsigned& baud);

    /// Where the last command frame failed its check, or the area it names does.
    [[nodiscard]] unsigned refusals() const { return refusals_; }

  private:
    enum class Status : std::uint8_t {
        success = 0,
        crc_wrong = 1,
        area_wrong = 2,
        flash_failed = 3
    };

    struct Reply {
        BootAnswer which;
        std::vector<std::uint8_t> payload;
        Micros delay = 0;
    };

    void handle(Wire& wire, unsigned& baud);
    void set_rate(Wire& wire, unsigned& baud);
    void erase(Wire& wire);
    void write(Wire& wire);
    void read(Wire& wire);
    void reply(Wire& wire, const Reply& reply, Status status);
    [[nodiscard]] std::uint32_t field(std::size_t offset, std::size_t size) const;
    [[nodiscard]] Status check_frame(std::size_t size) const;

    Settings settings_;
    Flash& flash_;
    BootVoice& voice_;
    std::vector<std::uint8_t> frame_;
    Micros last_byte_ = 0;
    unsigned refusals_ = 0;
};

}  // namespace orbix::sim
