// The upgrade of the evaluation board.
#include <gtest/gtest.h>

#include <filesystem>

#include "evaluation_board.h"
#include "run/harness.h"
#include "run/unplugged.h"
#include "upgrade_frames.h"

namespace orbix::test {
namespace {

using sim::EvaluationBoard;
using sim::UpgradeFrame;

class Evb : public ::testing::Test {
  protected:
    std::vector<std::string> arguments() {
        return {"-m", "GNSS-MODULE-EVB", "-p", "COM6",
                "-b", "115200",          "-f", folder_.write("fw.bin", image_)};
    }
    ToolRun upgrade(Conditions conditions = {}) {
        return ToolRun(board_, arguments(), std::move(conditions));
    }
    bool holds_image() {
        return board_.flash().holds(EvaluationBoard::application_address, image_);
    }

    /// Every response to a command of this id becomes what `change` makes of it.
    void on_response(std::uint8_t id, std::function<void(Bytes& response)> change) {
        board_.tamper = [id, change = std::move(change)](const UpgradeFrame& frame,
                                                         Bytes& response) {
            if (frame.command == id) {
                change(response);
            }
        };
    }

    TempDir folder_;
    EvaluationBoard board_;
    Bytes image_ = random_image(12'000);
};

TEST_F(Evb, SaysAndSendsExactlyThis) {
    image_ = {'f', 'i', 'r', 'm'};
    std::vector<std::string> words = arguments();
    words.insert(words.end(), {"-t", "APP"});
    const ToolRun run(board_, words);
    const std::vector<std::string> expected{
        " Enter GNSS_EVB_upgrade",
        "[INFO] Module: GNSS-MODULE-EVB",
        "[INFO] Port: COM6",
        "[INFO] Baud rate:115200",
        "[INFO] Firmware:" + folder_.path("fw.bin"),
        "[INFO] Connect...",
        "[INFO] Synchronize...",
        "[INFO] Boot Version: V1.4.2",
        "[INFO] Send Firmware Information...",
        "[INFO] File Size: 4",
        "[INFO] Send Firmware...",
    };
    EXPECT_EQ(run.family_lines(), expected);
    EXPECT_EQ(run.result(), upgrade_success);

    Bytes sent = hex("09 13 56 4B 04 A5 03 12 AA F0 01 00 00 A6 E0 A3 8C 55");
    append(sent,
           sim::make_upgrade_frame(2, 2, hex("00 00 00 04 96 29 8F 72 00 00 00 00 01 00 00 00")));
    append(sent, hex("AA 02 03 00 00 89 0B A9 CE 55"));
    append(sent, sim::make_upgrade_frame(2, 4, hex("00 00 00 00 66 69 72 6D")));
    EXPECT_EQ(as_hex(run.sent), as_hex(sent)) << "and no reset";

    const auto progress = run.progress_lines();
    ASSERT_EQ(progress.size(), 4U);
    EXPECT_EQ(progress[0], "[PROGRESS] 0.00%\r");
    EXPECT_EQ(progress[1], "[SPEED] 0 Bytes/4 Bytes    0 KBps");
    EXPECT_EQ(progress[2], "[PROGRESS] 100.00%\r");
    EXPECT_TRUE(board_.rebooted());
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(run.left_open);
}

class EvbSizes : public Evb, public ::testing::WithParamInterface<std::size_t> {};

TEST_P(EvbSizes, FlashHoldsTheImage) {
    image_ = random_image(GetParam());
    EXPECT_EQ(upgrade().result(), upgrade_success);
    EXPECT_TRUE(holds_image());
    EXPECT_EQ(board_.flash().cells().back(), 0xFF);
}

INSTANTIATE_TEST_SUITE_P(Images, EvbSizes,
                         ::testing::Values(0, 1, 240, 241, 1024, 2048, 2049, 5120, 5121, 500'123));

TEST_F(Evb, BoardWithoutVersionIsUpgradedAfterThreeSeconds) {
    const std::uint64_t usual = upgrade().duration_ms;
    on_response(0x01, [](Bytes& response) { response.clear(); });
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, " [WARN] Get boot ver failed,err: 0x107"));
    EXPECT_TRUE(has_line(run, "[INFO] Boot Version: "));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(holds_image());
    EXPECT_GE(run.duration_ms, usual + 2'950);
    EXPECT_LE(run.duration_ms, usual + 3'100);
}

TEST_F(Evb, VersionThatComesLateIsTaken) {
    Conditions late;
    late.faults.push_back({.kind = sim::FaultKind::delay,
                           .direction = sim::Direction::to_host,
                           .byte = 8,
                           .amount = 2'900});
    EXPECT_TRUE(has_line(upgrade(late), "[INFO] Boot Version: V1.4.2"));
}

TEST_F(Evb, VersionWithABadCrcIsGivenUpAfterThreeSecondsOfSilence) {
    on_response(0x01, [](Bytes& response) { response[9] ^= 1; });
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, " [WARN] Get boot ver failed,err: 0x107"));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Evb, VersionOfAnotherClassIsWarnedOf) {
    on_response(0x01, [](Bytes& response) {
        response = sim::make_upgrade_frame(2, 1, hex("02 01 00 00 01 02 03"));
    });
    const ToolRun run = upgrade();
    EXPECT_TRUE(has_line(run, " [WARN] Get boot ver failed,err: 0x107"));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST_F(Evb, WrongTailOfTheVersionIsWarnedOf) {
    on_response(0x01, [](Bytes& response) { response.back() = 0; });
    EXPECT_TRUE(has_line(upgrade(), " [WARN] Get boot ver failed,err: 0x402"));
}

TEST_F(Evb, OtherWaitsHaveNoLimit) {
    on_response(0x03, [](Bytes& response) { response.clear(); });
    const ToolRun run = upgrade(unplugged_after_ms(600'000));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Erase Flash app area failed,err: 0x107");
    EXPECT_GE(run.duration_ms, 600'000U);
}

TEST_F(Evb, ResponseIsReadFiftyMillisecondsAtATime) {
    on_response(0x03, [](Bytes& response) { response.clear(); });
    // A read from a device that has vanished lasts its time-out, and is the last.
    EXPECT_EQ(upgrade(unplugged_after_ms(60'000)).duration_ms, 60'050U);
}

TEST_F(Evb, SpeedIsCountedOneKibibyteHighFromTheLineBeforeTheFirstFrame) {
    expect_speed_of_frames(upgrade(), 12'000);
}

class EvbChangedImages : public Evb, public ::testing::WithParamInterface<std::uintmax_t> {};

TEST_P(EvbChangedImages, AreRefusedOnceTheyHaveBeenAnnounced) {
    on_response(0x03, [this](Bytes& /*response*/) {
        std::filesystem::resize_file(folder_.path("fw.bin"), GetParam());
    });
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade();
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Send bin failed,err: 0x107");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 1);
    EXPECT_FALSE(board_.rebooted());
}

INSTANTIATE_TEST_SUITE_P(Lengths, EvbChangedImages, ::testing::Values(0, 11'999, 12'001));

TEST_F(Evb, StatusOfAResponseIsNotLookedAt) {
    board_.tamper = [](const UpgradeFrame& frame, Bytes& response) {
        if (frame.address == 2) {
            response = sim::make_upgrade_frame(2, frame.command, Bytes{2, frame.command, 1, 1});
        }
    };
    EXPECT_EQ(upgrade().result(), upgrade_success);
}

struct Refusal {
    std::uint8_t id;
    std::string line;
    bool closes;
};

class EvbRefusals : public Evb, public ::testing::WithParamInterface<Refusal> {};

TEST_P(EvbRefusals, EndTheUpgrade) {
    int frames = 0;
    on_response(GetParam().id, [&frames](Bytes& response) {
        ++frames;
        response = sim::make_upgrade_frame(2, 0x77, hex("02 77 00 00"));
    });
    const ToolRun run = upgrade();
    EXPECT_EQ(run.family_lines().back(), GetParam().line);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(frames, 1) << "nothing is sent twice";
    EXPECT_EQ(run.closes, GetParam().closes ? 1 : 0);
    EXPECT_EQ(run.left_open, !GetParam().closes);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, EvbRefusals,
    ::testing::Values(Refusal{0x02, "[ERROR] Send fw info failed,err: 0x107", false},
                      Refusal{0x03, "[ERROR] Erase Flash app area failed,err: 0x107", false},
                      Refusal{0x04, "[ERROR] Send bin failed,err: 0x107", true}));

TEST_F(Evb, SilentBoardIsGivenUpAfterTwentySeconds) {
    SilentModule silent;
    const ToolRun run(silent, arguments());
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Sync the serial failed,err: 0x400");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GE(run.duration_ms, 20'000U);
    EXPECT_LE(run.duration_ms, 20'050U);
    EXPECT_NEAR(static_cast<double>(silent.heard.size()) / 4, 20'000 / 10.35, 5);
    EXPECT_TRUE(run.left_open);
}

TEST_F(Evb, WrongSecondAnswerEndsTheSynchronisation) {
    board_.tamper_sync = [](sim::SyncEvent probe, Bytes& answer) {
        if (probe == sim::SyncEvent::second_probe) {
            answer.clear();
        }
    };
    EXPECT_EQ(upgrade().family_lines().back(), "[ERROR] Sync the serial failed,err: 0x401");
}

TEST_F(Evb, SecondAnswerIsGivenFiftyMilliseconds) {
    Conditions late;
    late.faults.push_back({.kind = sim::FaultKind::delay,
                           .direction = sim::Direction::to_host,
                           .byte = 4,
                           .amount = 45});
    EXPECT_EQ(upgrade(late).result(), upgrade_success);
    late.faults[0].amount = 60;
    EXPECT_EQ(upgrade(late).family_lines().back(), "[ERROR] Sync the serial failed,err: 0x401");
}

TEST_F(Evb, BadInputIsReported) {
    const ToolRun no_port(board_, {"-m", "GNSS-MODULE-EVB", "-b", "115200"});
    EXPECT_EQ(no_port.family_lines().back(), "[ERROR] Open & config the serial failed");
    EXPECT_EQ(no_port.result(), upgrade_failure(-1));

    std::vector<std::string> words = arguments();
    words[7] = folder_.path("absent.bin");
    EXPECT_EQ(ToolRun(board_, words).family_lines().back(),
              "[ERROR] Send fw info failed,err: 0x103");
    words[7] = folder_.path();
    EXPECT_EQ(ToolRun(board_, words).family_lines().back(),
              "[ERROR] Send fw info failed,err: 0x107");
}

TEST_F(Evb, EndsWhereverTheDeviceVanishes) {
    expect_failure_whenever_unplugged(
        [this](const Conditions& conditions) { return upgrade(conditions); },
        {.interval_ms = 43, .most_ms_behind = 22'000});
}

}  // namespace
}  // namespace orbix::test
