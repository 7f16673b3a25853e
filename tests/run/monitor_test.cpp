// The upgrade of the two monitor variants.
#include <gtest/gtest.h>

#include <filesystem>

#include "monitor_module.h"
#include "run/harness.h"
#include "run/unplugged.h"
#include "upgrade_frames.h"

namespace orbix::test {
namespace {

using sim::MonitorModule;
using sim::UpgradeFrame;

const Bytes reset_frame = hex("4B 47 03 01 04 00 00 00 44 00 4C BF");

/// A monitor whose boot loader runs only after a reset.
MonitorModule::Behaviour waiting_for_reset(const std::array<std::uint8_t, 2>& header) {
    return {.reset_header = header, .needs_reset = true, .loader_baud = 115200};
}

class Monitor : public ::testing::Test {
  protected:
    std::vector<std::string> arguments(const std::string& model, const std::string& mode,
                                       const std::string& reset) {
        return {"-m", model, "-p", "COM6", "-b", "115200", "-f", folder_.write("fw.bin", image_),
                "-t", mode,  "-r", reset};
    }
    ToolRun upgrade(MonitorModule& module, const std::string& mode, const std::string& reset,
                    Conditions conditions = {}) {
        return ToolRun(module, arguments("MN10A", mode, reset), std::move(conditions));
    }

    bool holds_image(MonitorModule& module, std::uint32_t address) {
        return module.flash().holds(address, image_);
    }

    TempDir folder_;
    Bytes image_ = random_image(12'000);
};

/// The Fletcher pair behind a frame's first two bytes.
Bytes with_sums(Bytes frame) {
    unsigned a = 0;
    unsigned b = 0;
    for (std::size_t at = 2; at < frame.size(); ++at) {
        a = (a + frame[at]) & 0xFF;
        b = (b + a) & 0xFF;
    }
    frame.push_back(static_cast<std::uint8_t>(a));
    frame.push_back(static_cast<std::uint8_t>(b));
    return frame;
}

TEST_F(Monitor, AutomaticResetSaysAndSendsExactlyThis) {
    image_ = {'f', 'i', 'r', 'm'};
    MonitorModule module(waiting_for_reset(MonitorModule::first_variant));
    module.start_baud = 460800;
    const ToolRun run = upgrade(module, "APP", "AUTO");

    const std::vector<std::string> expected{
        " Enter GNSS_EVB_upgrade",
        "[INFO] Module: MN10A",
        "[INFO] Port: COM6",
        "[INFO] Baud rate:115200",
        "[INFO] Firmware:" + folder_.path("fw.bin"),
        "[INFO] upgrade mdoe: APP",
        "[INFO] reset mdoe: AUTO",
        "[INFO] Ready to upgrade the APP...",
        "[INFO] Auto-reset",
        "[INFO] Auto-reset 1 times, baudrate 115200...",
        "[ERROR] Auto-reset fail 1 times,err: 0x400",
        "[INFO] Auto-reset 2 times, baudrate 230400...",
        "[ERROR] Auto-reset fail 2 times,err: 0x400",
        "[INFO] Auto-reset 3 times, baudrate 460800...",
        "[INFO] Checksum success",
        "[INFO] Auto-reset finish...",
        "[INFO] Connect...",
        "[INFO] Synchronize...",
        "[INFO] Send APP Firmware Information...",
        "[INFO] File Size: 4",
        "[INFO] Erase Flash...",
        "[INFO] Send APP Firmware...",
    };
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_success);

    Bytes end = hex("09 13 56 4B 04 A5 03 12");
    append(end,
           sim::make_upgrade_frame(2, 2, hex("00 00 00 04 96 29 8F 72 00 00 00 41 00 00 00 00")));
    append(end, hex("AA 02 03 00 00 89 0B A9 CE 55"));
    append(end, sim::make_upgrade_frame(2, 4, hex("00 00 00 00 66 69 72 6D")));
    EXPECT_EQ(as_hex(std::span(run.sent).first(36)),
              as_hex(reset_frame) + " " + as_hex(reset_frame) + " " + as_hex(reset_frame));
    EXPECT_EQ(as_hex(std::span(run.sent).last(end.size())), as_hex(end)) << "and nothing behind";

    EXPECT_EQ(run.rates, (std::vector<unsigned>{115200, 230400, 460800, 115200}));
    EXPECT_EQ(run.opens, 4);
    EXPECT_EQ(run.closes, 4);
    EXPECT_FALSE(run.left_open);
    EXPECT_EQ(module.resets(), 1);
    EXPECT_TRUE(module.rebooted());
}

class MonitorRates : public Monitor, public ::testing::WithParamInterface<unsigned> {};

TEST_P(MonitorRates, AreTriedInTurn) {
    for (const auto* model : {"MN10B", "MN20A", "MN20B"}) {
        const bool is_first = std::string_view(model).starts_with("MN10");
        MonitorModule module(waiting_for_reset(is_first ? MonitorModule::first_variant
                                                        : MonitorModule::second_variant));
        module.start_baud = GetParam();
        const ToolRun run(module, arguments(model, "app", "auto"));
        EXPECT_EQ(run.result(), upgrade_success) << model;
        EXPECT_TRUE(holds_image(module, MonitorModule::application_address));
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, MonitorRates, ::testing::Values(115200, 230400, 460800));

TEST_F(Monitor, NineResetsAreTried) {
    SilentModule silent;
    const ToolRun run(silent, arguments("MN10A", "APP", "AUTO"));
    std::vector<std::string> expected;
    for (int attempt = 1; attempt <= 9; ++attempt) {
        const int rate = attempt % 3 == 1 ? 115200 : attempt % 3 == 2 ? 230400 : 460800;
        expected.push_back("[INFO] Auto-reset " + std::to_string(attempt) + " times, baudrate " +
                           std::to_string(rate) + "...");
        expected.push_back("[ERROR] Auto-reset fail " + std::to_string(attempt) +
                           " times,err: 0x400");
    }
    auto said = run.family_lines();
    said.erase(said.begin(), said.begin() + 9);
    EXPECT_EQ(said, expected);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.opens, 9);
    EXPECT_EQ(run.closes, 9);
    EXPECT_FALSE(run.left_open);
    EXPECT_EQ(silent.heard.size(), 9 * reset_frame.size());
    EXPECT_GE(run.duration_ms, 9 * 200U);
    EXPECT_LT(run.duration_ms, 9 * 205U) << "nothing is read at the deadline";
}

TEST_F(Monitor, AcknowledgementOfTheOtherVariantIsNotHeard) {
    MonitorModule module(waiting_for_reset(MonitorModule::first_variant));
    const ToolRun run(module, arguments("MN20A", "APP", "AUTO"));
    EXPECT_EQ(run.count("Auto-reset fail"), 9U);
    EXPECT_EQ(run.count("Checksum success"), 0U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

struct Acknowledgement {
    Bytes bytes;
    std::string first_line;   ///< behind the announcement of the first attempt
    std::string second_line;  ///< empty: not looked at
};

class MonitorAcknowledgements : public Monitor,
                                public ::testing::WithParamInterface<Acknowledgement> {};

TEST_P(MonitorAcknowledgements, AreJudged) {
    MonitorModule module(waiting_for_reset(MonitorModule::first_variant));
    module.tamper_reset = [](Bytes& bytes) { bytes = GetParam().bytes; };
    const ToolRun run = upgrade(module, "APP", "AUTO");
    const auto lines = run.family_lines();
    ASSERT_GE(lines.size(), 12U);
    EXPECT_EQ(lines[10], GetParam().first_line);
    if (!GetParam().second_line.empty()) {
        EXPECT_EQ(lines[11], GetParam().second_line);
    }
}

const std::string checksum_success = "[INFO] Checksum success";
const std::string wrong_content = "[ERROR] Auto-reset fail 1 times,err: 0x102";
const std::string nothing_good = "[ERROR] Auto-reset fail 1 times,err: 0x400";
const std::string finished = "[INFO] Auto-reset finish...";
const Bytes good = with_sums(hex("4B 47 03 01 04 00 03 01 00 00"));

Bytes behind(Bytes front, const Bytes& rest) {
    append(front, rest);
    return front;
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, MonitorAcknowledgements,
    ::testing::Values(
        Acknowledgement{good, checksum_success, finished},
        // Class and id of the frame do not matter, nor does what follows in the payload.
        Acknowledgement{with_sums(hex("4B 47 09 08 05 00 03 01 00 FF FE")), checksum_success,
                        finished},
        Acknowledgement{with_sums(hex("4B 47 03 01 03 00 03 01 00")), checksum_success, finished},
        // Another content, or too little of it.
        Acknowledgement{with_sums(hex("4B 47 03 01 04 00 03 01 01 00")), checksum_success,
                        wrong_content},
        Acknowledgement{with_sums(hex("4B 47 03 01 04 00 03 02 00 00")), checksum_success,
                        wrong_content},
        Acknowledgement{with_sums(hex("4B 47 03 01 02 00 03 01")), checksum_success, wrong_content},
        Acknowledgement{with_sums(hex("4B 47 03 01 00 00")), checksum_success, wrong_content},
        // A wrong checksum; noise and a broken frame in front of a good one.
        Acknowledgement{hex("4B 47 03 01 04 00 03 01 00 00 0C 00"), nothing_good, ""},
        Acknowledgement{behind(hex("00 4B 00 47"), good), checksum_success, finished},
        Acknowledgement{behind(hex("4B 47 03 01 00 00 00 00"), good), checksum_success, finished},
        // The byte that breaks a header is not taken for the begin of the next.
        Acknowledgement{behind(hex("4B"), good), nothing_good, ""},
        Acknowledgement{behind(hex("4B 00"), good), checksum_success, finished},
        // A payload that is announced and does not come.
        Acknowledgement{hex("4B 47 03 01 FF FF 03 01 00"), nothing_good, ""},
        Acknowledgement{{}, nothing_good, ""}));

TEST_F(Monitor, ManualResetIsGivenASecond) {
    MonitorModule module;
    const ToolRun run = upgrade(module, "BOOT", "MANUAL");
    const auto lines = run.family_lines();
    ASSERT_EQ(lines.size(), 15U);
    EXPECT_EQ(lines[7], "[INFO] Ready to upgrade the BOOT...");
    EXPECT_EQ(lines[8], "[INFO] Manual reset");
    EXPECT_EQ(lines[9], "[INFO] Connect...");
    EXPECT_EQ(lines[11], "[INFO] Send BOOT Firmware Information...");
    EXPECT_EQ(lines[14], "[INFO] Send BOOT Firmware...");
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_GE(run.trace.front().time, sim::VirtualPort::start + sim::milliseconds(1000));
    EXPECT_EQ(module.resets(), 0);
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
    EXPECT_TRUE(holds_image(module, MonitorModule::boot_address));
}

TEST_F(Monitor, BootImageIsAnnouncedAsKind66AndLeavesTheApplicationAlone) {
    MonitorModule module;
    module.flash().fill(0x00);
    const ToolRun run = upgrade(module, "boot", "manual");
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(contains(run.sent, hex("00 00 00 42 00 00 00 00")));
    EXPECT_TRUE(has_line(run, "[INFO] Send boot Firmware Information..."));
    EXPECT_EQ(module.flash().read(MonitorModule::application_address, 1)[0], 0x00);
}

TEST_F(Monitor, ApplicationWinsOverBootAndAutomaticOverManual) {
    MonitorModule module;
    const ToolRun run = upgrade(module, "BOOT_APP", "MANUAL_AUTO");
    EXPECT_TRUE(has_line(run, "[INFO] Ready to upgrade the APP..."));
    EXPECT_TRUE(has_line(run, "[INFO] Auto-reset"));
    EXPECT_TRUE(has_line(run, "[INFO] Send BOOT_APP Firmware..."));
    EXPECT_TRUE(contains(run.sent, hex("00 00 00 41 00 00 00 00")));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Monitor, UnknownModesAreRefusedBeforeThePortIsOpened) {
    MonitorModule module;
    const ToolRun mode = upgrade(module, "App", "AUTO");
    EXPECT_EQ(mode.family_lines().back(),
              "[ERROR] Invalid upgrade mode(ex: APP / BOOT),err: 0x102");
    EXPECT_EQ(mode.result(), upgrade_failure(-1));
    EXPECT_EQ(mode.opens, 0);

    const ToolRun reset = upgrade(module, "APP", "Manual");
    EXPECT_EQ(reset.family_lines().back(),
              "[ERROR] Invalid reset mode(ex: AUTO / MANUAL),err: 0x102");
    EXPECT_TRUE(has_line(reset, "[INFO] Ready to upgrade the APP..."));
    EXPECT_EQ(reset.result(), upgrade_failure(-1));
    EXPECT_EQ(reset.opens, 0);

    const ToolRun nothing(module, {"-m", "MN10A"});
    EXPECT_EQ(nothing.family_lines().back(),
              "[ERROR] Invalid upgrade mode(ex: APP / BOOT),err: 0x102");
}

class MonitorSizes : public Monitor, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(MonitorSizes, FlashHoldsTheImage) {
    image_ = random_image(GetParam());
    MonitorModule module;
    const ToolRun run = upgrade(module, "APP", "MANUAL");
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds_image(module, MonitorModule::application_address));
    EXPECT_EQ(module.flash().read(MonitorModule::application_address + 501'000, 1)[0], 0xFF);
}

INSTANTIATE_TEST_SUITE_P(Images, MonitorSizes,
                         ::testing::Values(0, 1, 240, 241, 1024, 2048, 2049, 5120, 5121, 500'123));

TEST_F(Monitor, SilentBootLoaderIsGivenUpAfterTwentySeconds) {
    SilentModule silent;
    const ToolRun run(silent, arguments("MN10A", "APP", "MANUAL"));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync the serial failed,err: 0x400");
    EXPECT_GE(run.duration_ms, 21'000U);
    EXPECT_LE(run.duration_ms, 21'050U);
    EXPECT_NEAR(static_cast<double>(silent.heard.size()) / 4, 20'000 / 10.35, 5)
        << "10 ms for each answer, and no pause";
    EXPECT_TRUE(run.left_open);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Monitor, SecondAnswerIsGivenFiftyMilliseconds) {
    MonitorModule module;
    Conditions late;
    // The first byte of the second answer comes 45 ms late.
    late.faults.push_back({.kind = sim::FaultKind::delay,
                           .direction = sim::Direction::to_host,
                           .byte = 4,
                           .amount = 45});
    EXPECT_EQ(upgrade(module, "APP", "MANUAL", late).result(), upgrade_success);

    late.faults[0].amount = 60;
    const ToolRun run = upgrade(module, "APP", "MANUAL", late);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync the serial failed,err: 0x401");
    EXPECT_TRUE(run.left_open);
}

TEST_F(Monitor, EveryCommandIsGivenTwentyMilliseconds) {
    image_ = random_image(5121);
    MonitorModule module;
    const auto pauses = upgrade(module, "APP", "MANUAL").pauses();
    ASSERT_EQ(pauses.size(), 5U) << "two probes, information, erase, two frames";
    for (const std::size_t command : {std::size_t{2}, std::size_t{3}, std::size_t{4}}) {
        EXPECT_GE(pauses[command], sim::milliseconds(20));
    }
    EXPECT_LT(pauses[4], sim::milliseconds(25)) << "a frame's answer waits already";
}

TEST_F(Monitor, StatusAndLengthOfAResponseAreNotLookedAt) {
    MonitorModule module;
    module.tamper = [](const UpgradeFrame& frame, Bytes& response) {
        response = sim::make_upgrade_frame(2, 0x77, Bytes{0x02, frame.command, 0xFF, 0xFF, 9, 9});
    };
    EXPECT_EQ(upgrade(module, "APP", "MANUAL").result(), upgrade_success);
}

TEST_F(Monitor, ResponseIsReadFiftyMillisecondsAtATime) {
    MonitorModule module;
    module.tamper = [](const UpgradeFrame& /*frame*/, Bytes& response) { response.clear(); };
    // A read from a device that has vanished lasts its time-out, and is the last.
    EXPECT_EQ(upgrade(module, "APP", "MANUAL", unplugged_after_ms(60'000)).duration_ms, 60'050U);
}

TEST_F(Monitor, SpeedIsCountedOneKibibyteHighFromTheLineBeforeTheFirstFrame) {
    MonitorModule module;
    expect_speed_of_frames(upgrade(module, "APP", "MANUAL"), 12'000);
}

class MonitorChangedImages : public Monitor,
                             public ::testing::WithParamInterface<std::uintmax_t> {};

TEST_P(MonitorChangedImages, AreRefusedOnceTheyHaveBeenAnnounced) {
    MonitorModule module;
    module.tamper = [this](const UpgradeFrame& frame, Bytes& /*response*/) {
        if (frame.command == 0x03) {
            std::filesystem::resize_file(folder_.path("fw.bin"), GetParam());
        }
    };
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade(module, "APP", "MANUAL");
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send bin failed,err: 0x107");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 1);
    EXPECT_TRUE(Bytes(run.sent.end() - 10, run.sent.end()) == hex("AA 02 03 00 00 89 0B A9 CE 55"))
        << "no frame of another image is sent";
}

INSTANTIATE_TEST_SUITE_P(Lengths, MonitorChangedImages, ::testing::Values(0, 11'999, 12'001));

TEST_F(Monitor, ImageThatShrinksWhileItIsSentIsAFailure) {
    image_ = random_image(20'000);
    MonitorModule module;
    module.tamper = [this](const UpgradeFrame& frame, Bytes& /*response*/) {
        if (frame.command == 0x04) {
            std::filesystem::resize_file(folder_.path("fw.bin"), 10'000);
        }
    };
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade(module, "APP", "MANUAL");
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(run.count("[SPEED] 10000 Bytes/20000 Bytes"), 1U);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send bin failed,err: 0x107");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

struct Refusal {
    std::uint8_t id;
    Bytes response;
    std::string line;
    bool closes;
};

class MonitorRefusals : public Monitor, public ::testing::WithParamInterface<Refusal> {};

TEST_P(MonitorRefusals, EndTheUpgrade) {
    MonitorModule module;
    int frames = 0;
    module.tamper = [&frames](const UpgradeFrame& frame, Bytes& response) {
        if (frame.command == GetParam().id) {
            ++frames;
            response = GetParam().response;
        }
    };
    const ToolRun run = upgrade(module, "APP", "MANUAL");
    EXPECT_EQ(run.family_lines().back(), GetParam().line);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(frames, 1) << "nothing is sent twice";
    EXPECT_EQ(run.count("Retry"), 0U);
    EXPECT_EQ(run.left_open, !GetParam().closes);
    EXPECT_EQ(run.closes, GetParam().closes ? 1 : 0);
}

Bytes with_tail(Bytes frame, std::uint8_t tail) {
    frame.back() = tail;
    return frame;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, MonitorRefusals,
    ::testing::Values(Refusal{0x02, sim::make_upgrade_frame(3, 2, hex("02 02 00 00")),
                              "[ERROR] Send fw info failed,err: 0x107", false},
                      Refusal{0x03, sim::make_upgrade_frame(2, 3, hex("02 04 00 00")),
                              "[ERROR] Erase Flash area failed,err: 0x107", false},
                      Refusal{0x04, sim::make_upgrade_frame(2, 4, hex("03 04 00 00")),
                              "[ERROR] Send bin failed,err: 0x107", true},
                      Refusal{0x04, with_tail(sim::make_upgrade_frame(2, 4, hex("02 04 00 00")), 0),
                              "[ERROR] Send bin failed,err: 0x402", true}));

TEST_F(Monitor, MissingFirmwareIsFoundAfterTheSynchronisation) {
    MonitorModule module;
    std::vector<std::string> words = arguments("MN10A", "APP", "MANUAL");
    words[7] = folder_.path("absent.bin");
    const ToolRun missing(module, words);
    EXPECT_EQ(missing.family_lines().back(), "[ERROR] Send fw info failed,err: 0x103");
    EXPECT_TRUE(missing.left_open);
    words[7] = folder_.path();
    EXPECT_EQ(ToolRun(module, words).family_lines().back(),
              "[ERROR] Send fw info failed,err: 0x107");
}

TEST_F(Monitor, PortThatDoesNotOpenEndsTheRun) {
    MonitorModule module(waiting_for_reset(MonitorModule::first_variant));
    module.start_baud = 230400;
    for (const int failing : {0, 1, 2}) {  // two resets, then the upgrade itself
        Conditions conditions;
        conditions.port.failing_open = failing;
        const ToolRun run = upgrade(module, "APP", "AUTO", conditions);
        EXPECT_EQ(run.family_lines().back(), "[ERROR] Open & config the serial failed");
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, failing + 1);
        EXPECT_EQ(run.closes, failing);
    }
}

TEST_F(Monitor, EndsWhereverTheDeviceVanishes) {
    for (const auto* reset : {"AUTO", "MANUAL"}) {
        MonitorModule module;
        expect_failure_whenever_unplugged(
            [&](const Conditions& conditions) { return upgrade(module, "APP", reset, conditions); },
            {.interval_ms = 47, .most_ms_behind = 22'000});
    }
}

}  // namespace
}  // namespace orbix::test
