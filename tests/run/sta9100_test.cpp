// The STA9100 download through the boot ROM, end to end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "run/harness.h"
#include "run/teseo_support.h"
#include "run/unplugged.h"
#include "teseo/ram_loaders.h"
#include "teseo_chip.h"

namespace orbix::test {
namespace {

using sim::milliseconds;
using sim::TeseoChip;
using sim::TeseoStep;

constexpr const char* version_line = "[INFO] Version: STA9100_Flash_Tool_V1.0";

/// A module whose boot ROM listens and whose receiver says nothing.
TeseoChip::Settings quiet() {
    auto settings = TeseoChip::sta9100();
    settings.talker.period = 0;
    return settings;
}

Lines arguments(const std::string& image, const Lines& more = {}) {
    return joined({"-m", "TS90B", "-p", "COM6", "-b", "115200", "-f", image}, more);
}

Lines option_lines(const std::string& image) {
    return {version_line, "[INFO] Module: TS90B", "[INFO] Port: COM6", "[INFO] Baud rate:115200",
            "[INFO] Firmware: " + image};
}

const Lines dialogue_lines{"[INFO] TS90B:download",
                           "[INFO] Synchronize...",
                           "[INFO] Check baudrate...",
                           "[INFO] Change baudrate...",
                           "[INFO] Wait Host Ready...",
                           "[INFO] Sending preamble...",
                           "[INFO] bin size: 10912",
                           "[INFO] Sending bootloader...",
                           "[INFO] Send the firmware package complete.",
                           "[INFO] fw size: 9, crc32: A51C61E2",
                           "[INFO] Sending binary info...",
                           "[INFO] Initializing bootloader....",
                           "[INFO] Wait for device initialization...",
                           "[INFO] Erasing program area...",
                           "[INFO] Sending Firmware...",
                           "[INFO]  Checking CRC..."};

/// The lines up to the one that contains `last`.
Lines lines_up_to(const std::string& image, const std::string& last) {
    Lines lines = option_lines(image);
    for (const std::string& line : dialogue_lines) {
        lines.push_back(line);
        if (line.find(last) != std::string::npos) {
            break;
        }
    }
    return lines;
}

/// The image of the tests whose lines are compared: its CRC stands in `dialogue_lines`.
const std::string short_image = "123456789";

class Sta9100Sizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Sta9100Sizes, FlashHoldsTheImage) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    TeseoChip module(quiet());
    module.flash().fill(0x00);
    const ToolRun run(module, arguments(folder.write("app.bin", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.flash().holds(sim::teseo_flash_base, image));
    EXPECT_TRUE(module.completed());
    EXPECT_EQ(module.rom().complaints, Lines{});
    EXPECT_EQ(module.flash().cells().back(), 0x00) << "nothing but the program area is erased";
}

INSTANTIATE_TEST_SUITE_P(Images, Sta9100Sizes,
                         ::testing::Values(0, 1, 5119, 5120, 5121, 10240, 600'123));

TEST(Sta9100, SaysEachStep) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", short_image);
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(path));

    EXPECT_EQ(run.family_lines(), lines_up_to(path, "Checking CRC"));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
}

TEST(Sta9100, ProgressOfLoaderAndImage) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(5121))));
    EXPECT_EQ(run.progress_lines()[0], "[PROGRESS] 46.92%");
    EXPECT_EQ(run.progress_lines()[1], "[PROGRESS] 93.84%");
    EXPECT_EQ(run.progress_lines()[2], "[PROGRESS] 100.00%");
    EXPECT_EQ(run.progress_lines()[3], "[PROGRESS] 99.98%");
    EXPECT_EQ(run.progress_lines()[4], "[SPEED] 5120 Bytes/5121 Bytes    0 KBps");
    EXPECT_EQ(run.progress_lines()[5], "[PROGRESS] 100.00%");
    ASSERT_EQ(run.progress_lines().size(), 7U);
    EXPECT_TRUE(run.progress_lines()[6].starts_with("[SPEED] 5121 Bytes/5121 Bytes    "));
}

TEST(Sta9100, BytesOnTheWire) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));

    Bytes expected =
        hex("FD C6 49 28 71 00 C2 01 00 38 5A"
            "F4 01 D5 BC 73 40 98 83 04 01 FF 00 00 00 00 00"
            "03 D3 26 DD A0 2A 00 00 00 00 00 00");
    append(expected, sta9100::sta9100_bootloader_Bx_buffer);
    append(expected,
           hex("4A"
               "09 00 00 00 01 00 00 00 E2 61 1C A5 00 00 00 10 00 04 00 00 02 00 00 00 00 00 00 00"
               "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
               "31 32 33 34 35 36 37 38 39"));
    EXPECT_EQ(as_hex(run.sent), as_hex(expected));
    EXPECT_EQ(as_hex(run.received), "3A 54 2C A6 CC CC CC CC CC CC CC CC CC CC CC");
}

TEST(Sta9100, DialogueIsHeldAt115200) {
    const TempDir folder;
    TeseoChip module(quiet());
    const ToolRun run(module, {"-m", "TS90B", "-p", "COM6", "-b", "460800", "-f",
                               folder.write("app.bin", short_image)});
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, (std::vector<unsigned>{460800, 115200}));
}

TEST(Sta9100, ChipAtAnotherRateHearsNothing) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.start_baud = 9600;
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync module failed.Upgrade failed.");
}

TEST(Sta9100, SilentChipIsAskedAHundredTimes) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", short_image);
    SilentModule module;
    const ToolRun run(module, arguments(path));

    Lines expected = lines_up_to(path, "Synchronize");
    expected.emplace_back("[ERROR] Sync module failed.Upgrade failed.");
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.sent.size(), 400U);
    EXPECT_GE(run.duration_ms, 10'500U);
    EXPECT_LE(run.duration_ms, 10'600U);
}

TEST(Sta9100, LateAndSplitSyncAnswersAreFound) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", short_image);
    auto settings = quiet();
    settings.rom.sync_time = milliseconds(250);
    TeseoChip late(settings);
    EXPECT_EQ(ToolRun(late, arguments(path)).result(), upgrade_success);

    TeseoChip split(quiet());
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::delay,
                          .direction = sim::Direction::to_host,
                          .byte = 2,
                          .amount = 50}};
    EXPECT_EQ(ToolRun(split, arguments(path), conditions).result(), upgrade_success);
}

TEST(Sta9100, SyncAnswerBehindItsOwnFirstByteIsMissed) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.rom().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::sync) {
            answer.insert(answer.begin(), answer.front());
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync module failed.Upgrade failed.");
}

/// A chip that gives the answer to the sync word unasked, before it is called.
class EagerChip : public SilentModule {
  public:
    void power_on(sim::Micros /*now*/, sim::Wire& wire) override {
        wire.send(hex("3A 54 2C A6"), milliseconds(300));
    }
};

TEST(Sta9100, WhatCameBeforeTheFirstSyncWordIsSeen) {
    const TempDir folder;
    EagerChip module;
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.discards, 0);
    EXPECT_EQ(run.count("[INFO] Check baudrate...\n"), 1U);
    EXPECT_EQ(as_hex(run.sent), "FD C6 49 28 71") << "one word, then the next step";
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Change Baud Rate failed.Upgrade failed.");
}

TEST(Sta9100, ReadWithTheSyncAnswerIsDroppedUpToTenBytes) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", short_image);
    for (const std::size_t length : {10U, 11U}) {
        TeseoChip module(quiet());
        module.rom().tamper = [length](TeseoStep step, Bytes& answer) {
            if (step == TeseoStep::sync) {
                answer.resize(length, 0x55);
            }
        };
        const ToolRun run(module, arguments(path));
        EXPECT_EQ(run.result(), length == 10 ? upgrade_success : upgrade_failure(-1));
        EXPECT_EQ(run.count("[ERROR] ACK not expected [55]\n"), length - 10);
    }
}

TEST(Sta9100, TalkOfTheReceiverDoesNotHideTheAnswer) {
    const TempDir folder;
    TeseoChip module(TeseoChip::sta9100());
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.result(), upgrade_success);
}

/// A step that goes wrong: the last line before it, how long it is waited for, and what the
/// summary says.
struct Failure {
    TeseoStep step;
    const char* last_line;
    const char* limit;
    const char* summary;
};

const char* const rate_failed = "[ERROR] Change Baud Rate failed.Upgrade failed.";
const char* const loader_failed = "[ERROR] Send Bootloader failed.Upgrade failed.";
const char* const firmware_failed = "[ERROR] Send Firmware failed.Upgrade failed.";

const Failure failures[] = {
    {TeseoStep::rate_checked, "Check baudrate", "3500", rate_failed},
    {TeseoStep::rate_changed, "Change baudrate", "3500", rate_failed},
    {TeseoStep::host_ready, "Wait Host Ready", "3500", loader_failed},
    {TeseoStep::preamble, "Sending preamble", "3500", loader_failed},
    {TeseoStep::loader_started, "Sending bootloader", "1000", loader_failed},
    {TeseoStep::ready, "fw size", "3500", firmware_failed},
    {TeseoStep::options, "Initializing bootloader", "3500", firmware_failed},
    {TeseoStep::initialised, "Wait for device", "3500", firmware_failed},
    {TeseoStep::code_erased, "Erasing program area", "60000", firmware_failed},
    {TeseoStep::piece, "Sending Firmware", "3500", firmware_failed},
    {TeseoStep::image_checked, "Checking CRC", "30000", firmware_failed},
};

class Sta9100Failures : public ::testing::TestWithParam<Failure> {
  protected:
    void expect_failure(const Bytes& replacement, const std::string& line) {
        const Failure& failure = GetParam();
        const TempDir folder;
        const std::string path = folder.write("app.bin", short_image);
        TeseoChip module(quiet());
        module.rom().tamper = answering_wrongly(failure.step, replacement);
        const ToolRun run(module, arguments(path));
        Lines expected = lines_up_to(path, failure.last_line);
        expected.push_back(line);
        expected.emplace_back(failure.summary);
        expect_failed_run(run, expected);
        duration_ms = run.duration_ms;
    }
    std::uint64_t duration_ms = 0;
};

TEST_P(Sta9100Failures, Refusal) {
    expect_failure({sim::teseo_refusal}, "[ERROR] ACK not expected [33]");
}

TEST_P(Sta9100Failures, Silence) {
    expect_failure({}, "[ERROR] ACK time out " + std::string(GetParam().limit) + " ms");
    EXPECT_GE(duration_ms, std::strtoul(GetParam().limit, nullptr, 10));
}

INSTANTIATE_TEST_SUITE_P(Steps, Sta9100Failures, ::testing::ValuesIn(failures));

TEST(Sta9100, EveryByteOfAnAnswerCounts) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.rom().tamper = [](TeseoStep step, Bytes& answer) {
        if (step == TeseoStep::host_ready) {
            answer.push_back(0x55);
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.count("[INFO] Sending preamble...\n"), 1U);
    EXPECT_EQ(run.count("[ERROR] ACK not expected [55]\n"), 1U);
}

TEST(Sta9100, VerdictInOneBurstWithTheLastAnswerIsReadByItself) {
    const TempDir folder;
    auto settings = quiet();
    settings.rom.times.check = 0;
    TeseoChip module(settings);
    const ToolRun run(module, arguments(folder.write("app.bin", random_image(5121))));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Sta9100, ImageThatVanishesIsNamed) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", short_image);
    TeseoChip module(quiet());
    module.rom().tamper =
        when_answering(TeseoStep::code_erased, [&path] { std::filesystem::remove(path); });
    const ToolRun run(module, arguments(path));
    Lines expected = lines_up_to(path, "Erasing program area");
    expected.push_back("[ERROR] Firmware " + path + " open failed.");
    expected.emplace_back(firmware_failed);
    expect_failed_run(run, expected);
}

TEST(Sta9100, ImageThatShrinksIsNoSuccess) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(10'000));
    TeseoChip module(quiet());
    module.rom().tamper = when_answering(TeseoStep::code_erased,
                                         [&path] { std::filesystem::resize_file(path, 5120); });
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.count("[INFO]  Checking CRC...\n"), 1U) << "each piece was acknowledged";
    EXPECT_EQ(run.count("[ERROR] ACK time out 30000 ms\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta9100, WrongImageIsRefusedByItsCrc) {
    const TempDir folder;
    TeseoChip module(quiet());
    module.rom().tamper = [&module](TeseoStep step, Bytes& /*answer*/) {
        if (step == TeseoStep::piece) {
            module.flash().program(sim::teseo_flash_base, Bytes{0x00});
        }
    };
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)));
    EXPECT_EQ(run.count("[ERROR] ACK not expected [33]"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Sta9100, PlaceholderOfTheLoaderIsHintedAt) {
    const TempDir folder;
    TeseoChip module(quiet());
    ::testing::internal::CaptureStderr();
    const ToolRun run(module, arguments(folder.write("app.bin", Bytes{1}), {}));
    const std::string errors = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(errors.starts_with("hint: "), sta9100::sta9100_bootloader_is_placeholder) << errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), errors.empty() ? 0 : 1);
    EXPECT_EQ(run.count("hint"), 0U);
}

TEST(Sta9100Options, UnknownOptionIsUsageAndNoFailure) {
    SilentModule module;
    const ToolRun run(module, {"-m", "TS90B", "-t", "boot", "-p", "COM6"});
    EXPECT_EQ(run.count(" Usage: orbix_flash [options...]\n"), 1U);
    EXPECT_EQ(run.family_lines()[0], version_line);
    EXPECT_EQ(run.count("[INFO] Port"), 0U);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.opens, 0);
}

TEST(Sta9100Options, VersionIsPrintedTwiceAndEndsTheRun) {
    SilentModule module;
    const ToolRun run(module, {"-m", "TS90B", "-v", "-p", "COM6"});
    EXPECT_EQ(run.count("Version: STA9100_Flash_Tool_V1.0\n"), 2U);
    EXPECT_EQ(run.result(), version_line);
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.opens, 0);
}

TEST(Sta9100Options, MissingParameters) {
    SilentModule module;
    for (const Lines& words : {Lines{"-m", "TS90B"}, Lines{"-m", "TS90B", "-p", "COM6", "-f", "x"},
                               Lines{"-m", "TS90B", "-p", "COM6", "-b", "115200"},
                               Lines{"-m", "TS90B", "-f", "x", "-b", "115200"}}) {
        const ToolRun run(module, words);
        EXPECT_EQ(run.family_lines().back(),
                  "[ERROR] Upgrade failed.Please input parameters correctly, such as "
                  "./Flash_Tool_TS90 -m TS90B -f ../TS90_UPG.bin -p /dev/ttyUSB0 -b 115200");
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

TEST(Sta9100Options, FirmwareThatCannotBeRead) {
    const TempDir folder;
    SilentModule module;
    for (const std::string& path : {folder.path("absent.bin"), folder.path()}) {
        const ToolRun run(module, arguments(path));
        EXPECT_EQ(run.family_lines().back(), "[ERROR] Upgrade failed.Fail to access " + path);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Sta9100Options, PortThatCannotBeOpened) {
    const TempDir folder;
    SilentModule module;
    Lines words = arguments(folder.write("app.bin", short_image), {"-D"});
    words[3] = "COM1234567890123456789012345";
    const ToolRun run(module, words);
    EXPECT_EQ(run.count(" debug mode\n"), 1U);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to open COM12345678901234567");
    EXPECT_EQ(run.result(), upgrade_failure(260));
}

TEST(Sta9100Faults, UnpluggedAtAnyByteTheRunFails) {
    const TempDir folder;
    const std::string path = folder.write("app.bin", random_image(6000));
    expect_failure_wherever_unplugged(
        [&](const Conditions& conditions) {
            TeseoChip module(quiet());
            return ToolRun(module, arguments(path), conditions);
        },
        {.start = 60, .step_at_start = 1, .step = 1499, .closes = 1, .most_ms = 70'000});
}

TEST(Sta9100Faults, LostByteOfTheLoaderIsATimeOut) {
    const TempDir folder;
    TeseoChip module(quiet());
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::drop, .byte = 500}};
    const ToolRun run(module, arguments(folder.write("app.bin", short_image)), conditions);
    EXPECT_EQ(run.count("[ERROR] ACK time out 1000 ms"), 1U);
    EXPECT_EQ(run.family_lines().back(), loader_failed);
}

}  // namespace
}  // namespace orbix::test
