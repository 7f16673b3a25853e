// The STA8100 upgrade, end to end in its four ways: the running firmware's agent, the application
// processor's boot loader, the boot loader in the chip's flash, and the chip's boot ROM.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "run/harness.h"
#include "run/teseo_support.h"
#include "run/unplugged.h"
#include "sta8100_module.h"
#include "teseo/app_boot.h"

namespace orbix::test {
namespace {

using sim::AppStep;
using sim::milliseconds;
using sim::Sta8100Module;
using sim::TeseoStep;
using sim::UpgradeAnswer;

constexpr const char* version_line = "[INFO] Version: STA8100_Flash_Tool_V1.0";
constexpr std::uint32_t nvm_offset = 0x000FF000;

Lines arguments(const std::string& image, const Lines& more = {}) {
    return joined({"-m", "TS50A", "-p", "COM6", "-b", "115200", "-f", image}, more);
}

/// What the entry says before the dialogue; `choice` is its Mode or Flash area line.
Lines option_lines(const std::string& image, const std::string& choice = "") {
    Lines lines{"[INFO] Module: TS50A", "[INFO] Port: COM6", "[INFO] Baud rate:115200",
                "[INFO] Firmware: " + image};
    if (!choice.empty()) {
        lines.push_back("[INFO] " + choice);
    }
    lines.emplace_back(version_line);
    return lines;
}

/// A module whose boot loader has just been started: it says nothing unasked and is ready at once.
Sta8100Module::Settings quiet(std::string_view name = "TS50A") {
    auto settings = Sta8100Module::of_model(name);
    settings.chip.talker.period = 0;
    settings.chip.loader.ready_time = 0;
    return settings;
}

/// A running receiver whose boot loader has to be asked for.
Sta8100Module::Settings running(UpgradeAnswer answer, sim::Micros period = milliseconds(1000)) {
    auto settings = quiet();
    settings.chip.talker.answer = answer;
    settings.chip.talker.period = period;
    settings.chip.loader_listens = false;
    return settings;
}

/// A module whose application processor waits in its boot loader.
Sta8100Module::Settings app_waiting() {
    auto settings = quiet();
    settings.app_waits = true;
    return settings;
}

bool holds(std::span<const std::uint8_t> flash, const Bytes& image) {
    return std::equal(image.begin(), image.end(), flash.begin());
}

// --- all four ways ---

class Sta8100Sizes : public ::testing::TestWithParam<std::size_t> {
  protected:
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    const std::string path = folder.write("app.bin", image);
};

TEST_P(Sta8100Sizes, ThroughTheBootLoader) {
    Sta8100Module module(quiet());
    module.chip().flash().fill(0x00);
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(module.chip().completed());
    EXPECT_EQ(module.chip().loader().complaints, Lines{});
    const auto cells = module.chip().flash().cells();
    EXPECT_TRUE(holds(cells, image));
    EXPECT_EQ(cells[nvm_offset], 0xFF) << "the NVM area is erased";
    EXPECT_EQ(cells.back(), 0xFF);
}

TEST_P(Sta8100Sizes, ThroughTheBootRom) {
    Sta8100Module module(quiet());
    module.chip().flash().fill(0x00);
    const ToolRun run(module, arguments(path, {"-t", "boot"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.chip().completed());
    EXPECT_EQ(module.chip().rom().complaints, Lines{});
    EXPECT_TRUE(holds(module.chip().flash().cells(), image));
}

TEST_P(Sta8100Sizes, ThroughTheRunningFirmware) {
    Sta8100Module module("TS50A");
    const ToolRun run(module, arguments(path, {"-c", "slave_gnss"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.agent().completed());
    EXPECT_TRUE(holds(module.agent().area(3, image.size()), image));
}

TEST_P(Sta8100Sizes, ThroughTheApplicationProcessorsBootLoader) {
    Sta8100Module module(app_waiting());
    module.app().flash().fill(0x00);
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module.app().flash().cells(), image));
    EXPECT_EQ(module.app().flash().cells().back(), 0xFF);
}

INSTANTIATE_TEST_SUITE_P(Images, Sta8100Sizes,
                         ::testing::Values(0, 1, 255, 256, 257, 5120, 5121, 16384, 16385));

TEST(Sta8100, LargeImages) {
    const TempDir folder;
    const Bytes image = random_image(600'123);
    const std::string path = folder.write("app.bin", image);
    Sta8100Module module(quiet());
    EXPECT_EQ(ToolRun(module, arguments(path)).result(), upgrade_success);
    EXPECT_TRUE(holds(module.chip().flash().cells(), image));
    Sta8100Module waiting(app_waiting());
    EXPECT_EQ(ToolRun(waiting, arguments(path, {"-c", "app_boot"})).result(), upgrade_success);
    EXPECT_TRUE(holds(waiting.app().flash().cells(), image));
}

TEST(Sta8100, AreaGoesBeforeTheMode) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const std::string mode : {"recovery", "normal", "boot"}) {
        Sta8100Module module("TS50A");
        EXPECT_EQ(ToolRun(module, arguments(path, {"-t", mode, "-c", "app"})).result(),
                  upgrade_success);
        EXPECT_TRUE(module.agent().completed());
        Sta8100Module other(app_waiting());
        EXPECT_EQ(ToolRun(other, arguments(path, {"-t", mode, "-c", "app_boot"})).result(),
                  upgrade_success);
        EXPECT_TRUE(other.app().caught());
    }
}

TEST(Sta8100, RunningFirmwareIsSpokenToAtTheRateGiven) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(7000));
    Sta8100Module module("TS50A");
    module.start_baud = 460800;
    const ToolRun run(module,
                      {"-m", "TS50A", "-p", "COM6", "-b", "460800", "-f", path, "-c", "gnss"});
    EXPECT_EQ(run.family_lines(),
              (Lines{"[INFO] Module: TS50A", "[INFO] Port: COM6", "[INFO] Baud rate:460800",
                     "[INFO] Firmware: " + path, "[INFO] Flash area: gnss", version_line,
                     "[INFO] Synchronize...", "[INFO] Please power up the module within 10s.",
                     "[INFO] Send Firmware Address...", "[INFO] Send Firmware Information...",
                     "[INFO] Send Firmware Upgrade Command...", "[INFO] Sending Firmware..."}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{460800});
    EXPECT_FALSE(run.left_open);
}

TEST(Sta8100, FailedStepOfTheRunningFirmwareHasItsLine) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(path, {"-c", "slave_boot"}));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync module failed.Upgrade failed.");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_FALSE(run.left_open);
}

// --- the table of modules ---

struct NamedWords {
    const char* name;
    const char* words;  ///< the last 8 bytes of the options record
};

constexpr const char* two_mebibytes = "00 F0 0F 00 00 10 10 00";
constexpr const char* four_mebibytes = "00 F0 1F 00 00 10 20 00";

class Sta8100Names : public ::testing::TestWithParam<NamedWords> {};

TEST_P(Sta8100Names, OptionsRecordCarriesTheWordsOfTheModule) {
    const TempDir folder;
    Sta8100Module module(quiet(GetParam().name));
    const ToolRun run(module, {"-m", GetParam().name, "-p", "COM6", "-b", "115200", "-f",
                               folder.write("app.bin", random_image(10))});
    EXPECT_EQ(run.result(), upgrade_success);
    const auto& record = module.chip().loader().options();
    ASSERT_EQ(record.size(), 20U);
    EXPECT_EQ(as_hex(std::span(record).subspan(12)), GetParam().words);
}

INSTANTIATE_TEST_SUITE_P(
    Table, Sta8100Names,
    ::testing::Values(NamedWords{"TS50A", two_mebibytes}, NamedWords{"TS50A-EXT", two_mebibytes},
                      NamedWords{"TS50B", two_mebibytes}, NamedWords{"TS50C", two_mebibytes},
                      NamedWords{"TS51A", two_mebibytes}, NamedWords{"TS51B", two_mebibytes},
                      NamedWords{"TS52A", two_mebibytes},
                      NamedWords{"TS52A-L", "00 F0 0F 00 00 90 0F 00"},
                      NamedWords{"TS52B", two_mebibytes}, NamedWords{"TS60A", four_mebibytes},
                      NamedWords{"TS60A-H", four_mebibytes}, NamedWords{"TS60B", four_mebibytes},
                      NamedWords{"TS61A", four_mebibytes}, NamedWords{"TS61B", four_mebibytes},
                      NamedWords{"TS62A", four_mebibytes}, NamedWords{"TS62B", four_mebibytes},
                      NamedWords{"TS65A", four_mebibytes}, NamedWords{"TS65B", four_mebibytes}));

TEST(Sta8100, SecondModuleNameIsLookedUpFromTheRowOfTheFirst) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    const auto words_for = [&path](const std::string& first, const std::string& second) {
        Sta8100Module module(quiet());
        const ToolRun run(module,
                          {"-m", first, "-m", second, "-p", "COM6", "-b", "115200", "-f", path});
        const auto& record = module.chip().loader().options();
        return record.size() == 20 ? as_hex(std::span(record).subspan(12))
                                   : run.family_lines().back();
    };
    EXPECT_EQ(words_for("TS50A", "TS60A"), four_mebibytes);
    EXPECT_EQ(words_for("TS60A", "TS50A"), four_mebibytes) << "its row has been passed";
    EXPECT_EQ(words_for("TS60A", "TS60A"), four_mebibytes) << "the row itself is looked at again";
    EXPECT_EQ(words_for("nothing", "TS50A"), "[ERROR] Parameter call error.");
    EXPECT_EQ(words_for("TS50", "TS50A"), "[ERROR] Parameter call error.")
        << "a row's name is no prefix of a shorter one";
}

TEST(Sta8100, UnknownModuleFailsOnceThePortIsOpen) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(quiet());
    const ToolRun run(module, joined({"-m", "TS99"}, arguments(path, {"-t", "boot"})));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Parameter call error.");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
    EXPECT_TRUE(run.sent.empty());
    // An area needs no module name.
    Sta8100Module with_area(app_waiting());
    EXPECT_EQ(
        ToolRun(with_area, joined({"-m", "TS99"}, arguments(path, {"-c", "app_boot"}))).result(),
        upgrade_success);
}

// --- the boot loader in flash ---

const Lines loader_lines{"[INFO] Synchronize...",      "[INFO] Write options.",
                         "[INFO] Erase Code...",       "[INFO] Erase NVM...",
                         "[INFO] Sending Firmware...", "[INFO]  Checking CRC..."};

TEST(Sta8100Recovery, SaysEachStepAndAsksForPower) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(100));
    Sta8100Module module(quiet());
    const ToolRun run(module, arguments(path, {"-t", "recovery"}));
    EXPECT_EQ(run.family_lines(),
              joined(option_lines(path, "Mode: recovery"), prompted(loader_lines)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta8100Recovery, WithoutModeNobodyIsAskedForPower) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(100));
    Sta8100Module module(quiet());
    EXPECT_EQ(ToolRun(module, arguments(path)).family_lines(),
              joined(option_lines(path), loader_lines));
}

TEST(Sta8100Recovery, BytesOnTheWireAndRates) {
    const TempDir folder;
    const Bytes image{'A', 'B', 'C'};
    Sta8100Module module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", image)));
    Bytes expected;
    for (int count = 0; count < 1000; ++count) {
        append(expected, hex("F4 01 D5 BC FF FF FF FF"));
    }
    append(expected,
           hex("A3 01 00 00 02 03 00 00 00 B9 1F 46 F0 00 F0 0F 00 00 10 10 00 4A 41 42 43"));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 230400}));
}

TEST(Sta8100Recovery, CatchesTheLoaderAt115200WhateverThePortWasOpenedWith) {
    const TempDir folder;
    Sta8100Module module(quiet());
    const ToolRun run(module, {"-m", "TS50A", "-p", "COM6", "-b", "9600", "-f",
                               folder.write("app.bin", random_image(10))});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{9600, 115200, 230400}));
}

TEST(Sta8100Recovery, ProgressIsCountedPerPieceAndSpeedOverTheWholeDialogue) {
    const TempDir folder;
    Sta8100Module module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(20'000))));
    expect_progress_per_piece(run);
}

TEST(Sta8100Recovery, SilentModuleIsGivenUpAfterFiveSecondsWithoutAnEntryLine) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(path, {"-t", "recovery"}));
    EXPECT_EQ(run.family_lines(),
              joined(option_lines(path, "Mode: recovery"),
                     {"[INFO] Synchronize...", "[INFO] Please power up the module within 5s.",
                      "[ERROR] SYNC time out 5000 ms"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    // The pass under way after five seconds, the eighth, is brought to its end.
    constexpr double pass_ms = 8000 * 10 / 115.2 + 5;
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 500 + 8 * pass_ms, 8);
    EXPECT_EQ(run.sent.size() % 8000, 0U);
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta8100Recovery, LoaderMayTakeItsTimeBehindTheOptions) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    auto settings = quiet();
    settings.chip.loader.ready_time = milliseconds(20'000);
    Sta8100Module module(settings);
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.result(), upgrade_success);
    // A second passes before the first knock, then each one waits 500 ms.
    EXPECT_EQ(run.count("[ERROR] ACK time out 500 ms\n"), 38U);
}

TEST(Sta8100Recovery, GivesTheLoaderUpAfter51Knocks) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    auto settings = quiet();
    settings.chip.loader.ready_time = milliseconds(60'000);
    Sta8100Module module(settings);
    const ToolRun run(module, arguments(path));
    Lines expected = joined(option_lines(path), {loader_lines[0], loader_lines[1]});
    expected.insert(expected.end(), 51, "[ERROR] ACK time out 500 ms");
    expected.emplace_back("[ERROR] Write binary image options failed, upgrade failed.");
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

const LoaderFailure loader_failures[] = {
    {TeseoStep::sync_confirmed, 1, "10000", ""},
    {TeseoStep::initialised, 2, "500", options_failed},
    {TeseoStep::code_erased, 3, "60000", options_failed},
    {TeseoStep::nvm_erased, 4, "60000", options_failed},
    {TeseoStep::piece, 5, "100000", image_failed},
    {TeseoStep::image_checked, 6, "60000", image_failed},
};

class Sta8100LoaderFailures : public ::testing::TestWithParam<LoaderFailure> {
  protected:
    /// A run whose answer to the step in question is replaced, and all after it silenced.
    void expect_failure(const Bytes& replacement, const std::string& line) {
        const LoaderFailure& failure = GetParam();
        const TempDir folder;
        const std::string path = folder.write("app.bin", random_image(10));
        Sta8100Module module(quiet());
        module.chip().loader().tamper = answering_wrongly(failure.step, replacement);
        const ToolRun run(module, arguments(path));
        expect_failed_run(run, failed_lines(option_lines(path), loader_lines, failure, line));
        duration_ms = run.duration_ms;
    }
    std::uint64_t duration_ms = 0;
};

TEST_P(Sta8100LoaderFailures, Refusal) {
    expect_failure({sim::teseo_refusal}, "[ERROR] ACK not expected [33]");
}

TEST_P(Sta8100LoaderFailures, Silence) {
    expect_failure({}, "[ERROR] ACK time out " + std::string(GetParam().limit) + " ms");
    EXPECT_GE(duration_ms, std::strtoul(GetParam().limit, nullptr, 10));
}

INSTANTIATE_TEST_SUITE_P(Steps, Sta8100LoaderFailures, ::testing::ValuesIn(loader_failures));

TEST(Sta8100Recovery, FirstKnockAnsweredWithSomethingElseEndsTheKnocking) {
    const TempDir folder;
    Sta8100Module module(quiet());
    module.chip().loader().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::ready) {
            answer = {0x4E};
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(run.count("[ERROR] ACK not expected [4e]\n"), 1U);
    EXPECT_EQ(run.count(options_failed), 1U);
}

TEST(Sta8100Recovery, VerdictInOneBurstWithTheLastAnswerIsNotSeen) {
    const TempDir folder;
    auto settings = quiet();
    settings.chip.loader.times.check = 0;
    Sta8100Module module(settings);
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(100))));
    EXPECT_EQ(run.count("[ERROR] ACK time out 60000 ms\n"), 1U);
    EXPECT_EQ(run.family_lines().back(), image_failed);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8100Recovery, WrongImageIsRefusedByItsCrc) {
    const TempDir folder;
    Sta8100Module module(quiet());
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::flip, .byte = 8000 + 1 + 20 + 1 + 7}};
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(100))), conditions);
    EXPECT_EQ(run.count("[ERROR] ACK not expected [33]"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

// --- from the running firmware into the boot loader ---

TEST(Sta8100Normal, TheRunningReceiverIsAskedForItsBootLoader) {
    const TempDir folder;
    const Bytes image = random_image(100);
    const std::string path = folder.write("app.bin", image);
    Sta8100Module module(running(UpgradeAnswer::accepted));
    const ToolRun run(module, arguments(path, {"-t", "normal"}));
    EXPECT_EQ(run.family_lines(), joined(option_lines(path, "Mode: normal"),
                                         joined({"[INFO] $PSTMFWUPGRADEOK*5F"}, loader_lines)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module.chip().flash().cells(), image));
    EXPECT_EQ(std::string(run.sent.begin(), run.sent.begin() + 19), "$PSTMFWUPGRADE*5B\r\n");
}

TEST(Sta8100Normal, ReceiverIsAskedAtTheRateGiven) {
    const TempDir folder;
    Sta8100Module module(running(UpgradeAnswer::accepted));
    module.start_baud = 460800;
    const ToolRun run(module, {"-m", "TS50A", "-p", "COM6", "-b", "460800", "-t", "normal", "-f",
                               folder.write("app.bin", random_image(10))});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{460800, 115200, 230400}));
}

TEST(Sta8100Normal, RefusalOfTheModule) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(running(UpgradeAnswer::refused));
    const ToolRun run(module, arguments(path, {"-t", "normal"}));
    EXPECT_EQ(run.family_lines(), joined(option_lines(path, "Mode: normal"),
                                         {"[ERROR] An error occurs at the module end.",
                                          "[ERROR] Send upgrade command failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8100Normal, WithoutAnAnswerItGoesOnAsInRecovery) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const sim::Micros period : {sim::Micros{0}, milliseconds(300)}) {
        auto settings = quiet();
        settings.chip.talker.answer = UpgradeAnswer::none;
        settings.chip.talker.period = period;  // sentences without an answer change nothing
        Sta8100Module module(settings);
        const ToolRun run(module, arguments(path, {"-t", "normal"}));
        const Lines fall_back{
            "[INFO] Unable to find nmea presence, enter recovery mode to upgrade."};
        EXPECT_EQ(run.family_lines(), joined(option_lines(path, "Mode: normal"),
                                             joined(fall_back, prompted(loader_lines))));
        EXPECT_EQ(run.result(), upgrade_success);
        if (period == 0) {
            EXPECT_NEAR(static_cast<double>(time_of(run, "Unable to find")), 6 * 600, 5);
        }
        const std::string sent(run.sent.begin(), run.sent.end());
        EXPECT_EQ(sent.find("$PSTM", 1), std::string::npos) << "the request is sent once";
    }
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

/// The first line behind the options of a run in normal mode.
std::string answer_to(const Lines& texts) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    ScriptedReceiver module(texts);
    const ToolRun run(module, arguments(path, {"-t", "normal"}));
    return run.family_lines()[option_lines(path, "x").size()];
}

const std::string fall_back_line =
    "[INFO] Unable to find nmea presence, enter recovery mode to upgrade.";

TEST(Sta8100Normal, AnswerIsFoundWhateverItsChecksum) {
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK*5F\r\n"}), "[INFO] $PSTMFWUPGRADEOK*5F");
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK*00\r\n"}), "[INFO] $PSTMFWUPGRADEOK*00");
    EXPECT_EQ(answer_to({"$X PSTMFWUPGRADEOK\r\n"}), "[INFO] $X PSTMFWUPGRADEOK");
    EXPECT_EQ(answer_to({"$PZRNFWUPGRADEERROR*00\r\n"}),
              "[ERROR] An error occurs at the module end.");
    EXPECT_EQ(answer_to({"$,PZRNFWUPGRADEERROR\r\n"}), fall_back_line);
}

TEST(Sta8100Normal, AnswerIsFoundBehindNoiseAndOtherSentences) {
    EXPECT_EQ(answer_to({"half,1*00\r\n$GPRMC,1*00\r\n\x01$PSTMFWUPGRADEOK*5F\r\n"}),
              "[INFO] $PSTMFWUPGRADEOK*5F");
    EXPECT_EQ(answer_to({"$GPRMC*00\r\n", "$GPGGA*00\r\n", "$PSTMFWUPGRADEOK*5F\r\n"}),
              "[INFO] $PSTMFWUPGRADEOK*5F");
}

TEST(Sta8100Normal, AnswerWithinASentenceThatIsTooLongCounts) {
    const std::string filling(184, 'A');
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK" + filling + "B"}), "[INFO] $PSTMFWUPGRADEOK" + filling);
    EXPECT_EQ(answer_to({"$" + filling + filling + "PSTMFWUPGRADEOK\r\n"}), fall_back_line);
}

TEST(Sta8100Normal, ZeroByteEndsTheTextOfASentence) {
    using namespace std::string_literals;
    EXPECT_EQ(answer_to({"$GPTXT\0PSTMFWUPGRADEOK*5F\r\n"s}), fall_back_line);
    EXPECT_EQ(answer_to({"$GPTXT\0$PZRNFWUPGRADEERROR*00\r\n"s}), fall_back_line);
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK\0,more*5F\r\n"s}), "[INFO] $PSTMFWUPGRADEOK");
}

TEST(Sta8100Normal, EachReadIsLookedAtFromItsOwnDollarSignOn) {
    EXPECT_EQ(answer_to({"$PSTMFWUPGR", "ADEOK*5F\r\n"}), fall_back_line);
    EXPECT_EQ(answer_to({"$GPRMC,12", "$PSTMFWUPGRADEOK*5F\r\n"}),
              "[INFO] $GPRMC,12$PSTMFWUPGRADEOK*5F")
        << "an unfinished sentence is continued by the next";
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK*5F"}), fall_back_line);
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK*5F\rX"}), fall_back_line);
    EXPECT_EQ(answer_to({"no dollar sign PSTMFWUPGRADEOK\r\n"}), fall_back_line);
}

TEST(Sta8100Normal, RunsDoNotShareTheDecoder) {
    EXPECT_EQ(answer_to({"$PSTMFWUPGRADEOK"}), fall_back_line);
    EXPECT_EQ(answer_to({"$GPRMC*00\r\n"}), fall_back_line);
}

// --- the boot ROM ---

TEST(Sta8100Boot, SpeaksTheDialogueOfStA9100) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(quiet());
    const ToolRun run(module, arguments(path, {"-t", "boot"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(as_hex(std::span(run.sent).first(9)), "FD C6 49 28 71 00 C2 01 00");
    EXPECT_EQ(run.count("[INFO] bin size: 10912\n"), 1U);
    EXPECT_EQ(run.count("Erasing NVM area..."), 0U);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta8100Boot, SilentChipFailsWithTheSyncLine) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    SilentModule module;
    const ToolRun run(module, arguments(path, {"-t", "boot"}));
    EXPECT_EQ(run.family_lines(),
              joined(option_lines(path, "Mode: boot"),
                     {"[INFO] Synchronize...", "[ERROR] Sync module failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.sent.size(), 400U);
    EXPECT_EQ(run.closes, 1);
}

// --- the application processor's boot loader ---

const Lines app_greeting{"[INFO] Readyding receive commands....", "[INFO] Get version....",
                         "[INFO] Get chip ID....", "[INFO] Read Memory..."};
const Lines app_erase{"[INFO] Write Unprotect...", "[INFO] Extended Erase Memory...",
                      "[INFO] Read Memory..."};
const std::string app_failed = "[ERROR] Sync module failed.Upgrade failed.";
const std::string wrong_response = "[INFO] Wrong response.";

Lines app_lines(const std::string& path, const Lines& more) {
    return joined(joined(option_lines(path, "Flash area: app_boot"), app_greeting), more);
}

TEST(Sta8100AppBoot, BlankProcessorIsWrittenWithoutAnErase) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", Bytes{0x11, 0x22, 0x33});
    Sta8100Module module(app_waiting());
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.family_lines(), app_lines(path, {"[INFO] Write Memory..."}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(module.app().erases, 0);
    EXPECT_EQ(as_hex(run.sent),
              "7F 00 FF 02 FD 11 EE 08 00 00 00 08 0B F4 "
              "31 CE 08 00 00 00 08 02 11 22 33 02");
    EXPECT_EQ(time_of(run, "Readyding"), 500);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta8100AppBoot, UsedAndProtectedProcessorIsUnprotectedAndErased) {
    const TempDir folder;
    const Bytes image = random_image(300);
    const std::string path = folder.write("app.bin", image);
    auto settings = app_waiting();
    settings.app.write_protected = true;
    Sta8100Module module(settings);
    module.app().flash().fill(0x00);
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.family_lines(), app_lines(path, joined(joined({wrong_response}, app_erase),
                                                         {"[INFO] Write Memory..."})));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(module.app().erases, 16);
    EXPECT_FALSE(module.app().write_protected());
    EXPECT_TRUE(holds(module.app().flash().cells(), image));
    EXPECT_TRUE(
        contains(run.sent, hex("73 8C 44 BB 00 0F 00 00 00 01 00 02 00 03 00 04 00 05 00 06 "
                               "00 07 00 08 00 09 00 0A 00 0B 00 0C 00 0D 00 0E 00 0F 0F "
                               "11 EE")));
    const std::size_t second_read = run.output.rfind("Read Memory...");
    const std::size_t line = run.output.rfind("\n[", second_read) + 2;
    const double seconds = std::strtod(&run.output[line], nullptr);
    EXPECT_GT(seconds, static_cast<double>(time_of(run, "Extended Erase")) / 1000 + 4.8)
        << "the erase takes 0.8 s, and 4 s are waited behind it";
}

TEST(Sta8100AppBoot, BlocksOf256BytesFollowEachOther) {
    const TempDir folder;
    Bytes image(65536 + 257);
    for (std::size_t index = 0; index < image.size(); ++index) {
        image[index] = static_cast<std::uint8_t>(index / 256 + 1);
    }
    Sta8100Module module(app_waiting());
    const ToolRun run(module, arguments(folder.write("app.bin", image), {"-c", "app_boot"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds(module.app().flash().cells(), image));
    EXPECT_TRUE(contains(run.sent, hex("31 CE 08 00 00 00 08 FF 01 01 01")));
    EXPECT_TRUE(contains(run.sent, hex("31 CE 08 00 FF 00 F7 FF 00 00 00")));
    EXPECT_TRUE(contains(run.sent, hex("31 CE 08 01 00 00 09 FF 01 01 01")));
    EXPECT_TRUE(contains(run.sent, hex("31 CE 08 01 01 00 08 00 02 02")));
    const Lines lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 2U * 258);
    EXPECT_EQ(lines[0], "[PROGRESS] 0.39%");
    EXPECT_EQ(lines[1], "[SPEED] 256 Bytes/65793 Bytes    0 KBps") << "the clock starts here";
    EXPECT_EQ(lines[514], "[PROGRESS] 100.00%");
}

/// A step that goes wrong, what has been said until then (behind the greeting's `greetings` lines),
/// and how many bytes the reply to it begins with that are right.
struct AppFailure {
    AppStep step;
    std::size_t greetings;
    Lines more;
};

const Lines up_to_unprotect{wrong_response, app_erase[0]};
const Lines up_to_erase{wrong_response, app_erase[0], app_erase[1]};
const Lines up_to_write = joined(joined({wrong_response}, app_erase), {"[INFO] Write Memory..."});

const AppFailure app_failures[] = {
    {AppStep::synchronise, 1, {}},
    {AppStep::get, 2, {}},
    {AppStep::get_id, 3, {}},
    {AppStep::read_command, 4, {}},
    {AppStep::read_address, 4, {}},
    {AppStep::read_data, 4, {}},
    {AppStep::unprotect_command, 4, up_to_unprotect},
    {AppStep::unprotect, 4, up_to_unprotect},
    {AppStep::erase_command, 4, up_to_erase},
    {AppStep::erase, 4, up_to_erase},
    {AppStep::write_command, 4, up_to_write},
    {AppStep::write_address, 4, up_to_write},
    {AppStep::write_data, 4, up_to_write},
};

class Sta8100AppFailures : public ::testing::TestWithParam<AppFailure> {
  protected:
    void expect_failure(const Bytes& replacement, const std::string& line) {
        const AppFailure& failure = GetParam();
        const TempDir folder;
        const std::string path = folder.write("app.bin", random_image(10));
        Sta8100Module module(app_waiting());
        module.app().flash().fill(0x00);
        module.app().tamper = [&](AppStep step, Bytes& answer) {
            if (step == failure.step) {
                answer = replacement;
            }
        };
        const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
        Lines expected = joined(option_lines(path, "Flash area: app_boot"), app_greeting);
        expected.resize(option_lines(path, "x").size() + failure.greetings);
        expected = joined(joined(expected, failure.more), {line, app_failed});
        EXPECT_EQ(run.family_lines(), expected);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_FALSE(run.left_open);
        duration_ms = run.duration_ms;
    }
    std::uint64_t duration_ms = 0;
};

TEST_P(Sta8100AppFailures, Refusal) {
    expect_failure({0x1F}, "[ERROR] NAK");
}

TEST_P(Sta8100AppFailures, Silence) {
    expect_failure({}, "[ERROR] timeout.");
    EXPECT_GE(duration_ms, 60'500U);
    EXPECT_LE(duration_ms, 67'000U);
}

TEST_P(Sta8100AppFailures, WrongByte) {
    expect_failure({0x78}, wrong_response);
}

INSTANTIATE_TEST_SUITE_P(Steps, Sta8100AppFailures, ::testing::ValuesIn(app_failures));

TEST(Sta8100AppBoot, AnswersOfAnotherProcessorAreRefused) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    struct Other {
        AppStep step;
        std::size_t byte;
        std::size_t greetings;
    };
    for (const Other& other :
         {Other{AppStep::get, 1, 2}, Other{AppStep::get, 2, 2}, Other{AppStep::get, 13, 2},
          Other{AppStep::get, 14, 2}, Other{AppStep::get_id, 1, 3}, Other{AppStep::get_id, 3, 3},
          Other{AppStep::get_id, 4, 3}}) {
        Sta8100Module module(app_waiting());
        module.app().tamper = [&other](AppStep step, Bytes& answer) {
            if (step == other.step) {
                answer[other.byte] ^= 1;
            }
        };
        const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
        EXPECT_EQ(run.family_lines()[option_lines(path, "x").size() + other.greetings],
                  wrong_response);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_FALSE(contains(run.sent, hex("31 CE")));
    }
}

TEST(Sta8100AppBoot, ReadProtectedProcessorIsLeftAlone) {
    const TempDir folder;
    auto settings = app_waiting();
    settings.app.read_protected = true;
    Sta8100Module module(settings);
    module.app().flash().fill(0x00);
    const ToolRun run(module,
                      arguments(folder.write("app.bin", random_image(10)), {"-c", "app_boot"}));
    EXPECT_EQ(run.count("[ERROR] NAK\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(module.app().erases, 0);
}

TEST(Sta8100AppBoot, EraseWithoutEffectEndsTheRun) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(app_waiting());
    module.app().tamper = [](AppStep step, Bytes& answer) {
        if (step == AppStep::read_data) {
            answer[12] = 0xFE;
        }
    };
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.family_lines(), app_lines(path, joined(joined({wrong_response}, app_erase),
                                                         {wrong_response, app_failed})));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

/// The bytes from `byte` on (counted over all that the module says) come 20 ms later.
Conditions split_at(std::uint64_t byte) {
    Conditions conditions;
    conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                 .direction = sim::Direction::to_host,
                                 .byte = byte,
                                 .amount = 20});
    return conditions;
}

/// Bytes the module has said before the list of commands, and before the 12 bytes of its flash.
constexpr std::uint64_t list_begins = 1 + 3;
constexpr std::uint64_t data_begins = 1 + 15 + 5 + 3;

TEST(Sta8100AppBoot, ReplyInTwoReadsIsPutTogether) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (std::uint64_t cut = 1; cut < 11; ++cut) {
        Sta8100Module module(app_waiting());
        EXPECT_EQ(ToolRun(module, arguments(path, {"-c", "app_boot"}), split_at(list_begins + cut))
                      .result(),
                  upgrade_success);
    }
}

TEST(Sta8100AppBoot, OfAReplyInTwoReadsOnlyAPartIsCompared) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    const auto passes = [&path](std::size_t wrong, std::uint64_t cut) {
        Sta8100Module module(app_waiting());
        module.app().tamper = [wrong](AppStep step, Bytes& answer) {
            if (step == AppStep::get) {
                answer[3 + wrong] ^= 0x80;
            }
        };
        const ToolRun run(module, arguments(path, {"-c", "app_boot"}), split_at(list_begins + cut));
        EXPECT_EQ(run.count("Wrong response."), run.result() == upgrade_success ? 0U : 1U);
        return run.result() == upgrade_success;
    };
    EXPECT_FALSE(passes(2, 6)) << "the first read is compared";
    EXPECT_TRUE(passes(7, 6)) << "the second one brings 5 bytes, fewer than stand before it";
    // After 3 bytes the second read brings 8: positions 3 to 7 are compared, 8 to 10 are not.
    EXPECT_FALSE(passes(3, 3));
    EXPECT_FALSE(passes(7, 3));
    EXPECT_TRUE(passes(8, 3));
}

TEST(Sta8100AppBoot, RefusalIsOneByteAloneInTheFirstRead) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    const auto run_with = [&path](std::size_t refusal_at, const Conditions& conditions) {
        Sta8100Module module(app_waiting());
        module.app().tamper = [refusal_at](AppStep step, Bytes& answer) {
            if (step == AppStep::get) {
                answer[3 + refusal_at] = 0x1F;
            }
        };
        return ToolRun(module, arguments(path, {"-c", "app_boot"}), conditions);
    };
    EXPECT_EQ(run_with(0, {}).count(wrong_response), 1U);
    EXPECT_EQ(run_with(0, split_at(list_begins + 1)).count("[ERROR] NAK\n"), 1U);
    EXPECT_EQ(run_with(10, split_at(list_begins + 10)).result(), upgrade_success)
        << "a later read is not looked at for one";
}

TEST(Sta8100AppBoot, UsedFlashIsTakenForBlankWhenItsReplyIsSplitBeforeTheUsedBytes) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(app_waiting());
    const Bytes used{0x00};
    module.app().flash().program(0x08000008, used);
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}), split_at(data_begins + 6));
    EXPECT_EQ(run.count("Wrong response."), 0U);
    EXPECT_EQ(module.app().erases, 0);
    Sta8100Module other(app_waiting());
    other.app().flash().program(0x08000008, used);
    EXPECT_EQ(ToolRun(other, arguments(path, {"-c", "app_boot"})).count("Wrong response."), 1U);
}

TEST(Sta8100AppBoot, ReplyThatStopsHalfWayTimesOut) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    Sta8100Module module(app_waiting());
    module.app().tamper = [](AppStep step, Bytes& answer) {
        if (step == AppStep::get) {
            answer.resize(8);
        }
    };
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.count("[ERROR] timeout.\n"), 1U);
    EXPECT_NEAR(static_cast<double>(run.duration_ms), 60'500, 20);
}

TEST(Sta8100AppBoot, ParityThatCannotBeSetFailsWithTheSameSummary) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10));
    for (const bool readable : {true, false}) {
        Sta8100Module module(app_waiting());
        Conditions conditions;
        conditions.port.settings_readable = readable;
        conditions.port.settings_writable = false;
        const ToolRun run(module, arguments(path, {"-c", "app_boot"}), conditions);
        EXPECT_EQ(run.family_lines(),
                  joined(option_lines(path, "Flash area: app_boot"),
                         {readable ? "[ERROR] Unable to set serial port configuration"
                                   : "[ERROR] Unable to obtain serial port configuration",
                          app_failed}));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_FALSE(run.left_open);
    }
}

TEST(Sta8100AppBoot, FileThatVanishesIsNamed) {
    // The routine alone: the entry does not start without the file.
    const TempDir folder;
    const std::string path = folder.path("absent.bin");
    Sta8100Module module(app_waiting());
    sim::Line line(module, {}, {}, sim::VirtualPort::start);
    const sim::VirtualPort port(line, {});
    testing::internal::CaptureStdout();
    const int result = sta8100::Kv_Boot_Send_Firmware(serial_open("COM6", 115200), path.c_str());
    const std::string output = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, -1);
    EXPECT_NE(output.find("[INFO] Write Memory...\n"), std::string::npos);
    EXPECT_NE(output.find("[ERROR] Firmware " + path + " open failed.\n"), std::string::npos);
}

TEST(Sta8100AppBoot, ImageThatShrinksDuringTheRunIsAFailure) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(20'000));
    Sta8100Module module(app_waiting());
    module.app().tamper = [&path](AppStep step, Bytes& /*answer*/) {
        if (step == AppStep::write_command) {
            std::filesystem::resize_file(path, 10'000);
        }
    };
    const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
    EXPECT_EQ(run.count("[SPEED] 10000 Bytes/20000 Bytes"), 1U);
    EXPECT_EQ(run.family_lines(), app_lines(path, {"[INFO] Write Memory...", app_failed}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta8100AppBoot, NumberOfABlockHasSixteenBits) {
    EXPECT_EQ(as_hex(sta8100::address_of_block(0)), "08 00 00 00 08");
    EXPECT_EQ(as_hex(sta8100::address_of_block(0x1234)), "08 12 34 00 2E");
    EXPECT_EQ(as_hex(sta8100::address_of_block(0xFFFF)), "08 FF FF 00 08");
    EXPECT_EQ(as_hex(sta8100::address_of_block(0x10000)), "08 00 00 00 08");
    EXPECT_EQ(as_hex(sta8100::address_of_block(0x10001)), "08 00 01 00 09");
}

TEST(Sta8100AppBoot, XorChecksum) {
    EXPECT_EQ(sta8100::calculate_xor_checksum({}), 0);
    EXPECT_EQ(sta8100::calculate_xor_checksum(hex("08 00 12 00")), 0x1A);
}

// --- options ---

TEST(Sta8100Options, UnknownModeAndAreaEndTheRunAtOnce) {
    SilentModule module;
    for (const std::string word : {"Recovery", "", "UPG", "boot1"}) {
        const ToolRun run(module, {"-m", "TS50A", "-t", word, "-p", "COM6"});
        EXPECT_EQ(run.family_lines(), (Lines{"[INFO] Module: TS50A", "[INFO] Mode: " + word,
                                             "[ERROR] unknow flash mode " + word + ", FAIL"}));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
    for (const std::string word : {"App_boot", "", "app_boot2", "18"}) {
        const ToolRun run(module, {"-m", "TS50A", "-c", word, "-p", "COM6"});
        EXPECT_EQ(run.family_lines(), (Lines{"[INFO] Module: TS50A", "[INFO] Flash area: " + word,
                                             "[ERROR] unknow flash area " + word + ", FAIL"}));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Sta8100Options, UnknownOptionIsUsageAndAFailure) {
    SilentModule module;
    for (const Lines& wrong : {Lines{"-x"}, Lines{"-l", "115200"}, Lines{"-t"}}) {
        const ToolRun run(module, joined({"-m", "TS50A", "-b", "115200"}, wrong));
        EXPECT_EQ(run.count(" Usage: orbix_flash [options...]\n"), 1U);
        EXPECT_EQ(run.count("Version:"), 0U);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Sta8100Options, VersionEndsTheRunWithoutAResultLine) {
    SilentModule module;
    const ToolRun run(module, {"-m", "TS50A", "-v", "-p", "COM6"});
    EXPECT_EQ(run.result(), version_line);
    EXPECT_EQ(run.count("Version:"), 1U);
    EXPECT_EQ(run.status, -1);
    EXPECT_EQ(run.opens, 0);
}

TEST(Sta8100Options, MissingParameters) {
    const std::string missing =
        "[ERROR] Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m TS50A "
        "-p /dev/ttyUSB0 -f ../TS50A_UPG.bin -b 115200 -t recovery, FAIL";
    SilentModule module;
    for (const Lines& words :
         {Lines{}, Lines{"-p", "COM6", "-b", "115200"}, Lines{"-p", "COM6", "-f", "x"},
          Lines{"-p", "COM6", "-f", "x", "-b", "no number"}, Lines{"-f", "x", "-b", "115200"},
          Lines{"-p", "", "-f", "x", "-b", "115200"}}) {
        const ToolRun run(module, joined({"-m", "TS50A"}, words));
        const Lines lines = run.family_lines();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[lines.size() - 2], version_line);
        EXPECT_EQ(lines.back(), missing);
        EXPECT_EQ(run.result(), upgrade_failure(258));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Sta8100Options, FirmwareThatCannotBeReadIsNotStartedWith) {
    const TempDir folder;
    Sta8100Module module(app_waiting());
    module.app().flash().fill(0x00);
    for (const auto& [path, error] :
         {std::pair{folder.path("absent.bin"), ENOENT}, {folder.path(), EISDIR}}) {
        const ToolRun run(module, arguments(path, {"-c", "app_boot"}));
        EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to access " + path +
                                                 ", errno: " + std::to_string(error) + " (" +
                                                 std::strerror(error) + ")");
        EXPECT_EQ(run.result(), upgrade_failure(259));
        EXPECT_EQ(run.opens, 0);
    }
    EXPECT_EQ(module.app().erases, 0);
}

TEST(Sta8100Options, PortThatCannotBeOpened) {
    const TempDir folder;
    SilentModule module;
    Lines words = arguments(folder.write("app.bin", random_image(10)));
    words[3] = "COM1234567890123456789012345";
    const ToolRun run(module, words);
    EXPECT_EQ(run.count("[INFO] Port: COM12345678901234567\n"), 1U) << "20 characters count";
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to open COM12345678901234567");
    EXPECT_EQ(run.result(), upgrade_failure(260));
    EXPECT_EQ(run.closes, 0);
}

TEST(Sta8100Options, LongArgumentsAreCutNotOverrun) {
    SilentModule module;
    const std::string longest(5000, 'x');
    const ToolRun run(module,
                      {"-m", "TS50A", "-p", longest, "-b", "115200", "-f", longest, "-c", "app"});
    EXPECT_EQ(run.count("[INFO] Firmware: " + longest.substr(0, 255) + "\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(259));
}

TEST(Sta8100Options, DebugDumpsTheTraffic) {
    const TempDir folder;
    Sta8100Module module(app_waiting());
    const ToolRun run(
        module, arguments(folder.write("app.bin", random_image(10)), {"-D", "-c", "app_boot"}));
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 7f \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] recv to module -- < 79 ,ret:1\n"), 11U);
    EXPECT_EQ(run.result(), upgrade_success);
}

// --- the line ---

TEST(Sta8100Faults, UnpluggedInAnyStepTheRunFails) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(6000));
    const Lines ways[] = {{"-t", "normal"}, {"-t", "boot"}, {"-c", "app"}, {"-c", "app_boot"}};
    for (const Lines& way : ways) {
        SCOPED_TRACE(way[1]);
        auto settings = running(UpgradeAnswer::accepted);
        settings.app_waits = way[1] == "app_boot";
        expect_failure_wherever_unplugged(
            [&](const Conditions& conditions) {
                Sta8100Module module(settings);
                module.app().flash().fill(0x00);
                return ToolRun(module, arguments(path, way), conditions);
            },
            {.start = 60, .step_at_start = 7, .step = 2001, .closes = 1, .most_ms = 400'000});
    }
}

TEST(Sta8100Faults, PowerLossDuringTheImageFailsTheRun) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(40'000));
    for (const Lines& way : {Lines{"-t", "recovery"}, Lines{"-t", "boot"}, Lines{"-c", "gnss"},
                             Lines{"-c", "app_boot"}}) {
        auto settings = quiet();
        settings.app_waits = way[1] == "app_boot";
        Sta8100Module module(settings);
        Conditions conditions;
        conditions.faults = {{.kind = sim::FaultKind::power_cycle, .byte = 30'000}};
        const ToolRun run(module, arguments(path, way), conditions);
        EXPECT_EQ(run.result(), upgrade_failure(-1)) << way[1];
    }
}

}  // namespace
}  // namespace orbix::test
