// The simulated AG33xx modules, spoken to without the tool.
#include <gtest/gtest.h>

#include "ag33xx_modules.h"
#include "checksums.h"
#include "run/harness.h"
#include "wire_words.h"

namespace orbix::test {
namespace {

using sim::Ag3335Module;
using sim::Ag3352Module;
using sim::BootAnswer;

/// Hands bytes to a module one by one, a millisecond apart, and gathers what it says.
class Talk {
  public:
    explicit Talk(sim::Model& module) : module_(module) {
        module.baud = module.start_baud;
        sim::Wire wire(module.baud);
        module.power_on(now, wire);
    }

    Bytes say(std::span<const std::uint8_t> bytes) {
        sim::Wire wire(module_.baud);
        for (const std::uint8_t byte : bytes) {
            now += sim::milliseconds(1);
            run_until(now);
            module_.receive(byte, now, wire);
        }
        Bytes said;
        for (const auto& utterance : wire.utterances) {
            said.insert(said.end(), utterance.bytes.begin(), utterance.bytes.end());
        }
        return said;
    }
    std::string say(const std::string& digits) { return as_hex(say(hex(digits))); }

    void run_until(sim::Micros until) {
        while (module_.wake_time() && *module_.wake_time() <= until) {
            sim::Wire wire(module_.baud);
            module_.wake(*module_.wake_time(), wire);
        }
        now = std::max(now, until);
    }

    sim::Micros now = 1;

  private:
    sim::Model& module_;
};

void start_loader(Talk& talk) {
    EXPECT_EQ(talk.say("A0"), "5F");
    EXPECT_EQ(talk.say("0A"), "F5");
    EXPECT_EQ(talk.say("50"), "AF");
    EXPECT_EQ(talk.say("05"), "FA");
}

void write_register(Talk& talk, const std::string& address, const std::string& value) {
    EXPECT_EQ(talk.say("D2"), "D2");
    EXPECT_EQ(talk.say(address), address);
    EXPECT_EQ(talk.say("00 00 00 01"), "00 00 00 01 00 01");
    EXPECT_EQ(talk.say(value), value + " 00 01");
}

void start_agent(Talk& talk, const std::string& address) {
    EXPECT_EQ(talk.say("D7"), "D7");
    EXPECT_EQ(talk.say(address), address);
    EXPECT_EQ(talk.say("00 00 00 05"), "00 00 00 05");
    EXPECT_EQ(talk.say("00 00 00 00"), "00 00 00 00 00 00");
    EXPECT_EQ(talk.say("01 02 04 08 10"), "0A 15 00 00");  // 0201 ^ 0804 ^ 10, high byte first
    EXPECT_EQ(talk.say("D5"), "D5");
}

Bytes agent_frame(const std::string& digits, std::span<const std::uint8_t> data = {},
                  std::uint32_t spoil = 0) {
    Bytes frame = hex(digits);
    frame.insert(frame.end(), data.begin(), data.end());
    sim::append_little_endian(frame, sim::module_crc32(frame) ^ spoil, 4);
    return frame;
}

TEST(Ag33xxModels, LoaderRefusesWhatItCannotTake) {
    Ag3335Module module;
    Talk talk(module);
    EXPECT_EQ(talk.say("55 A0"), "5F") << "a stray byte in front does no harm";
    EXPECT_EQ(talk.say("A0 A0"), "5F 5F") << "the host asks again";
    EXPECT_EQ(talk.say("0A 50 05"), "F5 AF FA");
    EXPECT_EQ(talk.say("D2 A2 08 00 30 00 00 00 01"), "D2 A2 08 00 30 00 00 00 01 00 00")
        << "AG3335 has no second watchdog";
    EXPECT_EQ(talk.say("D2 A2 08 00 00 00 00 00 02"), "D2 A2 08 00 00 00 00 00 02 00 00");
    EXPECT_EQ(talk.say("D7 04 20 00 00 00 00 00 05 00 00 00 00"),
              "D7 04 20 00 00 00 00 00 05 00 00 00 00 10 00")
        << "no agent belongs there";
    EXPECT_EQ(talk.say("D5 04 20 40 00"), "D5 04 20 40 00 10 00") << "nothing is loaded";
    EXPECT_EQ(talk.say("DC"), "") << "AG3335 has no rate command";
}

TEST(Ag33xxModels, WatchdogBitesUnlessItIsOff) {
    Ag3352Module module;
    Talk talk(module);
    start_loader(talk);
    write_register(talk, "A2 08 00 00", "00 10");
    talk.run_until(talk.now + sim::milliseconds(4000));
    EXPECT_EQ(talk.say("D2"), "") << "one of two watchdogs was left on";

    start_loader(talk);
    write_register(talk, "A2 08 00 00", "00 10");
    write_register(talk, "A2 08 00 30", "00 40");
    talk.run_until(talk.now + sim::milliseconds(60000));
    EXPECT_EQ(talk.say("D2"), "D2");
}

TEST(Ag33xxModels, OldAgentGoesThroughItsLife) {
    Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {921600};
    Ag3335Module module(settings);
    module.flash().fill(0x00);
    Talk talk(module);
    start_loader(talk);
    write_register(talk, "A2 08 00 00", "00 10");
    start_agent(talk, "04 20 40 00");
    EXPECT_EQ(talk.say("04 20 40 00"), "04 20 40 00 00 00 C0");
    EXPECT_EQ(talk.say("3F F3 C0"), "0C 3F F3");
    EXPECT_EQ(talk.say("0C 00"), "5A 69 69");
    EXPECT_EQ(talk.say("5A 00"), "69");
    EXPECT_EQ(talk.say("5A"), "69");
    EXPECT_EQ(module.baud, 115200U);
    EXPECT_EQ(talk.say("5A"), "");
    EXPECT_EQ(module.baud, 921600U);
    EXPECT_EQ(talk.say("C0"), "C0");
    EXPECT_EQ(talk.say("5A"), "5A 69");
    EXPECT_EQ(talk.say("5A"), "00 C8 00 60 00 16 00 00 00 00 08 00 00 00 00 40 00 00 5A");
    EXPECT_FALSE(module.boot.old_agent().synchronised());
    EXPECT_EQ(talk.say("5A"), "");
    EXPECT_TRUE(module.boot.old_agent().synchronised());

    // Without an erase the cells cannot take the data.
    const Bytes data = random_image(4096);
    Bytes packet = data;
    sim::append_big_endian(packet, 0, 4);
    std::uint32_t sum = 0;
    for (const std::uint8_t byte : data) {
        sum += byte;
    }
    packet.resize(4096);
    sim::append_big_endian(packet, sum, 4);
    EXPECT_EQ(talk.say("B2 08 00 10 00 00 00 10 00 00 00 10 00"), "5A 5A");
    EXPECT_EQ(as_hex(talk.say(packet)), "A5");

    EXPECT_EQ(talk.say("D4 00 08 00 10 00 00 00 20 00"), "5A 5A 00 00 0B CD 01");
    for (int percentage = 2; percentage < 99; ++percentage) {
        talk.say("5A");
    }
    EXPECT_EQ(talk.say("5A"), "00 00 0B CD 63");
    EXPECT_EQ(talk.say("5A"), "00 00 00 00 64");
    EXPECT_EQ(talk.say("5A"), "5A");
    EXPECT_EQ(module.flash().cells()[0x0FFF], 0x00);
    EXPECT_EQ(module.flash().cells()[0x1000], 0xFF);
    EXPECT_EQ(module.flash().cells()[0x2FFF], 0xFF);
    EXPECT_EQ(module.flash().cells()[0x3000], 0x00);

    EXPECT_EQ(talk.say("B2 08 00 10 00 00 00 10 00 00 00 10 00"), "5A 5A");
    Bytes spoilt = packet;
    spoilt[17] ^= 1;
    EXPECT_EQ(as_hex(talk.say(spoilt)), "A5");
    EXPECT_EQ(talk.say("B2 08 00 10 00 00 00 10 00 00 00 10 00"), "5A 5A");
    EXPECT_EQ(as_hex(talk.say(packet)), "69 5A");
    Bytes total;
    sim::append_big_endian(total, sum, 4);
    EXPECT_EQ(as_hex(talk.say(total)), "5A");
    EXPECT_EQ(talk.say("A5"), "5A");
    ASSERT_EQ(module.boot.old_agent().images().size(), 1U);
    EXPECT_EQ(module.boot.old_agent().images()[0].closing, 0xA5);

    Bytes expected = hex("5A");
    expected.insert(expected.end(), packet.begin(), packet.end());
    EXPECT_EQ(talk.say(hex("D6 08 00 10 00 00 00 10 00 00 00 10 00")), expected);
    EXPECT_EQ(talk.say("5A"), "");
    EXPECT_EQ(talk.say("D6 08 40 00 00 00 00 10 00 00 00 10 00"), "A5 00 00 0B D1");
}

TEST(Ag33xxModels, NewAgentGoesThroughItsLife) {
    Ag3335Module module;
    module.flash().fill(0x00);
    Talk talk(module);
    start_loader(talk);
    write_register(talk, "A2 08 00 00", "00 10");
    start_agent(talk, "04 00 00 00");
    EXPECT_EQ(talk.say("04 00 00 00"), "04 00 00 00 00 00");
    EXPECT_EQ(talk.say("05 5A 06 00 15 21 00 10 0E 00"), "05 5A 03 00 15 21 00");
    EXPECT_EQ(module.baud, 921600U);
    EXPECT_EQ(talk.say("05 5A 06 00 15 21 01 00 00 00"), "05 5A 03 00 15 21 02");
    EXPECT_EQ(talk.say("05 5A 02 00 0E 21"), "05 5A 07 00 0E 21 00 00 00 00 08");
    EXPECT_EQ(talk.say("05 5A 02 00 0F 21"), "05 5A 07 00 0F 21 00 00 00 40 00");
    EXPECT_EQ(talk.say("05 5A 02 00 10 21").size(), 10U * 3 - 1);

    const Bytes data = random_image(4096);
    const std::string write = "05 5A 0C 10 00 21 00 10 00 08 00 10";
    const std::string erase = "05 5A 0E 00 04 21 00 10 00 08 00 10 00 00";
    const std::string status = "05 5A 07 00 00 21 ";
    EXPECT_EQ(as_hex(talk.say(agent_frame(write, data))), status + "03 00 10 00 08")
        << "without an erase the cells cannot take the data";
    EXPECT_EQ(as_hex(talk.say(agent_frame(erase, {}, 1))), "05 5A 07 00 04 21 01 00 10 00 08");
    EXPECT_EQ(as_hex(talk.say(agent_frame(erase))), "05 5A 07 00 04 21 00 00 10 00 08");
    EXPECT_EQ(module.flash().cells()[0x0FFF], 0x00);
    EXPECT_EQ(module.flash().cells()[0x1000], 0xFF);
    EXPECT_EQ(module.flash().cells()[0x2000], 0x00);
    EXPECT_EQ(as_hex(talk.say(agent_frame(write, data, 1))), status + "01 00 10 00 08");
    EXPECT_EQ(as_hex(talk.say(agent_frame(write, data))), status + "00 00 10 00 08");

    Bytes reply = hex("05 5A 0B 10 01 21 00 00 10 00 08");
    sim::append_little_endian(reply, sim::module_crc32(data), 4);
    reply.insert(reply.end(), data.begin(), data.end());
    EXPECT_EQ(reply.size(), 4111U);
    EXPECT_EQ(talk.say(agent_frame("05 5A 0C 00 01 21 00 10 00 08 00 10")), reply);
    EXPECT_EQ(as_hex(talk.say(agent_frame("05 5A 0C 00 01 21 00 00 40 08 00 10"))),
              "05 5A 07 00 01 21 02 00 00 40 08");
    EXPECT_EQ(as_hex(talk.say(agent_frame("05 5A 0E 00 04 21 00 10 00 08 00 00 01 00"))),
              "05 5A 07 00 04 21 02 00 10 00 08")
        << "64 KiB from an address that is no multiple of it";
}

TEST(Ag33xxModels, RunningFirmwareRebootsIntoTheLoader) {
    Ag3335Module::Settings settings;
    settings.runs_firmware = true;
    Ag3335Module module(settings);
    module.start_baud = 460800;
    Talk talk(module);
    talk.run_until(talk.now + sim::milliseconds(1000));
    EXPECT_EQ(module.baud, 460800U);
    EXPECT_EQ(talk.say("A0"), "") << "the firmware does not know the start pattern";
    const std::string sentence = "$PAIR023*3B\r\n";
    const Bytes answer = talk.say(Bytes(sentence.begin(), sentence.end()));
    EXPECT_EQ(std::string(answer.begin(), answer.end()), "$PAIR001,023,0*3A\r\n");
    EXPECT_EQ(module.baud, 115200U);
    EXPECT_EQ(module.reboots(), 1U);
    EXPECT_EQ(talk.say("A0"), "5F");
    talk.run_until(talk.now + sim::milliseconds(900));
    EXPECT_EQ(talk.say("0A"), "F5") << "a loader that was spoken to does not start the firmware";
}

TEST(Ag33xxModels, Ag3352TellsItsLoadersApart) {
    Ag3352Module module;
    {
        Talk talk(module);
        EXPECT_EQ(talk.say("09 13 56 4B"), "4D 3A FC AA");
        EXPECT_EQ(talk.say("04 A5 03 12"), "A0 5B FD 55");
        EXPECT_EQ(talk.say("A0"), "") << "caught by the application's boot loader";
    }
    Talk talk(module);
    start_loader(talk);
    EXPECT_EQ(talk.say("09 13 56 4B"), "") << "caught by the ROM loader";
}

TEST(Ag33xxModels, Ag3352ApplicationLoaderMayHaveItsOwnRate) {
    Ag3352Module module;
    module.start_baud = 460800;
    Talk talk(module);
    EXPECT_EQ(module.baud, 460800U);
    EXPECT_EQ(talk.say("09 13 56 4B"), "4D 3A FC AA");
}

TEST(Ag33xxModels, Ag3352ChangesItsRate) {
    Ag3352Module module;
    Talk talk(module);
    start_loader(talk);
    EXPECT_EQ(talk.say("DC 00 00 00 01"), "DC 00 00 00 01 10 00");
    EXPECT_EQ(module.baud, 115200U);
    EXPECT_EQ(talk.say("DC 00 0E 10 00"), "DC 00 0E 10 00 00 00");
    EXPECT_EQ(module.baud, 921600U);
}

}  // namespace
}  // namespace orbix::test
