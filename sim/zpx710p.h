// The ZPX710P module: the boot loader in its main controller's ROM, and the module as it runs,
// whose main controller has an application-level boot loader of its own and passes the bytes of an
// upgrade through to those of the GNSS receiver and the LoRa radio.
#pragma once

#include <functional>
#include <vector>

#include "app_loader.h"
#include "model.h"

namespace orbix::sim {

/// The main controller started into its ROM: the USART protocol of the STM32 system-memory boot
/// loader (ST application note AN3155), at even parity. Besides the two commands of a download it
/// tells its version, its commands and its controller, and erases pages that are named, as a
/// general programmer for such loaders asks it to. A command that fails is over: what follows is
/// taken for the next command.
class Zpx710pRomLoader : public Model {
  public:
    static constexpr std::uint32_t flash_base = 0x08000000;
    static constexpr std::uint32_t page_size = 2048;

    explicit Zpx710pRomLoader(std::uint32_t flash_size = 1024 * 1024)
        : flash_(flash_base, flash_size) {
        even_parity = true;
    }

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] Flash& flash() override { return flash_; }

    /// What the loader answers.
    enum class Question : std::uint8_t { synchronisation, command, page, pages, address, data };

    /// A test's way of making the loader misbehave: called with what it answers and the answer; may
    /// change the answer, or empty it for silence.
    std::function<void(Question question, std::vector<std::uint8_t>& answer)> tamper;

    /// The packets that it took for good ones since the object exists; the synchronisation is none.
    [[nodiscard]] const std::vector<Span>& accepted_packets() const { return accepted_packets_; }

    /// How often it has been synchronised since the object exists.
    [[nodiscard]] int synchronisations() const { return synchronisations_; }

    /// Whether it has programmed what began as the address that it had just taken.
    [[nodiscard]] bool took_address_for_data() const { return took_address_for_data_; }

    Micros start_time = 0;                  ///< from power-on until it listens
    Micros erase_time = milliseconds(25);   ///< a page
    Micros program_time = milliseconds(4);  ///< a block

  private:
    void handle_packet(Micros now, Wire& wire);
    void handle_command(Micros now, Wire& wire);
    [[nodiscard]] bool packet_sums_up() const;
    bool erase_page();
    bool erase_pages();
    bool take_address();
    bool program();
    void await(Question next, std::size_t bytes);
    void answer(bool accepted, Micros duration, Micros now, Wire& wire);

    Flash flash_;
    Question awaited_ = Question::synchronisation;
    std::vector<std::uint8_t> packet_;
    std::size_t expected_ = 1;
    Micros busy_until_ = 0;
    std::uint32_t next_page_ = 0;
    std::uint32_t address_ = 0;
    Micros packet_begun_ = 0;
    std::vector<Span> accepted_packets_;
    int synchronisations_ = 0;
    std::vector<std::uint8_t> address_packet_;
    bool took_address_for_data_ = false;
};

/// The module as it runs.
class Zpx710pModule : public Model {
  public:
    Zpx710pModule();

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override { return heard_->wake_time(); }
    void wake(Micros now, Wire& wire) override { heard_->wake(now, wire); }

    /// The flash of the processor that hears what is sent.
    [[nodiscard]] Flash& flash() override { return heard_->flash(); }

    AppLoader mcu;
    AppLoader gnss;
    AppLoader lora;

    /// How many pass-through requests arrived whole.
    int requests = 0;

    /// A test's way of changing the acknowledgement of a request, or of emptying it for silence.
    std::function<void(std::vector<std::uint8_t>& acknowledgement)> tamper_acknowledgement;

  private:
    void hear_request(std::uint8_t byte, Micros now, Wire& wire);
    void handle_request(Micros now, Wire& wire);

    AppLoader* heard_ = &mcu;
    std::vector<std::uint8_t> request_;
    SyncListener sync_;
    bool hears_requests_ = true;
};

/// Either of the two, as the first byte after a start asks for it. Serves a pseudo-terminal, which
/// knows no parity: the parity of the ROM loader is not checked, but its bytes take the time of
/// one.
class Zpx710p : public Model {
  public:
    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] unsigned byte_bits() const override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override { used().wake(now, wire); }

    /// The flash that was written last.
    [[nodiscard]] Flash& flash() override { return used().flash(); }

  private:
    [[nodiscard]] Model& used() const { return *used_; }

    Zpx710pRomLoader rom_loader_;
    Zpx710pModule module_;
    Model* used_ = &module_;
    bool asked_ = false;
};

/// The frames of the pass-through dialogue: 'V', 'N', group, number, payload with its length and
/// its Fletcher checksum.
std::vector<std::uint8_t> make_vnc_frame(std::uint8_t group, std::uint8_t number,
                                         std::span<const std::uint8_t> payload);

}  // namespace orbix::sim
