// The RX7040 upgrade by command frames, and the choice between the two procedures.
#include <gtest/gtest.h>

#include <filesystem>

#include "run/harness.h"
#include "run/unplugged.h"
#include "rx7040_module.h"
#include "upgrade_frames.h"

namespace orbix::test {
namespace {

using sim::Rx7040Module;
using sim::SyncEvent;
using sim::UpgradeFrame;

std::vector<std::string> upgrade_arguments(const std::string& image) {
    return {"-m", "MX290B", "-p", "COM6", "-b", "115200", "-f", image, "-t", "UPG"};
}

/// An upgrade of an image of some size, and what may be done to the module before it.
class Rx7040Upgrade : public ::testing::Test {
  protected:
    ToolRun upgrade(std::size_t size = 6000, Conditions conditions = {}) {
        image_ = random_image(size);
        return ToolRun(module_, upgrade_arguments(folder_.write("app.pkg", image_)),
                       std::move(conditions));
    }

    /// Every response to a command of this id becomes what `change` makes of it.
    void on_response(std::uint8_t id, std::function<void(Bytes& response)> change) {
        module_.tamper = [id, change = std::move(change)](const UpgradeFrame& frame,
                                                          Bytes& response) {
            if (frame.command == id) {
                change(response);
            }
        };
    }

    [[nodiscard]] bool flash_holds_image() {
        return module_.flash().holds(Rx7040Module::application_address, image_);
    }

    TempDir folder_;
    Rx7040Module module_;
    Bytes image_;
};

Bytes acknowledgement(std::uint8_t id, Bytes behind = {0x00, 0x00}) {
    behind.insert(behind.begin(), {0x02, id});
    return sim::make_upgrade_frame(0x02, id, behind);
}

TEST_F(Rx7040Upgrade, SaysAndSendsExactlyThis) {
    const Bytes image = {'f', 'i', 'r', 'm'};
    const std::string path = folder_.write("app.pkg", image);
    const ToolRun run(module_, upgrade_arguments(path));

    const std::vector<std::string> expected{
        "[INFO] rx7040 entry function",
        " Enter upgrade",
        "[INFO] Module: MX290B",
        "[INFO] Port: COM6",
        "[INFO] Baud rate:115200",
        "[INFO] Firmware:" + path,
        "[INFO] Connect...",
        "[INFO] Synchronize...",
        "[INFO] Boot Version: V1.4.2",
        "[INFO] Send Firmware Information...",
        "[INFO] File Size: 4",
        "[INFO] Send Firmware...",
    };
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_success);

    Bytes sent = hex("09 13 56 4B 04 A5 03 12 AA 02 71 00 00 DE 7E 15 F0 55");
    // CRC-32 of 04 00 00 00 "firm", from another program.
    append(sent, sim::make_upgrade_frame(0x02, 0x02,
                                         hex("00 00 00 04 96 29 8F 72 00 00 00 00 00 00 00 00")));
    append(sent, hex("AA 02 03 00 00 89 0B A9 CE 55"));
    append(sent, sim::make_upgrade_frame(0x02, 0x04, hex("00 00 00 00 66 69 72 6D")));
    append(sent, hex("AA 02 31 00 00 AE E4 98 30 55"));
    EXPECT_EQ(as_hex(run.sent), as_hex(sent));

    EXPECT_TRUE(module_.rebooted());
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 0);
    EXPECT_TRUE(run.left_open);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

class Rx7040UpgradeSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Rx7040UpgradeSizes, FlashHoldsTheImageAndNothingElse) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    Rx7040Module module;
    module.flash().fill(0x00);
    const ToolRun run(module, upgrade_arguments(folder.write("app.pkg", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.flash().holds(Rx7040Module::application_address, image));
    EXPECT_EQ(module.flash().read(Rx7040Module::application_address - 1, 1)[0], 0x00)
        << "the boot loader's own area was touched";
    const auto behind = module.flash().cells().last(1);
    EXPECT_EQ(behind[0], 0xFF);
    EXPECT_TRUE(module.rebooted());
}

INSTANTIATE_TEST_SUITE_P(Images, Rx7040UpgradeSizes,
                         ::testing::Values(0, 1, 36, 37, 240, 241, 1024, 2048, 2049, 5119, 5120,
                                           5121, 10240, 500'123));

TEST_F(Rx7040Upgrade, FramesHoldAtMost5120Bytes) {
    const ToolRun one = upgrade(5120);
    const auto frame = sim::make_upgrade_frame(0x02, 0x04, [&] {
        Bytes payload{0, 0, 0, 0};
        payload.insert(payload.end(), image_.begin(), image_.end());
        return payload;
    }());
    EXPECT_EQ(frame.size(), 5134U);
    EXPECT_TRUE(contains(one.sent, frame));
    EXPECT_EQ(one.count("[PROGRESS]"), 2U) << "the line at the start and one frame";

    const ToolRun two = upgrade(5121);
    EXPECT_TRUE(
        contains(two.sent, sim::make_upgrade_frame(0x02, 0x04, Bytes{0, 0, 0, 1, image_.back()})));
    const auto progress = two.progress_lines();
    ASSERT_EQ(progress.size(), 6U);
    EXPECT_EQ(progress[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(progress[1], "[SPEED] 0 Bytes/5121 Bytes    0 KBps");
    EXPECT_EQ(progress[2], "[PROGRESS] 99.98%\r");
    EXPECT_TRUE(progress[3].starts_with("[SPEED] 5120 Bytes/5121 Bytes    "));
    EXPECT_EQ(progress[4], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(progress[5].starts_with("[SPEED] 5121 Bytes/5121 Bytes    "));
}

TEST_F(Rx7040Upgrade, SpeedIsCountedOneKibibyteHighFromTheLineBeforeTheFirstFrame) {
    expect_speed_of_frames(upgrade(6144), 6144);
}

TEST_F(Rx7040Upgrade, EveryCommandIsGivenTwentyMilliseconds) {
    const ToolRun run = upgrade(1);
    const auto pauses = run.pauses();
    ASSERT_EQ(pauses.size(), 6U) << "seven things are sent";
    for (const sim::Micros pause : pauses) {
        EXPECT_GE(pause, sim::milliseconds(20));
    }
    EXPECT_GE(pauses[0], sim::milliseconds(70)) << "a silence of 50 ms ends the first answer";
    EXPECT_LT(pauses[2], sim::milliseconds(25)) << "the version's answer waits already";
}

TEST_F(Rx7040Upgrade, SilentModuleIsGivenUpAfterTwentySeconds) {
    SilentModule silent;
    const ToolRun run(silent, upgrade_arguments(folder_.write("app.pkg", Bytes{1})));
    EXPECT_TRUE(has_line(run, "[ERROR] Sync the serial failed,err: 0x400"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.duration_ms, 20'000U);
    EXPECT_LE(run.duration_ms, 20'100U);
    EXPECT_EQ(silent.heard.size() % 4, 0U);
    EXPECT_NEAR(static_cast<double>(silent.heard.size()) / 4, 20'000 / 70.4, 2);
    EXPECT_TRUE(run.left_open);
    EXPECT_EQ(run.closes, 0);
}

TEST_F(Rx7040Upgrade, WrongSecondAnswerEndsTheSynchronisationAtOnce) {
    module_.tamper_sync = [](SyncEvent probe, Bytes& answer) {
        if (probe == SyncEvent::second_probe) {
            answer.back() = 0x56;
        }
    };
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, "[ERROR] Sync the serial failed,err: 0x401"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(as_hex(run.sent), "09 13 56 4B 04 A5 03 12");
}

TEST_F(Rx7040Upgrade, AnswersMayFollowNoise) {
    module_.tamper_sync = [](SyncEvent /*probe*/, Bytes& answer) {
        answer.insert(answer.begin(), {0x4D, 0x3A, 0x00});
    };
    EXPECT_EQ(upgrade().result(), upgrade_success);
}

TEST_F(Rx7040Upgrade, FirstAnswerMayComeInTwoPieces) {
    int probes = 0;
    module_.tamper_sync = [&probes](SyncEvent probe, Bytes& answer) {
        if (probe == SyncEvent::first_probe) {
            answer = ++probes == 1 ? hex("4D 3A") : hex("FC AA");
        }
    };
    EXPECT_EQ(upgrade().result(), upgrade_success);
    EXPECT_EQ(probes, 2);
}

/// A response to the version query that is whole and not accepted.
class Rx7040VersionAnswers : public Rx7040Upgrade, public ::testing::WithParamInterface<Bytes> {};

TEST_P(Rx7040VersionAnswers, OnlyWarnOfWhatIsWrong) {
    on_response(0x71, [](Bytes& response) { response = GetParam(); });
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, " [WARN] Get boot ver failed,err: 0x107"));
    EXPECT_TRUE(has_line(run, "[INFO] Boot Version: "));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds_image());
}

INSTANTIATE_TEST_SUITE_P(
    Wrong, Rx7040VersionAnswers,
    ::testing::Values(acknowledgement(0x71),                   // no version in it
                      acknowledgement(0x71, {0, 4, 1, 2, 3}),  // a status
                      acknowledgement(0x71, {1, 0, 1, 2, 3}),  //
                      acknowledgement(0x72, {0, 0, 1, 2, 3}),  // another command's
                      acknowledgement(0x71, Bytes(3, 0)),      // length 5
                      acknowledgement(0x71, Bytes(300, 0)),    // and one far too long
                      sim::make_upgrade_frame(2, 0x71, hex("F0 71 00 00 01 02 03"))));

TEST_F(Rx7040Upgrade, ClassAndCommandOfTheResponseFrameItselfDoNotMatter) {
    on_response(0x71, [](Bytes& response) {
        response = sim::make_upgrade_frame(0x99, 0x98, hex("02 71 00 00 0A 00 FF"));
    });
    EXPECT_TRUE(has_line(upgrade(), "[INFO] Boot Version: V10.0.255"));
}

TEST_F(Rx7040Upgrade, WrongTailOfTheVersionAnswerIsWarnedOf) {
    on_response(0x71, [](Bytes& response) { response.back() = 0x54; });
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, " [WARN] Get boot ver failed,err: 0x402"));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Rx7040Upgrade, NoiseInFrontOfAResponseIsSkipped) {
    on_response(0x03, [](Bytes& response) { response.insert(response.begin(), {0x55, 0x02}); });
    EXPECT_EQ(upgrade().result(), upgrade_success);
}

TEST_F(Rx7040Upgrade, ResponseWithABadCrcIsNeverCompleted) {
    bool spoiled = false;
    on_response(0x02, [&spoiled](Bytes& response) {
        response[10] ^= 1;
        // What follows is swallowed as a part of the broken frame.
        const Bytes good = acknowledgement(0x02);
        response.insert(response.end(), good.begin(), good.end());
        spoiled = true;
    });
    const ToolRun run = upgrade(100, unplugged_after_ms(3'600'000));
    EXPECT_TRUE(spoiled);
    EXPECT_TRUE(has_line(run, "[ERROR] Send fw info failed,err: 0x107"));
    EXPECT_GE(run.duration_ms, 3'600'000U);
}

TEST_F(Rx7040Upgrade, SilenceAfterACommandIsWaitedFor) {
    on_response(0x03, [](Bytes& response) { response.clear(); });
    Conditions one_day;
    const ToolRun run = upgrade(100, one_day);
    EXPECT_TRUE(run.hit_time_limit);
}

TEST_F(Rx7040Upgrade, ResponseIsReadHalfASecondAtATime) {
    on_response(0x03, [](Bytes& response) { response.clear(); });
    // A read from a device that has vanished lasts its time-out, and is the last.
    EXPECT_EQ(upgrade(100, unplugged_after_ms(60'000)).duration_ms, 60'500U);
}

class Rx7040ChangedImages : public Rx7040Upgrade,
                            public ::testing::WithParamInterface<std::uintmax_t> {};

TEST_P(Rx7040ChangedImages, AreRefusedOnceTheyHaveBeenAnnounced) {
    on_response(0x03, [this](Bytes& /*response*/) {
        std::filesystem::resize_file(folder_.path("app.pkg"), GetParam());
    });
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade(6000);
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send firmware failed,err: 0x107");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_TRUE(run.left_open);
    EXPECT_EQ(run.count("Retry"), 0U) << "no frame of another image is sent";
}

INSTANTIATE_TEST_SUITE_P(Lengths, Rx7040ChangedImages, ::testing::Values(0, 5999, 6001));

struct Refusal {
    std::uint8_t id;
    std::string line;
};

class Rx7040Refusals : public Rx7040Upgrade, public ::testing::WithParamInterface<Refusal> {};

TEST_P(Rx7040Refusals, EndTheUpgradeWithThePortOpen) {
    const std::uint8_t id = GetParam().id;
    on_response(id, [id](Bytes& response) { response = acknowledgement(id, {0x00, 0x05}); });
    const ToolRun run = upgrade();
    const auto lines = run.family_lines();
    EXPECT_EQ(lines.back(), GetParam().line);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_TRUE(run.left_open);
    EXPECT_EQ(run.closes, 0);
    EXPECT_FALSE(run.hit_time_limit);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, Rx7040Refusals,
    ::testing::Values(Refusal{0x02, "[ERROR] Send fw info failed,err: 0x107"},
                      Refusal{0x03, "[ERROR] Erase Flash app area failed,err: 0x107"},
                      Refusal{0x04, "[ERROR] Send firmware failed,err: 0x108"},
                      Refusal{0x31, "[ERROR] Reset the serial failed,err: 0x107"}));

TEST_F(Rx7040Upgrade, FirmwareFrameIsSentUpToTenTimes) {
    int refusals = 9;
    on_response(0x04, [&refusals](Bytes& response) {
        if (refusals-- > 0) {
            response = acknowledgement(0x04, {0x00, 0x02});
        }
    });
    const ToolRun run = upgrade(5121);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(flash_holds_image());
    for (int count = 1; count <= 9; ++count) {
        EXPECT_TRUE(has_line(run, " Retry count: " + std::to_string(count)));
    }
    EXPECT_EQ(run.count("Retry count"), 9U);
    EXPECT_EQ(run.count("Exceeding"), 0U);
}

TEST_F(Rx7040Upgrade, TenRefusalsOfAFrameEndTheTransfer) {
    int frames = 0;
    on_response(0x04, [&frames](Bytes& response) {
        ++frames;
        response = acknowledgement(0x04, {0x00, 0x02});
    });
    const ToolRun run = upgrade(5121);
    const auto lines = run.family_lines();
    ASSERT_GE(lines.size(), 12U);
    EXPECT_EQ(frames, 10);
    EXPECT_EQ(run.count("Retry count"), 10U);
    EXPECT_EQ(lines[lines.size() - 3], " Retry count: 10");
    EXPECT_EQ(lines[lines.size() - 2], "[ERROR] Exceeding the maximum number of retry attempts!");
    EXPECT_EQ(lines[lines.size() - 1], "[ERROR] Send firmware failed,err: 0x108");
    EXPECT_FALSE(module_.rebooted());
}

TEST_F(Rx7040Upgrade, MissingFirmwareIsFoundAfterTheSynchronisation) {
    const ToolRun run(module_, upgrade_arguments(folder_.path("absent.pkg")));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send fw info failed,err: 0x103");
    EXPECT_TRUE(has_line(run, "[INFO] Boot Version: V1.4.2"));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST_F(Rx7040Upgrade, FolderIsNoFirmware) {
    const ToolRun run(module_, upgrade_arguments(folder_.path()));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send fw info failed,err: 0x107");
}

TEST_F(Rx7040Upgrade, NoFirmwareOptionIsAMissingFile) {
    const ToolRun run(module_, {"-m", "MX295A", "-p", "COM6", "-b", "115200", "-t", "upgrade"});
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send fw info failed,err: 0x103");
}

TEST_F(Rx7040Upgrade, PortThatDoesNotOpenEndsTheRun) {
    Conditions conditions;
    conditions.port.open_error = 13;
    const ToolRun run = upgrade(1, conditions);
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Open & config the serial failed");
    EXPECT_EQ(run.result(), upgrade_failure(-1));

    const ToolRun nameless(module_, {"-m", "MX290B", "-t", "UPG"});
    EXPECT_EQ(nameless.family_lines().back(), "[ERROR] Open & config the serial failed");
}

TEST_F(Rx7040Upgrade, OptionValuesCountUpTo255Characters) {
    const std::string name(300, 'x');
    const ToolRun run(module_, {"-m", "MX290B", "-p", name, "-f", name, "-t", "UPG"});
    EXPECT_TRUE(has_line(run, "[INFO] Port: " + std::string(255, 'x')));
    EXPECT_TRUE(has_line(run, "[INFO] Firmware:" + std::string(255, 'x')));
}

TEST_F(Rx7040Upgrade, DebugModeDumpsTheTraffic) {
    std::vector<std::string> arguments = upgrade_arguments(folder_.write("app.pkg", Bytes{1}));
    arguments.push_back("-D");
    const ToolRun run(module_, arguments);
    EXPECT_TRUE(has_line(run, " debug mode"));
    EXPECT_TRUE(has_line(run, "[DEBUG] send to module -- < 09 13 56 4b "));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Rx7040Upgrade, EndsWhereverTheDeviceVanishes) {
    expect_failure_whenever_unplugged(
        [this](const Conditions& conditions) { return upgrade(12'000, conditions); },
        {.interval_ms = 41, .most_ms_behind = 22'000});
}

class Rx7040Entry : public Rx7040Upgrade, public ::testing::WithParamInterface<std::string> {};

class Rx7040UnknownModes : public Rx7040Entry {};

TEST_P(Rx7040UnknownModes, AreExplained) {
    const ToolRun run(module_, {"-m", "MX290B", "-p", "COM6", "-t", GetParam()});
    const std::string upgrade_example =
        "[INFO] Upgrade Ex: .\\orbix_flash -m MX290B -p COM6 -f .\\MX290B03AANR01A02SV01.pkg -b "
        "460800 -t UPG";
    const std::string download_example =
        "[INFO] Download Ex: .\\orbix_flash -m MX290B -p COM6 -L .\\DA_V2.1.10.pkg -f "
        ".\\MX290B03AANR01A02S_BOOT.pkg -t DL";
    const std::vector<std::string> expected{
        "[INFO] rx7040 entry function",
        "[INFO] Invalid upgrade mode:" + GetParam().substr(0, 31),
        "[INFO] You must enter a upgrade mode(-t UPG or -t DL)!",
        upgrade_example,
        download_example,
    };
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_failure(258));
    EXPECT_EQ(run.opens, 0);
}

INSTANTIATE_TEST_SUITE_P(Words, Rx7040UnknownModes,
                         ::testing::Values("upg", "Download", "D", std::string(40, 'z'),
                                           std::string(31, 'z') + "DL"));

TEST_F(Rx7040Upgrade, MissingModeIsExplained) {
    const ToolRun run(module_, {"-m", "MX290B", "-p", "COM6"});
    EXPECT_TRUE(has_line(run, "[INFO] Invalid upgrade mode:"));
    EXPECT_EQ(run.result(), upgrade_failure(258));
    const ToolRun cut_short(module_, {"-m", "MX290B", "-p", "COM6", "-t"});
    EXPECT_EQ(cut_short.result(), upgrade_failure(258));
}

class Rx7040UpgradeModes : public Rx7040Entry {};

TEST_P(Rx7040UpgradeModes, SelectTheUpgrade) {
    const ToolRun run(module_, {"-m", "MX290B", "-t", GetParam()});
    EXPECT_TRUE(has_line(run, " Enter upgrade"));
}

INSTANTIATE_TEST_SUITE_P(Words, Rx7040UpgradeModes,
                         ::testing::Values("UPG", "upgrade", "DLUPG", "FOTA_UPG",
                                           "download_upgrade"));

class Rx7040DownloadModes : public Rx7040Entry {};

TEST_P(Rx7040DownloadModes, SelectTheDownload) {
    const ToolRun run(module_, {"-m", "MX290B", "-t", GetParam()});
    EXPECT_TRUE(has_line(run, " Enter download"));
}

INSTANTIATE_TEST_SUITE_P(Words, Rx7040DownloadModes, ::testing::Values("DL", "download", "xDLx"));

TEST_F(Rx7040Upgrade, LastModeCounts) {
    const ToolRun run(module_, {"-m", "MX290B", "-t", "UPG", "-t", "DL"});
    EXPECT_TRUE(has_line(run, " Enter download"));
}

}  // namespace
}  // namespace orbix::test
