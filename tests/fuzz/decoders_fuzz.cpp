// Arbitrary bytes for each decoder of what modules send. Byte 0 says which decoder, bit 7 of it
// whether a frame's checksum is put right first, so that what stands behind the check is reached.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "checksums.h"
#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/kv_util.h"
#include "families/fwup.h"
#include "fuzz/fuzzed.h"
#include "line.h"
#include "teseo/nmea_upgrade.h"
#include "teseo/sta_decode.h"
#include "upgrade/kv_upgrade_protocol.h"
#include "upgrade/sync_words.h"
#include "upgrade/zpx710p_vnc.h"
#include "virtual_port.h"

namespace {

using namespace orbix;
using fuzz::Input;
using Bytes = std::vector<std::uint8_t>;

/// Says the input, whatever is said to it.
class Talker : public sim::Model {
  public:
    explicit Talker(Bytes speech) : speech_(std::move(speech)) {}
    void power_on(sim::Micros /*now*/, sim::Wire& wire) override {
        wire.send(speech_, sim::milliseconds(1));
    }
    void receive(std::uint8_t /*byte*/, sim::Micros /*now*/, sim::Wire& /*wire*/) override {}
    [[nodiscard]] sim::Flash& flash() override { return flash_; }

  private:
    Bytes speech_;
    sim::Flash flash_{0, 0};
};

/// A port on which the input arrives. It vanishes after a minute.
class Port {
  public:
    explicit Port(Bytes speech)
        : talker_(std::move(speech)),
          line_(talker_,
                {{.kind = sim::FaultKind::unplug,
                  .byte = std::nullopt,
                  .time = sim::milliseconds(60'000)}},
                {.traced = false}, sim::VirtualPort::start),
          port_(line_, {}),
          handle_(serial_open("COM6", 115200)) {}

    [[nodiscard]] SerialHandle handle() const { return handle_; }

  private:
    Talker talker_;
    sim::Line line_;
    sim::VirtualPort port_;
    SerialHandle handle_;
};

/// Lets an upgrade frame's CRC fit.
void repair(Bytes& frame) {
    if (frame.size() < 10) {
        return;
    }
    frame[0] = 0xAA;
    const std::size_t payload = frame.size() - 10;
    frame[3] = static_cast<std::uint8_t>(payload >> 8);
    frame[4] = static_cast<std::uint8_t>(payload);
    const std::uint32_t crc = sim::module_crc32(std::span(frame).subspan(1, payload + 4));
    for (std::size_t index = 0; index < 4; ++index) {
        frame[payload + 5 + index] = static_cast<std::uint8_t>(crc >> (24 - 8 * index));
    }
    frame.back() = 0x55;
}

void receive_and_decode(const Bytes& speech) {
    const Port port(speech);
    upgrade::ResponseBuffer buffer{};
    if (upgrade::Kv_Upgrade_ReceiveFrame(port.handle(), buffer) != 0) {
        return;
    }
    std::array<std::uint8_t, 3> version{};
    std::array<std::uint8_t, 1> result{};
    upgrade::Kv_Upgrade_DecodeMsg(buffer);
    upgrade::Kv_Upgrade_DecodeBootVer(buffer, version);
    upgrade::Kv_Upgrade_DecodeFormatMsg(buffer, result);
}

void decode_alone(const Bytes& frame) {
    upgrade::ResponseBuffer buffer{};
    const std::size_t count = std::min(frame.size(), buffer.size());
    std::copy_n(frame.begin(), static_cast<std::ptrdiff_t>(count), buffer.begin());
    std::array<std::uint8_t, 3> version{};
    std::array<std::uint8_t, 1> result{};
    upgrade::Kv_Upgrade_DecodeMsg(buffer);
    upgrade::Kv_Upgrade_DecodeBootVer(buffer, version);
    upgrade::Kv_Upgrade_DecodeFormatMsg(buffer, result);
}

void catch_loader(const Bytes& speech) {
    const Port port(speech);
    upgrade::sync_boot_loader(port.handle(), {.pause = 20, .byte = 50}, {.pause = 20, .byte = 50});
}

void take_agent_reply(const Bytes& speech) {
    const Port port(speech);
    teseo::upgrade_RecvAndParseRspFormat(port.handle(), 1000);
}

template <auto composite>
void compose_sentence(const Bytes& speech) {
    teseo::Sentence sentence;
    std::uint32_t length = 0;
    for (const std::uint8_t byte : speech) {
        composite(byte, sentence, length);
        fuzz::require(sentence.text.size() <= teseo::longest_sentence + 2, "sentences are bounded");
    }
}

void compose_reply(const Bytes& speech) {
    hd8xx0::reset_frame_decoder();
    hd8xx0::ReplyFrame frame{};
    std::size_t length = 0;
    for (const std::uint8_t byte : speech) {
        if (hd8xx0::Kv_FWUP_STEP_Composite(byte, frame, length) == hd8xx0::frame_complete) {
            fuzz::require(length <= frame.size(), "a frame fits its buffer");
        }
    }
}

void take_boot_answer(const Bytes& speech) {
    const Port port(speech);
    hd8xx0::is_in_boot_mode(port.handle());
}

void await_acknowledgement(const Bytes& speech) {
    const Port port(speech);
    const std::array<std::uint8_t, 10> expected{0xF1, 0xD9, 5, 1, 2, 0, 0xF4, 5, 1, 2};
    hd8xx0::fw_update_ack_check(port.handle(), expected);
}

void take_vnc_frame(const Bytes& speech) {
    const Port port(speech);
    zpx710p::VncBuffer buffer{};
    if (zpx710p::Vn_Framer_VNC(port.handle(), buffer, 1000) == 0) {
        zpx710p::ZPX710P_VNC_DecodeData(std::span(buffer).first(12));
    }
}

void check_sentence(const Bytes& speech) {
    std::string text(speech.begin(), speech.end());
    if (text.starts_with('$')) {
        NMEA_CheckSum(text.c_str());
    }
}

using Decoder = void (*)(const Bytes& speech);
constexpr std::array<Decoder, 11> decoders{
    receive_and_decode,
    decode_alone,
    catch_loader,
    take_agent_reply,
    compose_sentence<sta8100::Kv_NMEA_CMD_Composite>,
    compose_sentence<sta8089::Kv_NMEA_CMD_Composite>,
    compose_reply,
    take_boot_answer,
    await_acknowledgement,
    take_vnc_frame,
    check_sentence,
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::FILE* const nowhere = std::fopen("/dev/null", "w");
    set_log_stream(nowhere);
    kv_uart_reset();
    Input input({data, size});
    const std::uint8_t choice = input.byte();
    Bytes speech = input.rest();
    if ((choice & 0x80) != 0) {
        repair(speech);
    }
    decoders[(choice & 0x7F) % decoders.size()](speech);
    return 0;
}
