// The upgrade dialogue with the agent of a running firmware, end to end through the family that
// has nothing else (RTA500C), and its routine alone for what no family of that kind does.
#include "teseo/nmea_upgrade.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>

#include "core/kv_log.h"
#include "core/kv_util.h"
#include "run/harness.h"
#include "teseo/transfer.h"
#include "upgrade_agent.h"

namespace orbix::test {
namespace {

using sim::AgentStatus;
using sim::SyncEvent;
using sim::UpgradeAgent;
using sim::UpgradeFrame;

const std::array<std::string, 6> area_words{"",           "gnss",      "app",
                                            "slave_gnss", "slave_app", "slave_boot"};

std::vector<std::string> arguments(const std::string& image, const std::string& area = "app") {
    return {"-m", "RTA500C_EVB_NXP", "-p", "COM6", "-b", "115200", "-f", image, "-c", area};
}

/// What the family says behind its option lines.
std::vector<std::string> dialogue_lines(const ToolRun& run) {
    auto lines = run.family_lines();
    const auto version = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.starts_with("[INFO] Version: ");
    });
    lines.erase(lines.begin(), version == lines.end() ? version : version + 1);
    return lines;
}

const std::vector<std::string> sync_lines{"[INFO] Synchronize...",
                                          "[INFO] Please power up the module within 10s."};

/// The synchronisation's announcement and what follows it.
std::vector<std::string> after_sync(std::initializer_list<std::string> more) {
    auto lines = sync_lines;
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

/// The four commands behind the synchronisation.
struct Step {
    std::uint8_t command;
    std::string announcement;
    std::string failure;
    unsigned timeout_ms;
};

const std::vector<Step> steps{
    {1, "[INFO] Send Firmware Address...", "[ERROR] Send firmware address failed.Upgrade failed.",
     3000},
    {2, "[INFO] Send Firmware Information...",
     "[ERROR] Send firmware information failed.Upgrade failed.", 3000},
    {3, "[INFO] Send Firmware Upgrade Command...",
     "[ERROR] Send upgrade command failed.Upgrade failed.", 180000},
    {4, "[INFO] Sending Firmware...", "[ERROR] Send firmware failed.Upgrade failed.", 10000},
};

/// All that is said when the step with that index fails with `reason`, if it gives one.
std::vector<std::string> lines_of_failure(std::size_t failing, const std::string& reason) {
    auto lines = sync_lines;
    for (std::size_t index = 0; index <= failing; ++index) {
        lines.push_back(steps[index].announcement);
    }
    if (!reason.empty()) {
        lines.push_back(reason);
    }
    lines.push_back(steps[failing].failure);
    return lines;
}

/// A run in which the reply to one command is replaced.
ToolRun run_with_reply(std::uint8_t command, const Bytes& reply, std::size_t image_size = 3) {
    const TempDir folder;
    UpgradeAgent module;
    module.tamper = [&](const UpgradeFrame& frame, Bytes& bytes) {
        if (frame.command == command) {
            bytes = reply;
        }
    };
    return {module, arguments(folder.write("fw.bin", random_image(image_size)))};
}

// --- the image in the flash ---

class NmeaUpgradeImages : public ::testing::TestWithParam<std::tuple<int, std::size_t>> {};

TEST_P(NmeaUpgradeImages, AreaHoldsTheImageAndTheOthersAreUntouched) {
    const TempDir folder;
    const auto [area, size] = GetParam();
    const Bytes image = random_image(size, static_cast<unsigned>(area));
    UpgradeAgent module;
    module.flash().fill(0x5A);
    const ToolRun run(module, arguments(folder.write("fw.bin", image),
                                        area_words[static_cast<std::size_t>(area)]));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.completed());
    for (std::uint8_t code = 1; code <= 5; ++code) {
        const auto held = module.area(code, size + 1);
        if (code == area) {
            EXPECT_TRUE(std::equal(image.begin(), image.end(), held.begin()));
            EXPECT_EQ(held.back(), 0xFF) << "the area was not erased";
        } else {
            EXPECT_TRUE(std::all_of(held.begin(), held.end(),
                                    [](std::uint8_t byte) { return byte == 0x5A; }))
                << "area " << int{code} << " was touched";
        }
    }
    EXPECT_EQ(run.count("[PROGRESS]"), (size + 5119) / 5120);
    EXPECT_FALSE(run.left_open);
}

INSTANTIATE_TEST_SUITE_P(Sizes, NmeaUpgradeImages,
                         ::testing::Combine(::testing::Values(1, 2),
                                            ::testing::Values(0, 1, 5119, 5120, 5121, 10240, 16384,
                                                              16385)));
INSTANTIATE_TEST_SUITE_P(LargeImage, NmeaUpgradeImages, ::testing::Values(std::tuple(3, 600'123)));
INSTANTIATE_TEST_SUITE_P(Areas, NmeaUpgradeImages,
                         ::testing::Combine(::testing::Values(4, 5), ::testing::Values(7000)));

// --- bytes and lines ---

TEST(NmeaUpgrade, SendsTheFramesOfAGnssAreaByteForByte) {
    const TempDir folder;
    UpgradeAgent module;
    const ToolRun run(module, arguments(folder.write("fw.bin", std::string("ABC")), "gnss"));
    EXPECT_EQ(as_hex(run.sent),
              "09 13 56 4B 04 A5 03 12 "
              "AA 01 01 00 04 00 00 00 00 FA 7F 72 83 55 "
              "AA 01 02 00 20 00 00 00 03 F0 46 1F B9 10 00 00 00 00 00 04 00 00 17 00 00 00 09 00 "
              "00 01 00 00 00 00 00 00 00 05 93 38 95 55 "
              "AA 01 03 00 00 9B BE 06 20 55 "
              "AA 01 04 00 07 00 00 00 00 41 42 43 F5 E5 1D 15 55");
}

TEST(NmeaUpgrade, SendsTheFramesOfAProcessorAreaByteForByte) {
    const TempDir folder;
    UpgradeAgent module;
    const ToolRun run(module, arguments(folder.write("fw.bin", std::string("ABC")), "app"));
    EXPECT_EQ(as_hex(run.sent),
              "09 13 56 4B 04 A5 03 12 "
              "AA 02 01 00 04 00 00 00 00 74 F0 75 60 55 "
              "AA 02 02 00 10 00 00 00 03 F0 46 1F B9 00 00 00 00 01 00 00 00 EB 9A E8 3D 55 "
              "AA 02 03 00 00 89 0B A9 CE 55 "
              "AA 02 04 00 07 00 00 00 00 41 42 43 6C 07 7B 14 55");
}

TEST(NmeaUpgrade, EmptyImageIsAnnouncedWithTheCrcOfItsSizeAndSendsNoPacket) {
    const TempDir folder;
    UpgradeAgent module;
    const ToolRun run(module, arguments(folder.write("fw.bin", std::string()), "slave_boot"));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(contains(run.sent, hex("AA 05 02 00 10 00 00 00 00 21 44 DF 1C 00 00 00 00 01 00 "
                                       "00 00 FE ED 2B 20 55")));
    EXPECT_FALSE(contains(run.sent, hex("AA 05 04")));
    EXPECT_TRUE(run.progress_lines().empty());
    EXPECT_EQ(dialogue_lines(run), after_sync({steps[0].announcement, steps[1].announcement,
                                               steps[2].announcement, steps[3].announcement}));
}

TEST(NmeaUpgrade, InformationIsLongForTheGnssAreasOnly) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(9));
    const std::map<std::string, std::size_t> lengths{
        {"gnss", 42}, {"app", 26}, {"slave_gnss", 42}, {"slave_app", 26}, {"slave_boot", 26}};
    for (const auto& [area, length] : lengths) {
        UpgradeAgent module;
        const ToolRun run(module, arguments(image, area));
        EXPECT_EQ(run.result(), upgrade_success);
        EXPECT_EQ(run.sent.size(), 8 + 14 + length + 10 + (9 + 14)) << area;
    }
}

TEST(NmeaUpgrade, ReportsProgressAndTheRateSinceTheDialogueBegan) {
    const TempDir folder;
    UpgradeAgent::Settings settings;
    settings.start_time = sim::milliseconds(3000);
    UpgradeAgent module(settings);
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(5121))));

    EXPECT_EQ(run.result(), upgrade_success);
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0], "[PROGRESS] 99.98%");
    EXPECT_EQ(lines[2], "[PROGRESS] 100.00%");
    for (const std::size_t index : {1U, 3U}) {
        const std::string head =
            index == 1 ? "[SPEED] 5120 Bytes/5121 Bytes    " : "[SPEED] 5121 Bytes/5121 Bytes    ";
        EXPECT_TRUE(lines[index].starts_with(head)) << lines[index];
        // The run's clock and the rate's clock both start at 0 here.
        const std::size_t stamp = run.output.find("]" + lines[index]) - 7;
        const double seconds = std::strtod(run.output.c_str() + stamp, nullptr);
        EXPECT_GT(seconds, 3.0);
        char expected[32];
        std::snprintf(expected, sizeof expected, "%.1f KBps",
                      (index == 1 ? 5120 : 5121) / 1024.0 / seconds);
        EXPECT_EQ(lines[index].substr(head.size()), expected);
    }
}

TEST(NmeaUpgrade, RateCountsFromTheFirstPacketWhenTheModuleAnswersInTheFirstMillisecond) {
    const TempDir folder;
    UpgradeAgent module;
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(5121))));
    EXPECT_EQ(time_of(run, "Synchronize..."), 0);
    const auto lines = run.progress_lines();
    ASSERT_EQ(lines.size(), 4U);
    // The clock has read 0 before, which does not start it.
    EXPECT_EQ(lines[1], "[SPEED] 5120 Bytes/5121 Bytes    0 KBps");
    const long begun = time_of(run, lines[1]);
    EXPECT_GT(begun, 0);
    EXPECT_EQ(lines[3], speed_line(run, 5121, 5121, 5121 / 1024.0, begun));
}

// --- replies ---

struct StatusLine {
    std::uint8_t status;
    std::string line;
};

class NmeaUpgradeStatus : public ::testing::TestWithParam<StatusLine> {};

TEST_P(NmeaUpgradeStatus, FailsEachStepWithItsLine) {
    for (std::size_t index = 0; index < steps.size(); ++index) {
        const Bytes payload{0, 0, 0, GetParam().status};
        const ToolRun run = run_with_reply(
            steps[index].command, sim::make_upgrade_frame(2, steps[index].command, payload));
        EXPECT_EQ(dialogue_lines(run), lines_of_failure(index, GetParam().line));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_FALSE(run.left_open);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Codes, NmeaUpgradeStatus,
    ::testing::Values(StatusLine{0x01, "[ERROR] Unknow error."},
                      StatusLine{0x02, "[ERROR] CRC32 checksum error."},
                      StatusLine{0x03, "[ERROR] Timeout."},
                      StatusLine{0x04, "[ERROR] Unsupported message."},
                      StatusLine{0x05, "[ERROR] Message package error."},
                      StatusLine{0x06, "[ERROR] Message fm size error."},
                      StatusLine{0x07, "[ERROR] ACK not expected [07]"},
                      StatusLine{0x0F, "[ERROR] ACK not expected [0f]"},
                      StatusLine{0x10, "[ERROR] GNSS synchronization error."},
                      StatusLine{0x11, "[ERROR] GNSS change baud rate error."},
                      StatusLine{0x12, "[ERROR] GNSS Bootloader error."},
                      StatusLine{0x13, "[ERROR] GNSS firmware information error."},
                      StatusLine{0x14, "[ERROR] GNSS firmware upgrade error."},
                      StatusLine{0x15, "[ERROR] ACK not expected [15]"},
                      StatusLine{0x20, "[ERROR] APP firmware area erase error."},
                      StatusLine{0x21, "[ERROR] APP firmware write to Flash error."},
                      StatusLine{0x22, "[ERROR] ACK not expected [22]"},
                      StatusLine{0xFF, "[ERROR] ACK not expected [ff]"}));

TEST(NmeaUpgrade, SilenceEndsEachStepAfterItsOwnTimeOutWithoutARetry) {
    for (std::size_t index = 0; index < steps.size(); ++index) {
        const ToolRun run = run_with_reply(steps[index].command, {});
        const std::string reason =
            "[ERROR] ACK time out " + std::to_string(steps[index].timeout_ms) + " ms";
        EXPECT_EQ(dialogue_lines(run), lines_of_failure(index, reason));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_GE(run.duration_ms, steps[index].timeout_ms);
        EXPECT_LE(run.duration_ms, steps[index].timeout_ms + 500);
        const Bytes head{0xAA, 0x02, steps[index].command};
        const auto first = std::search(run.sent.begin(), run.sent.end(), head.begin(), head.end());
        EXPECT_EQ(std::search(first + 1, run.sent.end(), head.begin(), head.end()), run.sent.end());
    }
}

Bytes good_reply(std::size_t payload_length = 4) {
    return sim::make_upgrade_frame(2, 1, Bytes(payload_length, 0));
}

TEST(NmeaUpgrade, MalformedRepliesFailWithoutALineOfTheirOwn) {
    std::map<std::string, Bytes> replies;
    replies["13 bytes"] = good_reply(3);
    replies["15 bytes"] = good_reply(5);
    replies["one byte"] = {0xAA};
    replies["head"] = good_reply();
    replies["head"][0] = 0xAB;
    replies["tail"] = good_reply();
    replies["tail"][13] = 0x54;
    replies["CRC"] = good_reply();
    replies["CRC"][9] ^= 1;
    replies["status changed on the way"] = good_reply();
    replies["status changed on the way"][8] = 0x02;
    replies["length past the reply"] = good_reply();
    replies["length past the reply"][3] = 0xFF;
    replies["length one past the reply"] = good_reply();
    replies["length one past the reply"][4] = 10;
    ASSERT_EQ(replies["13 bytes"].size(), 13U);
    ASSERT_EQ(replies["15 bytes"].size(), 15U);
    for (const auto& [what, reply] : replies) {
        const ToolRun run = run_with_reply(1, reply);
        EXPECT_EQ(dialogue_lines(run), lines_of_failure(0, "")) << what;
        EXPECT_EQ(run.result(), upgrade_failure(-1)) << what;
    }
}

TEST(NmeaUpgrade, ReplyNeedNotNameAreaOrCommand) {
    const ToolRun run =
        run_with_reply(1, sim::make_upgrade_frame(0x77, 0x99, Bytes{0x12, 0x34, 0x56, 0}));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(NmeaUpgrade, LengthOfAReplyOnlySetsWhatItsCrcCovers) {
    // The length says 0, so the CRC covers 4 bytes; it stands where it always stands.
    Bytes reply = sim::make_upgrade_frame(2, 1, {});
    const Bytes crc_and_tail(reply.end() - 5, reply.end());
    reply.resize(5);
    reply.insert(reply.end(), {9, 9, 9, 0x06});
    reply.insert(reply.end(), crc_and_tail.begin(), crc_and_tail.end());
    ASSERT_EQ(reply.size(), 14U);
    EXPECT_EQ(dialogue_lines(run_with_reply(1, reply)),
              lines_of_failure(0, "[ERROR] Message fm size error."));
}

TEST(NmeaUpgrade, ByteBehindAGoodReplySpoilsTheNextOne) {
    Bytes reply = good_reply();
    reply.push_back(0x00);
    EXPECT_EQ(dialogue_lines(run_with_reply(1, reply)), lines_of_failure(1, ""));
}

TEST(NmeaUpgrade, ReplyInTwoBurstsFails) {
    const TempDir folder;
    UpgradeAgent module;
    Conditions conditions;
    // The two answers of the synchronisation are 8 bytes.
    conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                 .direction = sim::Direction::to_host,
                                 .byte = 8 + 7,
                                 .amount = 50});
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))), conditions);
    EXPECT_EQ(dialogue_lines(run), lines_of_failure(0, ""));
}

TEST(NmeaUpgrade, LineAt9600IsTooSlowForAnAnswerInOneBurst) {
    const TempDir folder;
    UpgradeAgent module;
    module.start_baud = 9600;
    auto words = arguments(folder.write("fw.bin", random_image(3)));
    words[5] = "9600";
    EXPECT_EQ(ToolRun(module, words).result(), upgrade_failure(-1));
    words[5] = "19200";
    module.start_baud = 19200;
    EXPECT_EQ(ToolRun(module, words).result(), upgrade_success);
}

TEST(NmeaUpgrade, FrameThatIsSpoiltOnTheWayIsRefused) {
    const TempDir folder;
    UpgradeAgent module;
    Conditions conditions;
    conditions.faults.push_back({.kind = sim::FaultKind::flip, .byte = 8 + 14 + 26 + 10 + 9});
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(5000))), conditions);
    EXPECT_EQ(dialogue_lines(run), lines_of_failure(3, "[ERROR] CRC32 checksum error."));
    EXPECT_FALSE(module.completed());
}

TEST(NmeaUpgrade, ImageTooLargeForTheAreaIsRefusedBeforeAnythingIsErased) {
    const TempDir folder;
    UpgradeAgent module;
    module.flash().fill(0x5A);
    const ToolRun run(module, arguments(folder.write("fw.bin", Bytes(0x100001))));
    EXPECT_EQ(dialogue_lines(run), lines_of_failure(1, "[ERROR] Message fm size error."));
    EXPECT_EQ(module.flash().cells()[0x100000], 0x5A);
}

TEST(NmeaUpgrade, ImageThatShrinksDuringTheRunIsAFailure) {
    const TempDir folder;
    const std::string path = folder.write("fw.bin", random_image(20'000));
    UpgradeAgent module;
    module.tamper = [&path](const UpgradeFrame& frame, Bytes& /*reply*/) {
        if (frame.command == 3) {
            std::filesystem::resize_file(path, 6000);
        }
    };
    const ToolRun run(module, arguments(path));
    EXPECT_EQ(run.count("[SPEED] 6000 Bytes/20000 Bytes"), 1U);
    EXPECT_EQ(dialogue_lines(run), lines_of_failure(3, ""));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

// --- synchronisation ---

TEST(NmeaUpgrade, SilentModuleEndsTheSynchronisationAfterTenSeconds) {
    const TempDir folder;
    SilentModule module;
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))));
    EXPECT_EQ(dialogue_lines(run), after_sync({"[ERROR] SYNC time out 10000 ms",
                                               "[ERROR] Sync module failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_GT(run.duration_ms, 10'000U);
    EXPECT_LT(run.duration_ms, 10'010U);
    // A probe takes 0.35 ms on the line, and 5 ms are waited for its answer.
    EXPECT_NEAR(static_cast<double>(run.sent.size()) / 4, 10'000 / 5.35, 5);
    EXPECT_EQ(as_hex(std::span(run.sent).first(8)), "09 13 56 4B 09 13 56 4B");
}

TEST(NmeaUpgrade, ModuleMayBePoweredUpMeanwhile) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(3));
    UpgradeAgent::Settings settings;
    settings.start_time = sim::milliseconds(9900);
    UpgradeAgent in_time(settings);
    EXPECT_EQ(ToolRun(in_time, arguments(image)).result(), upgrade_success);
    settings.start_time = sim::milliseconds(10'050);
    UpgradeAgent too_late(settings);
    EXPECT_EQ(ToolRun(too_late, arguments(image)).count("SYNC time out 10000 ms"), 1U);
}

TEST(NmeaUpgrade, CatchesAReceiverThatTalks) {
    const TempDir folder;
    UpgradeAgent::Settings settings;
    settings.talker.period = sim::milliseconds(20);  // the line is never quiet for long
    settings.start_time = sim::milliseconds(500);
    UpgradeAgent module(settings);
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(6000))));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_TRUE(module.completed());
}

/// Says the same after every probe, and nothing else.
class Parrot : public SilentModule {
  public:
    explicit Parrot(Bytes words) : words_(std::move(words)) {}
    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override {
        SilentModule::receive(byte, now, wire);
        if (byte == 0x4B) {
            wire.send(words_);
        }
    }

  private:
    Bytes words_;
};

TEST(NmeaUpgrade, OtherBytesAreScannedAndFollowedByAPause) {
    const TempDir folder;
    Parrot module({0x11});
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))));
    EXPECT_EQ(run.count("SYNC time out 10000 ms"), 1U);
    // Probe 0.35 ms, byte 0.09 ms, 1 ms of quiet, 10 ms of pause.
    EXPECT_NEAR(static_cast<double>(run.sent.size()) / 4, 10'000 / 11.44, 10);
}

TEST(NmeaUpgrade, AnswerInTwoReadsIsRecognised) {
    const TempDir folder;
    for (const std::uint64_t cut : {1U, 2U, 3U}) {
        UpgradeAgent module;
        Conditions conditions;
        conditions.faults.push_back({.kind = sim::FaultKind::delay,
                                     .direction = sim::Direction::to_host,
                                     .byte = cut,
                                     .amount = 8});
        module.tamper_sync = [first = true](SyncEvent probe, Bytes& answer) mutable {
            if (probe == SyncEvent::first_probe && !first) {
                answer.clear();  // one answer only: it has to be put together
            }
            first = false;
        };
        const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))), conditions);
        EXPECT_EQ(run.result(), upgrade_success) << cut;
        EXPECT_GE(std::count(run.sent.begin(), run.sent.end(), 0x4B), 2) << "one read only";
    }
}

TEST(NmeaUpgrade, MismatchingByteIsNotTriedAsANewFirstByte) {
    const TempDir folder;
    Parrot module({0x4D, 0x4D, 0x3A, 0xFC, 0xAA});
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))));
    EXPECT_EQ(run.count("SYNC time out 10000 ms"), 1U);
    EXPECT_FALSE(contains(run.sent, hex("04 A5 03 12")));
}

TEST(NmeaUpgrade, BytesBehindTheFirstAnswerAreDropped) {
    const TempDir folder;
    UpgradeAgent module;
    module.tamper_sync = [](SyncEvent probe, Bytes& answer) {
        if (probe == SyncEvent::first_probe) {
            answer.insert(answer.end(), {0x4D, 0x3A, 0x00});
        }
    };
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))));
    EXPECT_EQ(run.result(), upgrade_success);
}

struct SecondAnswer {
    Bytes bytes;
    std::string line;  ///< empty when it is accepted
};

class NmeaUpgradeSecondAnswer : public ::testing::TestWithParam<SecondAnswer> {};

TEST_P(NmeaUpgradeSecondAnswer, IsJudgedByItsFirstFourBytes) {
    const TempDir folder;
    UpgradeAgent module;
    module.tamper_sync = [](SyncEvent probe, Bytes& answer) {
        if (probe == SyncEvent::second_probe) {
            answer = GetParam().bytes;
        }
    };
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(3))));
    if (GetParam().line.empty()) {
        EXPECT_EQ(run.result(), upgrade_success);
        return;
    }
    EXPECT_EQ(dialogue_lines(run),
              after_sync({GetParam().line, "[ERROR] Sync module failed.Upgrade failed."}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    if (GetParam().bytes.empty()) {
        EXPECT_GE(run.duration_ms, 10'000U);
        EXPECT_LE(run.duration_ms, 10'050U);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Answers, NmeaUpgradeSecondAnswer,
    ::testing::Values(SecondAnswer{{}, "[ERROR] ACK time out 10000 ms"},
                      SecondAnswer{{0xA0, 0x5B, 0xFD, 0x54}, "[ERROR] ACK not expected [a0]"},
                      SecondAnswer{{0x05, 0xA0, 0x5B, 0xFD, 0x55}, "[ERROR] ACK not expected [05]"},
                      SecondAnswer{{0xA0}, "[ERROR] ACK not expected [a0]"},
                      SecondAnswer{{0xA0, 0x5B, 0xFD, 0x55, 0x24, 0x47}, ""}));

// --- the line ---

TEST(NmeaUpgrade, UnplugInAnyStepEndsTheRun) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(11'000));
    UpgradeAgent whole;
    const std::uint64_t duration = ToolRun(whole, arguments(image)).duration_ms;
    for (std::uint64_t at = 0; at < duration; at += 31) {
        UpgradeAgent module;
        const ToolRun run(module, arguments(image), unplugged_after_ms(at));
        EXPECT_EQ(run.result(), upgrade_failure(-1)) << at;
        EXPECT_FALSE(run.hit_time_limit);
        EXPECT_FALSE(run.left_open);
        EXPECT_LE(run.duration_ms, at + 361'000);
        EXPECT_EQ(run.count("failed.Upgrade failed."), 1U) << at;
    }
}

TEST(NmeaUpgrade, PowerLossDuringThePacketsEndsTheRun) {
    const TempDir folder;
    UpgradeAgent module;
    Conditions conditions;
    conditions.faults.push_back({.kind = sim::FaultKind::power_cycle, .byte = 8000});
    const ToolRun run(module, arguments(folder.write("fw.bin", random_image(11'000))), conditions);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.count("Send firmware failed.Upgrade failed."), 1U);
    EXPECT_FALSE(module.completed());
}

// --- the routine alone ---

/// The routine on an open port in virtual time.
class Alone {
  public:
    explicit Alone(sim::Model& module)
        : line_(module, {}, {}, sim::VirtualPort::start),
          port_(line_, {}),
          stream_(open_memstream(&text_, &size_)) {
        kv_log_reset();
        kv_uart_reset();
        set_log_stream(stream_);
        handle = serial_open("COM6", 115200);
    }
    ~Alone() {
        set_log_stream(nullptr);
        std::fclose(stream_);
        std::free(text_);
    }
    Alone(const Alone&) = delete;
    Alone& operator=(const Alone&) = delete;

    [[nodiscard]] std::string output() {
        std::fflush(stream_);
        return {text_, size_};
    }
    [[nodiscard]] std::uint64_t elapsed_ms() const {
        return (port_.now - sim::VirtualPort::start) / 1000;
    }
    [[nodiscard]] Bytes sent() const {
        Bytes bytes;
        for (const auto& each : line_.trace()) {
            if (each.direction == sim::Direction::to_module) {
                bytes.push_back(each.byte);
            }
        }
        return bytes;
    }

    SerialHandle handle = no_port;

  private:
    sim::Line line_;
    sim::VirtualPort port_;
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_;
};

constexpr std::array<std::uint8_t, 8> slave_words{0x90, 0x01, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00};
constexpr std::array slave_steps{teseo::UpgradeStep::start, teseo::UpgradeStep::address,
                                 teseo::UpgradeStep::information, teseo::UpgradeStep::firmware,
                                 teseo::UpgradeStep::restart};

/// A slave that is started first and restarted last, its image held in memory.
const teseo::NmeaUpgrade slave_upgrade{
    .area = 4,
    .address = 0x90000000,
    .information = slave_words,
    .start_command = 0xE2,
    .packet_size = 1024,
    .steps = slave_steps,
    .sync = {.prompt = "Please power up the module within 15s.\n",
             .passes = 700,
             .read_timeout_ms = 20,
             .pause_ms = 20,
             .pauses_after_silence = true},
};

UpgradeAgent::Settings slave_settings() {
    UpgradeAgent::Settings settings;
    settings.areas = {{.code = 4,
                       .flash_address = 0x90000000,
                       .flash_size = 0x10000,
                       .address = 0x90000000,
                       .information = {slave_words.begin(), slave_words.end()},
                       .order = {0xE2, 1, 2, 4, 0xE1},
                       .wrong_image = AgentStatus::app_write_error}};
    settings.largest_packet = 1024;
    return settings;
}

TEST(NmeaUpgradeRoutine, TakesAreaOrderPacketSizeAndAnImageInMemory) {
    for (const std::size_t size : {0U, 1U, 1024U, 1025U, 5000U}) {
        const Bytes image = random_image(size);
        UpgradeAgent module(slave_settings());
        Alone run(module);
        std::int32_t file_len = -1;
        EXPECT_EQ(teseo::run_nmea_upgrade(run.handle, slave_upgrade,
                                          teseo::UpgradeImage::in_memory(image), file_len),
                  0);
        EXPECT_EQ(file_len, static_cast<std::int32_t>(size));
        EXPECT_TRUE(module.completed());
        const auto held = module.area(4, size);
        EXPECT_TRUE(std::equal(image.begin(), image.end(), held.begin()));
        EXPECT_NE(run.output().find("[INFO] Please power up the module within 15s.\n"),
                  std::string::npos);
    }
}

TEST(NmeaUpgradeRoutine, RestartThatIsRefusedIsAFailedUpgradeCommand) {
    UpgradeAgent module(slave_settings());
    module.tamper = [](const UpgradeFrame& frame, Bytes& reply) {
        if (frame.command == 0xE1) {
            reply.clear();
        }
    };
    Alone run(module);
    std::int32_t file_len = -1;
    EXPECT_EQ(teseo::run_nmea_upgrade(run.handle, slave_upgrade,
                                      teseo::UpgradeImage::in_memory(Bytes{1, 2, 3}), file_len),
              -1);
    EXPECT_NE(run.output().find("[ERROR] ACK time out 180000 ms\n"), std::string::npos);
    EXPECT_NE(run.output().find("[ERROR] Send upgrade command failed.Upgrade failed.\n"),
              std::string::npos);
}

TEST(NmeaUpgradeRoutine, PassesEndTheSearchWithoutALine) {
    SilentModule module;
    Alone run(module);
    EXPECT_EQ(teseo::Kv_Nmea_Sync_Module(run.handle, slave_upgrade.sync), -1);
    EXPECT_EQ(run.sent().size(), 700U * 4);
    EXPECT_NEAR(static_cast<double>(run.elapsed_ms()), 700 * 40.35, 10);
    EXPECT_EQ(run.output().find("[ERROR]"), std::string::npos);
}

TEST(NmeaUpgradeRoutine, WhatCameBeforeTheFirstProbeIsDropped) {
    class Chatty : public SilentModule {
        void power_on(sim::Micros /*now*/, sim::Wire& wire) override {
            wire.send({0x4D, 0x3A, 0xFC, 0xAA});
        }
    };
    Chatty module;
    Alone run(module);
    sleep_ms(50);
    EXPECT_EQ(teseo::Kv_Nmea_Sync_Module(run.handle, teseo::upgrade_of_area(1).sync), -1);
    EXPECT_NE(run.output().find("[ERROR] SYNC time out 10000 ms\n"), std::string::npos);
    EXPECT_FALSE(contains(run.sent(), hex("04 A5 03 12")));
}

TEST(NmeaUpgradeRoutine, UnreadableImageIsAnnouncedWithoutACrcAndKeepsTheLengthOfBefore) {
    const TempDir folder;
    SilentModule module;
    Alone run(module);
    std::int32_t file_len = -1;
    const std::string absent = folder.path("absent.bin");
    EXPECT_EQ(
        teseo::Kv_Nmea_Send_Firmware_Info(run.handle, teseo::upgrade_of_area(2),
                                          teseo::UpgradeImage::of_file(absent.c_str()), file_len),
        -1);
    EXPECT_EQ(file_len, -1);
    EXPECT_NE(run.output().find("[ERROR] The file does not exist!\n"), std::string::npos);
    EXPECT_TRUE(contains(run.sent(), hex("AA 02 02 00 10 FF FF FF FF 00 00 00 00 00 00")));
    EXPECT_EQ(teseo::Kv_Nmea_Send_Firmware(run.handle, teseo::upgrade_of_area(2),
                                           teseo::UpgradeImage::of_file(absent.c_str()), file_len),
              -1);
    EXPECT_NE(run.output().find("[ERROR] Firmware " + absent + " open failed.\n"),
              std::string::npos);
    EXPECT_EQ(run.output().find("Sending Firmware..."), std::string::npos);
}

TEST(NmeaUpgradeRoutine, ImageCrcCoversSizeAndContent) {
    const TempDir folder;
    SilentModule module;
    Alone run(module);
    std::int32_t file_len = -1;
    EXPECT_EQ(teseo::get_crc32_with_filesize(nullptr, file_len), 0U);
    EXPECT_EQ(teseo::get_crc32_with_filesize("", file_len), 0U);
    EXPECT_NE(run.output().find("[ERROR] file path err,filepath=[]\n"), std::string::npos);
    EXPECT_EQ(teseo::get_crc32_with_filesize(folder.path().c_str(), file_len), 0U);
    EXPECT_EQ(file_len, -1);
    EXPECT_EQ(teseo::get_crc32_with_filesize(folder.write("three.bin", std::string("ABC")).c_str(),
                                             file_len),
              0xF0461FB9U);
    EXPECT_EQ(file_len, 3);
    EXPECT_EQ(
        teseo::get_crc32_with_filesize(folder.write("none.bin", std::string()).c_str(), file_len),
        0x2144DF1CU);
    EXPECT_EQ(file_len, 0);
}

TEST(NmeaUpgradeRoutine, KnowsTheAreasByTheirWords) {
    for (std::size_t area = 1; area < area_words.size(); ++area) {
        EXPECT_EQ(teseo::flash_area_of(area_words[area].c_str()), static_cast<int>(area));
    }
    for (const char* word : {"", "Gnss", "gnss ", "app_boot", "slave", "1"}) {
        EXPECT_EQ(teseo::flash_area_of(word), teseo::no_area) << word;
    }
}

}  // namespace
}  // namespace orbix::test
