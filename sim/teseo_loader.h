// The module's side of the dialogues by which a Teseo chip is flashed: the boot loader in its
// flash, and the boot ROM with the small boot loader that it takes into RAM. Each is a part that a
// model feeds with the bytes that arrive; until it is caught by its word it says nothing, so that
// several parts can listen on one line and the first word tells which one is meant.
#pragma once

#include <array>
#include <functional>
#include <string>
#include <vector>

#include "model.h"

namespace orbix::sim {

inline constexpr std::uint8_t teseo_ack = 0xCC;
inline constexpr std::uint8_t teseo_refusal = 0x33;

/// The flash of a Teseo chip stands here.
inline constexpr std::uint32_t teseo_flash_base = 0x10000000;

/// What an answer of a part is about, in the order of the dialogues.
enum class TeseoStep : std::uint8_t {
    sync,            ///< the answer word
    sync_confirmed,  ///< boot loader: 0xA3
    rate_checked,    ///< boot ROM: 'q'
    rate_changed,    ///< boot ROM: the rate
    rate_confirmed,  ///< boot ROM of STA8089: '8'
    host_ready,      ///< boot ROM: 'Z'
    preamble,        ///< boot ROM of STA9100: the request behind the preamble
    loader_started,  ///< boot ROM: the RAM boot loader runs
    ready,           ///< both loaders: 'J'
    options,         ///< RAM boot loader: the binary info record
    initialised,
    code_erased,
    nvm_erased,
    piece,
    image_checked,
};

/// A test's way of making a part misbehave: called with every answer before it is sent; may change
/// it, or empty it for silence.
using TeseoTamper = std::function<void(TeseoStep step, std::vector<std::uint8_t>& answer)>;

/// How long the flash takes.
struct TeseoTimes {
    Micros erase_code = milliseconds(400);
    Micros erase_nvm = milliseconds(200);
    Micros program_piece = milliseconds(2);
    Micros check = milliseconds(80);  ///< reading the whole image back, behind the last answer
};

/// Takes a raw image piece by piece into flash.
class TeseoImage {
  public:
    /// What is to come; false when it does not fit into `room` bytes.
    bool announce(std::uint32_t size, std::uint32_t crc, std::uint32_t room);

    /// Takes a byte; true when a piece is complete and has been programmed.
    bool take(std::uint8_t byte, std::size_t piece_size, Flash& flash);

    [[nodiscard]] bool whole() const { return programmed_ == size_; }
    [[nodiscard]] bool right(const Flash& flash) const;

  private:
    std::uint32_t size_ = 0;
    std::uint32_t crc_ = 0;
    std::uint32_t programmed_ = 0;
    std::vector<std::uint8_t> piece_;
};

/// What both parts share: bytes are gathered until the step's message is whole, answers pass the
/// test's hands, and a part that is at work hears nothing.
class TeseoPart {
  public:
    TeseoPart(Flash& flash, unsigned& baud) : flash_(flash), baud_(baud) {}

    /// Whether its word has been heard.
    [[nodiscard]] bool caught() const { return caught_; }

    /// Whether the image is in the flash and its CRC is right.
    [[nodiscard]] bool completed() const { return completed_; }

    /// The messages that did not look as they should, in plain words.
    std::vector<std::string> complaints;

    TeseoTamper tamper;

  protected:
    void reset();
    bool hears_word(std::uint8_t byte, const std::array<std::uint8_t, 4>& word);
    void say(TeseoStep step, std::vector<std::uint8_t> answer, Wire& wire, Micros delay = 0);
    void acknowledge(TeseoStep step, Wire& wire, Micros delay = 0);
    void refuse(TeseoStep step, const std::string& complaint, Wire& wire);
    void take_image_byte(std::uint8_t byte, std::size_t piece_size, const TeseoTimes& times,
                         Micros now, Wire& wire);
    void judge_image(Micros delay, Wire& wire);

    Flash& flash_;
    unsigned& baud_;
    bool caught_ = false;
    bool completed_ = false;
    bool dead_ = false;  ///< it has refused something and waits for a power cycle
    Micros busy_until_ = 0;
    std::array<std::uint8_t, 4> last_four_{};
    std::vector<std::uint8_t> message_;
    TeseoImage image_;
};

/// The boot loader in flash.
class TeseoBootLoader : public TeseoPart {
  public:
    struct Settings {
        std::uint32_t nvm_offset = 0x00100000;  ///< first word at the end of the options record
        std::uint32_t nvm_size = 0x00100000;    ///< second word
        std::uint8_t baud_selector = 1;         ///< of the options record; 2 is 230400
        Micros ready_time = 0;                  ///< from the record until 'J' is heard
        TeseoTimes times;
    };

    TeseoBootLoader(Settings settings, Flash& flash, unsigned& baud)
        : TeseoPart(flash, baud), settings_(settings) {}

    void power_on();
    void receive(std::uint8_t byte, Micros now, Wire& wire);

    /// The options record as it came.
    [[nodiscard]] const std::vector<std::uint8_t>& options() const { return options_; }

  private:
    enum class State : std::uint8_t { listening, confirming, options, ready, image };

    void take_options(Micros now);
    void begin(Micros now, Wire& wire);
    [[nodiscard]] std::string fault_in_options() const;

    Settings settings_;
    State state_ = State::listening;
    std::vector<std::uint8_t> options_;
};

/// The boot ROM, and the RAM boot loader behind it.
class TeseoBootRom : public TeseoPart {
  public:
    enum class Dialogue : std::uint8_t { sta8089, sta9100 };

    struct Settings {
        Dialogue dialogue = Dialogue::sta8089;
        std::uint32_t program_area = 0x00100000;  ///< bytes that are erased for the image
        Micros sync_time = 0;                     ///< from the sync word to its answer
        TeseoTimes times;
    };

    TeseoBootRom(Settings settings, Flash& flash, unsigned& baud)
        : TeseoPart(flash, baud), settings_(settings) {}

    void power_on();
    void receive(std::uint8_t byte, Micros now, Wire& wire);

    /// The RAM boot loader, as far as it has come.
    [[nodiscard]] const std::vector<std::uint8_t>& ram() const { return ram_; }

    /// The binary info record as it came.
    [[nodiscard]] const std::vector<std::uint8_t>& info() const { return info_; }

  private:
    enum class State : std::uint8_t {
        listening,
        rate_check,
        rate,
        rate_use,
        host_ready,
        preamble,
        request,
        announcement,
        sizes,
        loader,
        start,
        info,
        image
    };

    [[nodiscard]] bool is_sta9100() const { return settings_.dialogue == Dialogue::sta9100; }
    [[nodiscard]] std::size_t message_size() const;
    void handle(Micros now, Wire& wire);
    void take_info(Micros now, Wire& wire);
    [[nodiscard]] std::string fault_in_info() const;
    void expect(std::span<const std::uint8_t> expected, const char* what);

    Settings settings_;
    State state_ = State::listening;
    std::vector<std::uint8_t> ram_;
    std::vector<std::uint8_t> info_;
};

}  // namespace orbix::sim
