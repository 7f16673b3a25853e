// The old download agent of AG3335: a byte-oriented dialogue with big-endian fields. It proves the
// line, moves to its own rate, reports its flash, and then erases, writes and reads it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "boot_answers.h"
#include "flash.h"
#include "model.h"

namespace orbix::sim {

class OldAgent {
  public:
    struct Settings {
        /// The rate that the agent was built for. With more than one it tries them in turn until
        /// it understands the host's probes.
        std::vector<unsigned> rates{115200};
        std::uint32_t mount_status = 0;
        Micros erase_time = milliseconds(20);   ///< of one per cent of the area
        Micros program_time = milliseconds(3);  ///< of a packet
    };

    /// An image that was written and closed.
    struct Image {
        std::uint32_t address;
        std::uint32_t length;
        std::uint8_t closing;  ///< the host's last byte: 5A for a boot loader
    };

    OldAgent(Settings settings, Flash& flash, BootVoice& voice)
        : settings_(std::move(settings)), flash_(flash), voice_(voice) {}

    void start(Wire& wire);
    void receive(std::uint8_t byte, Wire& wire, unsigned& baud);

    /// Whether the host has gone through the whole synchronisation.
    [[nodiscard]] bool synchronised() const { return step_ >= Step::command; }

    [[nodiscard]] const std::vector<Image>& images() const { return images_; }

  private:
    enum class Step : std::uint8_t {
        line_test,
        rate_probe,
        report,
        report_taken,
        command,
        erasing,
        erase_done,
        packets,
        image_sum,
        closing,
        reading
    };

    void test_line(Wire& wire, unsigned& baud);
    void hear_probe(Wire& wire, unsigned& baud);
    void report_flash(Wire& wire);
    void take_command(Wire& wire);
    void begin_format(Wire& wire);
    void continue_format(Wire& wire);
    void begin_image(Wire& wire);
    void take_packet(Wire& wire);
    void take_image_sum(Wire& wire);
    void begin_reading(Wire& wire);
    void send_packet(Wire& wire);
    [[nodiscard]] std::size_t item_size() const;
    [[nodiscard]] bool area_is_right() const;

    Settings settings_;
    Flash& flash_;
    BootVoice& voice_;
    Step step_ = Step::line_test;
    std::size_t line_test_step_ = 0;
    std::size_t rate_index_ = 0;
    std::vector<std::uint8_t> item_;
    std::uint32_t address_ = 0;  ///< of the area that is erased, written or read
    std::uint32_t length_ = 0;
    std::uint32_t position_ = 0;
    std::uint32_t percentage_ = 0;
    std::uint32_t sum_of_sums_ = 0;
    std::vector<Image> images_;
};

}  // namespace orbix::sim
