// The STA8089 upgrade, end to end: through the boot loader in flash and through the boot ROM.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "run/harness.h"
#include "run/teseo_support.h"
#include "run/unplugged.h"
#include "teseo/ram_loaders.h"
#include "teseo_chip.h"

namespace orbix::test {
namespace {

using sim::milliseconds;
using sim::NmeaTalker;
using sim::TeseoChip;
using sim::TeseoStep;
using sim::UpgradeAnswer;

constexpr const char* version_line = "[INFO] Version: STA8089_Flash_Tool_V1.0";
constexpr std::uint32_t nvm_offset = 0x00100000;

/// A module that has just been powered up: its boot loader listens, nothing is said unasked.
TeseoChip::Settings quiet() {
    auto settings = TeseoChip::sta8089();
    settings.talker.period = 0;
    return settings;
}

/// A running receiver; its boot loader has to be asked for.
TeseoChip::Settings running(UpgradeAnswer answer, sim::Micros period = milliseconds(1000)) {
    auto settings = TeseoChip::sta8089();
    settings.talker.answer = answer;
    settings.talker.period = period;
    settings.loader_listens = false;
    return settings;
}

Lines arguments(const std::string& image, const Lines& more = {}) {
    return joined({"-m", "TS30D", "-p", "COM6", "-b", "115200", "-f", image}, more);
}

/// What the entry says before the dialogue.
Lines option_lines(const std::string& image, const std::string& mode = "") {
    Lines lines{"[INFO] Module: TS30D", "[INFO] Port: COM6", "[INFO] Baud rate:115200",
                "[INFO] Firmware: " + image};
    if (!mode.empty()) {
        lines.push_back("[INFO] Mode: " + mode);
    }
    lines.emplace_back(version_line);
    return lines;
}

bool holds(TeseoChip& module, const Bytes& image) {
    return module.flash().holds(sim::teseo_flash_base, image);
}

const Lines loader_lines{"[INFO] Synchronize...",      "[INFO] Write options.",
                         "[INFO] Erase Code...",       "[INFO] Erase NVM...",
                         "[INFO] Sending Firmware...", "[INFO]  Checking CRC...",
                         "[INFO] Upgrade complete"};

class Sta8089Sizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Sta8089Sizes, FlashHoldsTheImageThroughTheBootLoader) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    TeseoChip module(quiet());
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module, image));
    EXPECT_TRUE(module.completed());
    EXPECT_EQ(module.loader().complaints, Lines{});
    EXPECT_EQ(module.flash().cells()[nvm_offset], 0xFF) << "the NVM area is erased";
    EXPECT_EQ(module.flash().cells().back(), 0xFF);
}

TEST_P(Sta8089Sizes, FlashHoldsTheImageThroughTheBootRom) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    TeseoChip module(quiet());
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image), {"-t", "boot"}));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module, image));
    EXPECT_TRUE(module.completed());
    EXPECT_EQ(module.rom().complaints, Lines{});
    EXPECT_EQ(module.flash().cells()[nvm_offset], 0xFF) << "the NVM area is erased";
}

INSTANTIATE_TEST_SUITE_P(Images, Sta8089Sizes,
                         ::testing::Values(0, 1, 5120, 5121, 16384, 16385, 600'123));

TEST(Sta8089Recovery, SaysEachStepAndAsksForPower) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(100));
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(path, {"-t", "recovery"}));

    EXPECT_EQ(run.family_lines(), joined(option_lines(path, "recovery"), prompted(loader_lines)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(run.left_open);
}

TEST(Sta8089Recovery, WithoutModeNobodyIsAskedForPower) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(100));
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(path));

    EXPECT_EQ(run.family_lines(), joined(option_lines(path), loader_lines));
}

TEST(Sta8089Recovery, BytesOnTheWire) {
    const TempDir folder;
    const Bytes image = random_image(3);
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", image)));

    // The CRC is read back from the record: the model has checked it.
    const Bytes record = module.loader().options();
    ASSERT_EQ(record.size(), 20U);
    EXPECT_EQ(as_hex(std::span(record).first(8)), "01 00 00 01 03 00 00 00");
    EXPECT_EQ(as_hex(std::span(record).subspan(12)), "00 00 10 00 00 00 10 00");
    Bytes expected = hex("F4 01 D5 BC FF FF FF FF A3");
    append(expected, record);
    expected.push_back('J');
    append(expected, image);
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_EQ(as_hex(run.received), "73 40 98 83 CC CC CC CC CC CC CC");
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

TEST(Sta8089Recovery, StaysAt115200WhateverThePortWasOpenedWith) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, {"-m", "TS30D", "-p", "COM6", "-b", "9600", "-f",
                               folder.write("app.bin", random_image(10))});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{9600, 115200}));
}

TEST(Sta8089Recovery, NoPauseBehindTheOptions) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_LE(time_of(run, "Erase Code...") - time_of(run, "Write options."), 10);
}

TEST(Sta8089Recovery, ProgressIsCountedPerPieceAndSpeedOverTheWholeDialogue) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(20'000))));

    expect_progress_per_piece(run);
}

TEST(Sta8089Recovery, SilentModuleIsGivenUpAfterFiveSeconds) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(path, {"-t", "recovery"}));

    EXPECT_EQ(
        run.family_lines(),
        joined(option_lines(path, "recovery"),
               {"[INFO] Synchronize...", "[INFO] Please power up the module within 5s.",
                "[ERROR] SYNC time out 5000 ms", "[ERROR] Sync module failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.duration_ms, 5500U);
    EXPECT_LE(run.duration_ms, 5510U);
    EXPECT_NEAR(static_cast<double>(module.heard.size()), 5000 / 1.694 * 8, 50)
        << "a word of 0.7 ms, then 1 ms for the answer";
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta8089Recovery, AnswerWordInTwoPiecesIsFound) {
    const TempDir folder;
    TeseoChip module(quiet());
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::delay,
                          .direction = sim::Direction::to_host,
                          .byte = 2,
                          .amount = 20}};
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))), conditions);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Sta8089Recovery, AnswerWordBehindItsOwnFirstByteIsMissed) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::sync) {
            answer = hex("73 73 40 98 83");
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.count("SYNC time out 5000 ms"), 1U);
}

TEST(Sta8089Recovery, VerdictInOneBurstWithTheLastAnswerIsNotSeen) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(20'000));
    auto settings = quiet();
    settings.loader.times.check = 0;
    TeseoChip module(settings);
    const ToolRun run(module, arguments(path));
    Lines expected = joined(option_lines(path), loader_lines);
    expected.back() = "[ERROR] ACK time out 30000 ms";
    expected.emplace_back("[ERROR] Send the firmware package failed, upgrade failed.");
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_TRUE(module.completed()) << "the module has said yes, in a read that was not looked at";
}

TEST(Sta8089Recovery, AnswerToAPieceIsReadUpToTenBytes) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::piece) {
            answer.resize(10, sim::teseo_ack);
            answer.push_back(0x55);
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.count("[ERROR] ACK not expected [55]\n"), 1U) << "the eleventh is the verdict";
}

TEST(Sta8089Recovery, SimulatedLoaderReadsItsFlashBeforeTheVerdict) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    ASSERT_GE(run.trace.size(), 2U);
    const sim::TracedByte& verdict = run.trace.back();
    const sim::TracedByte& last_answer = run.trace[run.trace.size() - 2];
    EXPECT_EQ(verdict.direction, sim::Direction::to_host);
    EXPECT_EQ(last_answer.direction, sim::Direction::to_host);
    EXPECT_GE(verdict.time - last_answer.time, milliseconds(50));
}

TEST(Sta8089Recovery, FloodOfARunningReceiverDoesNotHideTheAnswer) {
    const TempDir folder;
    auto settings = TeseoChip::sta8089();
    settings.talker.period = milliseconds(100);
    TeseoChip module(settings);
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.result(), upgrade_success);
}

const LoaderFailure loader_failures[] = {
    {TeseoStep::sync_confirmed, 1, "3000", "[ERROR] Sync module failed.Upgrade failed."},
    {TeseoStep::ready, 2, "500", options_failed},
    {TeseoStep::initialised, 2, "500", options_failed},
    {TeseoStep::code_erased, 3, "30000", options_failed},
    {TeseoStep::nvm_erased, 4, "30000", options_failed},
    {TeseoStep::piece, 5, "3000", image_failed},
    {TeseoStep::image_checked, 6, "30000", image_failed},
};

class Sta8089LoaderFailures : public ::testing::TestWithParam<LoaderFailure> {
  protected:
    /// Lines of a run whose answer to the step in question is replaced, and all after it silenced.
    void expect_failure(const Bytes& replacement, const std::string& line) {
        const LoaderFailure& failure = GetParam();
        const TempDir folder;
        const std::string path = folder.write("app.bin", random_image(10));
        TeseoChip module(quiet());
        module.loader().tamper = answering_wrongly(failure.step, replacement);
        const ToolRun run(module, arguments(path));
        expect_failed_run(run, failed_lines(option_lines(path), loader_lines, failure, line));
        duration_ms = run.duration_ms;
    }
    std::uint64_t duration_ms = 0;
};

TEST_P(Sta8089LoaderFailures, Refusal) {
    expect_failure({sim::teseo_refusal}, "[ERROR] ACK not expected [33]");
}

TEST_P(Sta8089LoaderFailures, Silence) {
    expect_failure({}, "[ERROR] ACK time out " + std::string(GetParam().limit) + " ms");
    EXPECT_GE(duration_ms, std::strtoul(GetParam().limit, nullptr, 10));
}

TEST_P(Sta8089LoaderFailures, OnlyTheFirstByteOfAnAnswerCounts) {
    expect_failure({0x00, sim::teseo_ack}, "[ERROR] ACK not expected [00]");
}

INSTANTIATE_TEST_SUITE_P(Steps, Sta8089LoaderFailures, ::testing::ValuesIn(loader_failures));

TEST(Sta8089Recovery, BytesBehindAnAcknowledgementAreDropped) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::sync_confirmed || step == TeseoStep::piece) {
            answer.push_back(0x55);
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(20'000))));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Sta8089Recovery, WrongImageIsRefusedByItsCrc) {
    const TempDir folder;
    TeseoChip module(quiet());
    Conditions conditions;  // 8 sync bytes, 0xA3, 20 bytes of options, 'J', then the image
    conditions.faults = {{.kind = sim::FaultKind::flip, .byte = 8 + 1 + 20 + 1 + 7, .amount = 1}};
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(100))), conditions);
    EXPECT_EQ(run.count("[ERROR] ACK not expected [33]"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8089Recovery, ImageThatVanishesIsNamed) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    TeseoChip module(quiet());
    module.loader().tamper =
        when_answering(TeseoStep::nvm_erased, [&path] { std::filesystem::remove(path); });
    const ToolRun run(module, arguments(path));
    Lines expected = joined(option_lines(path), loader_lines);
    expected.resize(expected.size() - 3);
    expected.push_back("[ERROR] Firmware " + path + " open failed.");
    expected.emplace_back(image_failed);
    expect_failed_run(run, expected);
}

TEST(Sta8089Recovery, ImageThatShrinksIsNoSuccess) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(20'000));
    TeseoChip module(quiet());
    module.loader().tamper = when_answering(TeseoStep::nvm_erased,
                                            [&path] { std::filesystem::resize_file(path, 16384); });
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.count("[INFO]  Checking CRC...\n"), 1U) << "each piece was acknowledged";
    EXPECT_EQ(run.count("[ERROR] ACK time out 30000 ms\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8089Recovery, ImageThatDoesNotFitIsRefused) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(nvm_offset + 1))));
    EXPECT_EQ(run.count("[ERROR] ACK not expected [33]"), 1U);
    EXPECT_EQ(run.count(options_failed), 1U);
}

TEST(Sta8089Normal, TheRunningReceiverIsAskedForItsBootLoader) {
    const TempDir folder;
    const Bytes image = random_image(100);
    const std::string path = folder.write("app.bin", image);
    TeseoChip module(running(UpgradeAnswer::accepted, milliseconds(60)));
    const ToolRun run(module, arguments(path, {"-t", "normal"}));

    const Lines answer{"[INFO] $PSTMFWUPGRADEOK*5F"};
    EXPECT_EQ(run.family_lines(),
              joined(option_lines(path, "normal"), joined(answer, loader_lines)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module, image));
    const std::string request = "$PSTMFWUPGRADE*5B\r\n";
    EXPECT_EQ(std::string(run.sent.begin(), run.sent.begin() + 19), request);
}

TEST(Sta8089Normal, ReceiverAtAnotherRate) {
    const TempDir folder;
    TeseoChip module(running(UpgradeAnswer::accepted));
    module.start_baud = 9600;
    const std::string path = folder.write("app.bin", random_image(10));
    const ToolRun run(module,
                      {"-m", "TS30D", "-p", "COM6", "-b", "9600", "-f", path, "-t", "normal"});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{9600, 115200}));

    TeseoChip other(running(UpgradeAnswer::accepted));
    other.start_baud = 9600;
    EXPECT_EQ(ToolRun(other, arguments(path, {"-t", "normal"})).result(), upgrade_failure(-1))
        << "asked at a rate that it does not understand";
}

TEST(Sta8089Normal, RefusalOfTheModule) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    TeseoChip module(running(UpgradeAnswer::refused));
    const ToolRun run(module, arguments(path, {"-t", "normal"}));
    EXPECT_EQ(run.family_lines(), joined(option_lines(path, "normal"),
                                         {"[ERROR] An error occurs at the module end.",
                                          "[ERROR] Send upgrade command failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8089Normal, SilentModuleIsAskedForPower) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    auto settings = quiet();
    settings.talker.answer = UpgradeAnswer::none;
    TeseoChip module(settings);
    const ToolRun run(module, arguments(path, {"-t", "normal"}));

    const Lines fall_back{"[INFO] Unable to find nmea presence, enter recovery mode to upgrade."};
    EXPECT_EQ(run.family_lines(),
              joined(option_lines(path, "normal"), joined(fall_back, prompted(loader_lines))));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_GE(time_of(run, "Unable to find"), 11 * 600) << "11 reads of 500 ms, each with a pause";
    EXPECT_LE(time_of(run, "Unable to find"), 11 * 600 + 5);
    const std::string sent(run.sent.begin(), run.sent.end());
    EXPECT_EQ(sent.find("$PSTM", 1), std::string::npos) << "the request is sent once";
}

TEST(Sta8089Normal, SentencesWithoutAnAnswerAreAFailure) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    auto settings = running(UpgradeAnswer::none);
    settings.loader_listens = true;
    TeseoChip module(settings);
    const ToolRun run(module, arguments(path, {"-t", "normal"}));
    EXPECT_EQ(run.family_lines(), joined(option_lines(path, "normal"),
                                         {"[ERROR] Send upgrade command failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.sent.size(), 19U) << "nothing but the request";
}

/// Answers the request with given texts, each a while after the one before.
class ScriptedReceiver : public SilentModule {
  public:
    explicit ScriptedReceiver(Lines texts) : texts_(std::move(texts)) {}
    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        SilentModule::receive(byte, now, wire);
        if (heard.size() != 19) {
            return;
        }
        sim::Micros delay = 0;
        for (const std::string& text : texts_) {
            delay += milliseconds(40);
            wire.send(text, delay);
        }
    }

  private:
    Lines texts_;
};

enum class Outcome : std::uint8_t { accepted, failed, fell_back };

Outcome outcome_of(const Lines& texts) {
    const TempDir folder;
    ScriptedReceiver module(texts);
    const ToolRun run(
        module, arguments(folder.write("app.bin", random_image(10)), {"-t", "normal", "-R", "0"}));
    if (run.count("Unable to find nmea presence") != 0) {
        return Outcome::fell_back;
    }
    if (run.count("Send upgrade command failed") != 0) {
        return Outcome::failed;
    }
    EXPECT_EQ(run.count("PSTMFWUPGRADEOK"), 1U);
    return Outcome::accepted;
}

TEST(Sta8089Normal, ChecksumOfTheAnswerDoesNotMatter) {
    EXPECT_EQ(outcome_of({"$PSTMFWUPGRADEOK*00\r\n"}), Outcome::accepted);
    EXPECT_EQ(outcome_of({"$XPSTMFWUPGRADEOKX\r\n"}), Outcome::accepted);
}

TEST(Sta8089Normal, AnswerBehindNoiseAndOtherSentences) {
    EXPECT_EQ(outcome_of({"...$GPRMC,1*00\r\n\x01$PSTMFWUPGRADEOK*5F\r\n"}), Outcome::accepted);
    EXPECT_EQ(outcome_of({"$GPRMC*00\r\n", "$GPGGA*00\r\n", "$PSTMFWUPGRADEOK*5F\r\n"}),
              Outcome::accepted);
}

TEST(Sta8089Normal, AnswerThatComesTooLate) {
    Lines eleven(11, "$GPRMC*00\r\n");
    eleven.emplace_back("$PSTMFWUPGRADEOK*5F\r\n");
    EXPECT_EQ(outcome_of(eleven), Outcome::accepted) << "a pause holds several sentences";
    EXPECT_EQ(outcome_of(Lines(400, "$GPRMC*00\r\n")), Outcome::failed);
}

TEST(Sta8089Normal, SentenceWithABlankIsBrokenOff) {
    EXPECT_EQ(outcome_of({"$PSTMFWUPGRADEOK, all well*00\r\n"}), Outcome::fell_back);
    EXPECT_EQ(outcome_of({"$GPTXT,a blank*00\r\n$GPRMC*00\r\n"}), Outcome::failed);
    EXPECT_EQ(outcome_of({"$GPTXT,a blank*00\r\n$PSTMFWUPGRADEOK*5F\r\n"}), Outcome::accepted);
}

TEST(Sta8089Normal, WhatWasBrokenOffStandsBeforeTheNextSentence) {
    const TempDir folder;
    ScriptedReceiver module({"$A$B C*00\r\n$PSTMFWUPGRADEOK*5F\r\n"});
    const ToolRun run(module,
                      arguments(folder.write("app.bin", random_image(10)), {"-t", "normal"}));
    // The scan goes on behind the dollar sign where it began, and meets "$B" twice.
    EXPECT_EQ(run.count("[INFO] $A$B$B$PSTMFWUPGRADEOK*5F\n"), 1U);

    // The answer may stand in what was broken off.
    ScriptedReceiver chatty({"$PSTMFWUPGRADEOK, all well*00\r\n$GPRMC*00\r\n"});
    const ToolRun broken_off(
        chatty, arguments(folder.write("app.bin", random_image(10)), {"-t", "normal"}));
    EXPECT_EQ(broken_off.count("[INFO] $PSTMFWUPGRADEOK,$GPRMC*00\n"), 1U);
}

TEST(Sta8089Normal, IncompleteSentencesAreNoPresence) {
    EXPECT_EQ(outcome_of({"$PSTMFWUPGRADEOK*5F"}), Outcome::fell_back);
    EXPECT_EQ(outcome_of({"$PSTMFWUPGRADEOK*5F\rX"}), Outcome::fell_back);
    EXPECT_EQ(outcome_of({"no dollar sign\r\n"}), Outcome::fell_back);
    EXPECT_EQ(outcome_of({"$PSTMFWUPGR", "ADEOK*5F\r\n"}), Outcome::fell_back)
        << "each read is looked at from its own dollar sign on";
    EXPECT_EQ(outcome_of({"$" + std::string(300, 'A') + "\r\n"}), Outcome::fell_back);
}

TEST(Sta8089Normal, RunsDoNotShareTheDecoder) {
    EXPECT_EQ(outcome_of({"$PSTMFWUPGRADEOK"}), Outcome::fell_back);
    EXPECT_EQ(outcome_of({"$GPRMC*00\r\n"}), Outcome::failed);
}

const Lines rom_lines{"[INFO] Synchronize...",
                      "[INFO] Check baudrate...",
                      "[INFO] Change baudrate...",
                      "[INFO] Wait Host Ready...",
                      "[INFO] Sending preamble...",
                      "[INFO] bin size: 10596",
                      "[INFO] Sending bootloader...",
                      "[INFO] Send the firmware package complete.",
                      "[INFO] fw size: 10, crc32: ",
                      "[INFO] Sending binary info...",
                      "[INFO] Initializing bootloader....",
                      "[INFO] Wait for device initialization...",
                      "[INFO] Erasing program area...",
                      "[INFO] Erasing NVM area...",
                      "[INFO] Sending Firmware...",
                      "[INFO]  Checking CRC..."};

/// The lines with the CRC cut off, which the model checks.
Lines without_crc(Lines lines) {
    for (std::string& line : lines) {
        const std::size_t at = line.find("crc32: ");
        line.resize(at == std::string::npos ? line.size() : at + 7);
    }
    return lines;
}

TEST(Sta8089Boot, SaysEachStepAndCarriesTheLoaderIntoRam) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(path, {"-t", "boot"}));

    EXPECT_EQ(without_crc(run.family_lines()), joined(option_lines(path, "boot"), rom_lines));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.closes, 1);
    const auto& loader = sta9100::sta8089_bootloader_Bx_buffer;
    EXPECT_TRUE(std::equal(loader.begin(), loader.end(), module.rom().ram().begin(),
                           module.rom().ram().end()));
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

TEST(Sta8089Boot, LoaderProgressEndsBelow100) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module,
                      arguments(folder.write("app.bin", random_image(5121)), {"-t", "boot"}));
    const Lines lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ((Lines(lines.begin(), lines.begin() + 3)),
              (Lines{"[PROGRESS] 46.92%", "[PROGRESS] 93.84%", "[PROGRESS] 97.10%"}));
    EXPECT_EQ(lines[3], "[PROGRESS] 99.98%");
    EXPECT_EQ(lines[4], "[SPEED] 5120 Bytes/5121 Bytes    0 KBps") << "the clock starts here";
    EXPECT_EQ(lines[5], "[PROGRESS] 100.00%");
}

TEST(Sta8089Boot, BytesOnTheWire) {
    const TempDir folder;
    const Bytes image = random_image(10);
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", image), {"-t", "boot"}));

    Bytes expected =
        hex("40 1A 5D 21 71 00 C2 01 00 38 5A"
            "F4 01 D5 BC 73 40 98 83 04 01 FF 00 00 00 00 00"
            "AD F0 E6 F8 64 29 00 00 00 00 00 00");
    append(expected, sta9100::sta8089_bootloader_Bx_buffer);
    expected.push_back('J');
    const Bytes info = module.rom().info();
    ASSERT_EQ(info.size(), 56U);
    EXPECT_EQ(as_hex(std::span(info).first(8)), "0A 00 00 00 01 00 00 00");
    EXPECT_EQ(as_hex(std::span(info).subspan(12)),
              "00 00 00 10 00 00 00 00 01 00 00 00 00 00 00 00 00 00 10 00 00 00 10 00 "
              "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    append(expected, info);
    append(expected, image);
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
}

/// The steps that STA9100 does not have.
struct RomFailure {
    TeseoStep step;
    const char* last_line;
    const char* limit;
    const char* summary;
};

class Sta8089BootFailures : public ::testing::TestWithParam<RomFailure> {};

TEST_P(Sta8089BootFailures, SilenceAndRefusal) {
    const RomFailure& failure = GetParam();
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const bool refused : {false, true}) {
        TeseoChip module(quiet());
        module.rom().tamper = [&](TeseoStep step, Bytes& answer) {
            if (step >= failure.step) {
                answer = refused && step == failure.step ? Bytes{0xE7} : Bytes{};
            }
        };
        const ToolRun run(module, arguments(path, {"-t", "boot"}));
        const Lines lines = run.family_lines();
        ASSERT_GE(lines.size(), 3U);
        EXPECT_EQ(lines[lines.size() - 3], failure.last_line);
        EXPECT_EQ(lines[lines.size() - 2],
                  refused ? "[ERROR] ACK not expected [e7]"
                          : "[ERROR] ACK time out " + std::string(failure.limit) + " ms");
        EXPECT_EQ(lines.back(), failure.summary);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, Sta8089BootFailures,
    ::testing::Values(RomFailure{TeseoStep::rate_confirmed, "[INFO] Change baudrate...", "3500",
                                 "[ERROR] Change Baud Rate failed.Upgrade failed."},
                      RomFailure{TeseoStep::nvm_erased, "[INFO] Erasing NVM area...", "60000",
                                 "[ERROR] Send Firmware failed.Upgrade failed."}));

TEST(Sta8089Boot, PlaceholderOfTheLoaderIsHintedAt) {
    const TempDir folder;
    TeseoChip module(quiet());
    ::testing::internal::CaptureStderr();
    const ToolRun run(module, arguments(folder.write("app.bin", Bytes{1}), {"-t", "boot"}));
    const std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors.starts_with("hint: "), sta9100::sta8089_bootloader_is_placeholder) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), errors.empty() ? 0 : 1);
    EXPECT_EQ(run.count("hint"), 0U);
}

TEST(Sta8089Options, UnknownModeEndsAtOnce) {
    SilentModule module;
    const ToolRun run(module, {"-m", "TS30D", "-t", "fast", "-p", "COM6"});
    EXPECT_EQ(run.family_lines(), (Lines{"[INFO] Module: TS30D", "[INFO] Mode: fast",
                                         "[ERROR] unknow flash mode fast, FAIL"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.opens, 0);
}

TEST(Sta8089Options, UnknownOptionIsUsageAndNoFailure) {
    SilentModule module;
    for (const Lines& wrong : {Lines{"-c", "gnss"}, Lines{"-x"}}) {
        Lines words{"-m", "TS30D"};
        words.insert(words.end(), wrong.begin(), wrong.end());
        words.insert(words.end(), {"-p", "COM6"});
        const ToolRun run(module, words);
        EXPECT_EQ(run.count(" Usage: orbix_flash [options...]\n"), 1U);
        EXPECT_EQ(run.count("[INFO] Port"), 0U) << "the rest of the line is not read";
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Sta8089Options, VersionEndsTheRunWithoutAResultLine) {
    SilentModule module;
    const ToolRun run(module, {"-m", "TS30D", "-v", "-p", "COM6"});
    EXPECT_EQ(run.result(), version_line);
    EXPECT_EQ(run.count("Version:"), 1U);
    EXPECT_EQ(run.status, -1);
    EXPECT_EQ(run.opens, 0);
}

TEST(Sta8089Options, MissingParameters) {
    const std::string missing =
        "[ERROR] Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m TS30D "
        "-p /dev/ttyUSB0 -f ../TS30D_UPG.bin -b 115200 -t recovery, FAIL";
    SilentModule module;
    for (const Lines& words :
         {Lines{"-m", "TS30D"}, Lines{"-m", "TS30D", "-p", "COM6", "-b", "115200"},
          Lines{"-m", "TS30D", "-p", "COM6", "-f", "x"},
          Lines{"-m", "TS30D", "-p", "COM6", "-f", "x", "-b", "no number"},
          Lines{"-m", "TS30D", "-f", "x", "-b", "115200"},
          Lines{"-m", "TS30D", "-p", "", "-f", "x", "-b", "115200"}}) {
        const ToolRun run(module, words);
        const Lines lines = run.family_lines();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2], version_line);
        EXPECT_EQ(lines.back(), missing);
        EXPECT_EQ(run.result(), upgrade_failure(258));
    }
}

TEST(Sta8089Options, FirmwareThatCannotBeReadIsNotStartedWith) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun absent(module, arguments(folder.path("absent.bin")));
    EXPECT_EQ(absent.family_lines().back(), "[ERROR] Fail to access " + folder.path("absent.bin") +
                                                ", errno: 2 (No such file or directory)");
    EXPECT_EQ(absent.result(), upgrade_failure(259));

    const ToolRun directory(module, arguments(folder.path()));
    EXPECT_EQ(directory.family_lines().back(), "[ERROR] Fail to access " + folder.path() +
                                                   ", errno: " + std::to_string(EISDIR) + " (" +
                                                   std::strerror(EISDIR) + ")");
    EXPECT_EQ(directory.result(), upgrade_failure(259));
    EXPECT_EQ(directory.opens, 0);
}

TEST(Sta8089Options, PortThatCannotBeOpened) {
    const TempDir folder;
    SilentModule module;
    Lines words = arguments(folder.write("app.bin", random_image(10)));
    words[3] = "COM1234567890123456789012345";
    const ToolRun run(module, words);
    EXPECT_EQ(run.count("[INFO] Port: COM12345678901234567\n"), 1U) << "20 characters count";
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to open COM12345678901234567");
    EXPECT_EQ(run.result(), upgrade_failure(260));
}

TEST(Sta8089Options, LongArgumentsAreCutNotOverrun) {
    SilentModule module;
    const std::string longest(5000, 'x');
    const ToolRun run(module,
                      {"-m", "TS30D", "-p", "COM6", "-b", "115200", "-f", longest, "-t", longest});
    EXPECT_EQ(run.count("[INFO] Firmware: " + longest.substr(0, 255) + "\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8089Options, DebugDumpsTheTraffic) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10)), {"-D"}));
    EXPECT_EQ(run.count(" debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < f4 01 d5 bc ff ff ff ff \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < a3 \n"), 1U);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Sta8089Faults, UnpluggedAtAnyByteTheRunFails) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(6000));
    for (const std::string mode : {"normal", "boot"}) {
        SCOPED_TRACE(mode);
        expect_failure_wherever_unplugged(
            [&](const Conditions& conditions) {
                TeseoChip module(running(UpgradeAnswer::accepted));
                return ToolRun(module, arguments(path, {"-t", mode}), conditions);
            },
            {.start = 100, .step_at_start = 1, .step = 3001, .closes = 1, .most_ms = 130'000});
    }
}

TEST(Sta8089Faults, PowerCycledModuleFailsTheRun) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(40'000));
    for (const std::uint64_t byte : {5U, 20U, 29U, 1000U, 39'000U}) {
        TeseoChip module(quiet());
        Conditions conditions;
        conditions.faults = {{.kind = sim::FaultKind::power_cycle, .byte = byte}};
        const ToolRun run(module, arguments(path), conditions);
        EXPECT_EQ(run.result(), byte == 5 ? upgrade_success : upgrade_failure(-1)) << byte;
    }
}

}  // namespace
}  // namespace orbix::test
