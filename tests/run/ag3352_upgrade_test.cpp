// The AG3352 application upgrade, end to end.
#include <gtest/gtest.h>

#include <cerrno>

#include "app_loader.h"
#include "checksums.h"
#include "run/harness.h"
#include "run/unplugged.h"
#include "upgrade_frames.h"

namespace orbix::test {
namespace {

using sim::AppLoader;
using sim::make_upgrade_frame;
using sim::SyncEvent;
using sim::UpgradeFrame;

constexpr std::uint32_t load_address = 0x08009000;

constexpr std::uint8_t info_command = 0x02;
constexpr std::uint8_t erase_command = 0x03;
constexpr std::uint8_t firmware_command = 0x04;
constexpr std::uint8_t reboot_command = 0x31;
constexpr std::uint8_t version_command = 0x71;

std::vector<std::string> upgrade_arguments(const std::string& image) {
    return {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-f", image, "-t", "UPG"};
}

Bytes big_endian(std::uint32_t value) {
    return {static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16),
            static_cast<std::uint8_t>(value >> 8), static_cast<std::uint8_t>(value)};
}

Bytes command_frame(std::uint8_t command, const Bytes& payload = {}) {
    return make_upgrade_frame(2, command, payload);
}

Bytes block_frame(std::uint32_t sequence, std::span<const std::uint8_t> data) {
    Bytes payload = big_endian(sequence);
    append(payload, data);
    return command_frame(firmware_command, payload);
}

/// All that the tool sends when nothing goes wrong and the module listens from the start.
Bytes whole_dialogue(const Bytes& image) {
    Bytes bytes = hex("09 13 56 4B 04 A5 03 12");
    append(bytes, hex("AA 02 71 00 00 DE 7E 15 F0 55"));
    Bytes info = big_endian(static_cast<std::uint32_t>(image.size()));
    append(info, big_endian(sim::module_image_crc(image)));
    append(info, big_endian(load_address));
    append(info, big_endian(0));
    append(bytes, command_frame(info_command, info));
    append(bytes, hex("AA 02 03 00 00 89 0B A9 CE 55"));
    std::uint32_t sequence = 0;
    for (std::size_t at = 0; at < image.size(); at += 4096) {
        const std::size_t count = std::min<std::size_t>(4096, image.size() - at);
        append(bytes, block_frame(sequence++, std::span(image).subspan(at, count)));
    }
    append(bytes, command_frame(reboot_command, {2, 0}));
    return bytes;
}

std::string hex_number(std::uint32_t value) {
    char text[9] = {};
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

/// One upgrade of a 5000-byte image, with a way to make the module misbehave.
struct Upgrade {
    TempDir folder;
    Bytes image = random_image(5000);
    AppLoader module;

    ToolRun run(const Conditions& conditions = {}) {
        return ToolRun(module, upgrade_arguments(folder.write("app.bin", image)), conditions);
    }
    [[nodiscard]] std::string crc_line() const {
        return "[INFO] File CRC32: " + hex_number(sim::module_image_crc(image));
    }
    /// What the driver says from the first step on, as far as it came.
    [[nodiscard]] Lines lines_up_to(std::uint8_t command) const {
        Lines lines{"[INFO] Waiting for Sync...", "[INFO] Sync success!"};
        if (command == version_command) {
            return lines;
        }
        lines.insert(lines.end(), {"[INFO] Boot Version:V1.4.2", crc_line()});
        if (command == info_command) {
            return lines;
        }
        lines.insert(lines.end(),
                     {"[INFO] Send Firmware Info success!", "[INFO] Start to EraseAPP..."});
        if (command == erase_command) {
            return lines;
        }
        lines.emplace_back("[INFO] Erase Flash success!");
        return lines;
    }
    /// Lets the module answer a command with something else.
    void answer(std::uint8_t command, const std::function<void(Bytes& response)>& change) {
        module.tamper = [command, change](const UpgradeFrame& frame, Bytes& response) {
            if (frame.command == command) {
                change(response);
            }
        };
    }
};

/// The lines of the steps: those behind the options.
Lines step_lines(const ToolRun& run) {
    Lines lines = run.family_lines();
    const auto first = std::find(lines.begin(), lines.end(), "[INFO] Waiting for Sync...");
    return {first, lines.end()};
}

// --- runs that go well ---------------------------------------------------------------------------

class Ag3352UpgradeSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Ag3352UpgradeSizes, FlashHoldsTheImageAndNothingElse) {
    Upgrade upgrade;
    upgrade.image = random_image(GetParam());
    upgrade.module.flash().fill(0x00);
    const ToolRun run = upgrade.run();

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    const auto& flash = upgrade.module.flash();
    EXPECT_TRUE(flash.holds(load_address, upgrade.image));
    EXPECT_EQ(flash.cells()[0x8FFF], 0x00) << "the boot loader's own area was touched";
    EXPECT_EQ(flash.cells()[0x9000 + GetParam()], 0xFF);
    EXPECT_TRUE(upgrade.module.rebooted());
    EXPECT_EQ(run.sent, whole_dialogue(upgrade.image));
    EXPECT_EQ(step_lines(run), joined(upgrade.lines_up_to(0), {"[INFO] Upgrade success!"}));
}

INSTANTIATE_TEST_SUITE_P(Images, Ag3352UpgradeSizes,
                         ::testing::Values(0, 1, 4095, 4096, 4097, 8192, 400'123));

TEST(Ag3352Upgrade, WholeOutputOfARun) {
    Upgrade upgrade;
    upgrade.image = random_image(4097);
    const ToolRun run = upgrade.run();
    const Lines expected{
        "[INFO] entry function",
        " module type: TR52G",
        " will use device: COM6",
        " baud_rate:115200",
        "[INFO] Firmware:" + upgrade.folder.path("app.bin"),
        "[INFO] Waiting for Sync...",
        "[INFO] Sync success!",
        "[INFO] Boot Version:V1.4.2",
        upgrade.crc_line(),
        "[INFO] Send Firmware Info success!",
        "[INFO] Start to EraseAPP...",
        "[INFO] Erase Flash success!",
        "[PROGRESS] 0.00%\r",
        "[SPEED] 0 Bytes/4097 Bytes    0 KBps",
        "[PROGRESS] 99.98%\r",
        "[SPEED] 4096 Bytes/4097 Bytes    13.9 KBps",
        "[PROGRESS] 100.00%\r",
        "[SPEED] 4097 Bytes/4097 Bytes    13.7 KBps",
        "[INFO] Upgrade success!",
    };
    EXPECT_EQ(run.family_lines(true), expected);
    EXPECT_EQ(run.rates, std::vector<unsigned>{115200});
}

TEST(Ag3352Upgrade, LeavesThePortOpenAfterSuccess) {
    Upgrade upgrade;
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.opens, 1);
    EXPECT_EQ(run.closes, 0);
    EXPECT_TRUE(run.left_open);
}

TEST(Ag3352Upgrade, RunsAtTheRateGiven) {
    Upgrade upgrade;
    upgrade.module.start_baud = 921600;
    auto arguments = upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image));
    arguments[5] = "921600";
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{921600});
}

TEST(Ag3352Upgrade, WrongRateIsNeverUnderstood) {
    Upgrade upgrade;
    upgrade.module.start_baud = 9600;
    EXPECT_EQ(upgrade.run().result(), upgrade_failure(-1));
}

// --- mode choice and options ---------------------------------------------------------------------

/// Whether the arguments led to the upgrade mode, and whether the default-mode line was printed.
struct Choice {
    bool upgrade;
    bool default_line;
    bool operator==(const Choice&) const = default;
};

Choice choice_of(std::vector<std::string> mode) {
    SilentModule module;
    Conditions conditions;
    conditions.port.open_error = ENOENT;
    std::vector<std::string> arguments{"-m", "TR58G", "-p", "COM6"};
    arguments.insert(arguments.end(), mode.begin(), mode.end());
    const ToolRun run(module, arguments, conditions);
    EXPECT_EQ(run.count("[INFO] entry function\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    return {run.count("[ERROR] Invalid parameter!\n") == 1,
            run.count("[INFO] No upgrade mode specified, use default download mode\n") == 1};
}

TEST(Ag3352Upgrade, ModeWordChooses) {
    EXPECT_EQ(choice_of({"-t", "UPG"}), (Choice{true, false}));
    EXPECT_EQ(choice_of({"-t", "upgrade"}), (Choice{true, false}));
    EXPECT_EQ(choice_of({"-t", "FOTA_UPG"}), (Choice{true, false}));
    EXPECT_EQ(choice_of({"-t", "DLUPG"}), (Choice{true, false}));
    EXPECT_EQ(choice_of({"-t", "DL", "-t", "UPG"}), (Choice{true, false}));
    EXPECT_FALSE(choice_of({"-t", "DL"}).default_line);
    EXPECT_FALSE(choice_of({"-t", "download"}).default_line);
    EXPECT_TRUE(choice_of({"-t", "xyz"}).default_line);
    EXPECT_TRUE(choice_of({"-t", "upg"}).default_line);
    EXPECT_TRUE(choice_of({}).default_line);
}

ToolRun upgrade_with(std::vector<std::string> options, const std::string& port_name = "COM6",
                     int open_error = ENOENT) {
    SilentModule module;
    Conditions conditions;
    conditions.port.name = port_name;
    conditions.port.open_error = open_error;
    options.insert(options.begin(), {"-m", "TR52G", "-t", "UPG"});
    return ToolRun(module, options, conditions);
}

TEST(Ag3352Upgrade, PortNameByItsFirstCharacter) {
    const std::vector<std::pair<std::string, std::string>> names{
        {"USB0", "/dev/ttyUSB0"},
        {"ttyS1", "/dev/ttyS1"},
        {"COM6", "COM6"},
        {"/dev/ttyACM0", "/dev/ttyACM0"},
        {"/dev/serial/by-id/a-very-long-name", "/dev/serial/by-id/a-"},
        {"ttyUSB0123456789abcdefgh", "/dev/ttyUSB0123456789abcd"},
    };
    for (const auto& [given, device] : names) {
        const ToolRun run = upgrade_with({"-p", given, "-b", "9600"});
        const Lines lines = run.family_lines();
        const Lines expected{"[INFO] entry function", " module type: TR52G",
                             " will use device: " + device, " baud_rate:9600",
                             "[ERROR] Error opening " + device + ": No such file or directory"};
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.closes, 0);
    }
}

TEST(Ag3352Upgrade, ForeignPortNameEndsTheRunAtOnce) {
    for (const std::string name : {"x1", "", "com6"}) {
        const ToolRun run = upgrade_with({"-p", name, "-b", "9600"});
        const Lines expected{"[INFO] entry function", " module type: TR52G",
                             "[ERROR] unknow dev " + name};
        EXPECT_EQ(run.family_lines(), expected);
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Ag3352Upgrade, MissingOrBadParameters) {
    const Lines complaint{
        "[ERROR] Invalid parameter!",
        "[ERROR] Ex: .\\orbix_flash -m TR52G -p COM6 -b 115200 -f //TR52GXXNR01A01S.bin\""};
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"-p", "COM6"},
                                               {"-b", "9600"},
                                               {"-p", "COM6", "-b", "0"},
                                               {"-p", "COM6", "-b", "fast"}}) {
        const ToolRun run = upgrade_with(options);
        Lines lines = run.family_lines();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(Lines(lines.end() - 2, lines.end()), complaint);
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Ag3352Upgrade, OptionsInAnyOrderAndPlainWordsBetweenThem) {
    Upgrade upgrade;
    const std::string path = upgrade.folder.write("app.bin", upgrade.image);
    const ToolRun run(upgrade.module, {"-t", "UPG", "word", "-f", path, "-l", "460800", "-b",
                                       "115200", "another", "-p", "COM6", "-m", "TR57G"});
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Ag3352Upgrade, DebugSwitchDumpsTheTraffic) {
    Upgrade upgrade;
    auto arguments = upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image));
    arguments.emplace_back("-D");
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(run.count("[INFO] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 09 13 56 4b \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] recv to module -- < 4D ,ret:1\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(upgrade.run().count("[DEBUG]"), 0U) << "the switch must not outlive its run";
}

TEST(Ag3352Upgrade, BusyPort) {
    const ToolRun run = upgrade_with({"-p", "COM6", "-b", "9600"}, "COM6", EBUSY);
    EXPECT_EQ(run.count("[ERROR] Error opening COM6: Device or resource busy\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Ag3352Upgrade, NegativeRateLeavesTheRateAlone) {
    Upgrade upgrade;
    upgrade.module.start_baud = 9600;  // what the port happens to be set to
    auto arguments = upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image));
    arguments[5] = "-115200";
    const ToolRun run(upgrade.module, arguments);
    EXPECT_EQ(run.count(" baud_rate:-115200\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_success);
}

// --- synchronisation -----------------------------------------------------------------------------

TEST(Ag3352Upgrade, SyncGivesUpAfterTwentySeconds) {
    SilentModule module;
    const TempDir folder;
    const ToolRun run(module, upgrade_arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(step_lines(run), (Lines{"[INFO] Waiting for Sync...", "[ERROR] Sync failed!"}));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    // An attempt is 4 bytes, 20 ms and a silent read of 50 ms; the deadline is looked at before
    // each, so the last one begins at 20 s at the latest.
    EXPECT_EQ(module.heard.size() % 4, 0U);
    EXPECT_EQ(module.heard.size() / 4, 285U);
    EXPECT_GE(run.duration_ms, 20'000U);
    EXPECT_LT(run.duration_ms, 20'100U);
}

TEST(Ag3352Upgrade, SyncWaitsForAModuleThatIsSwitchedOnLate) {
    Upgrade upgrade;
    AppLoader::Settings late;
    late.start_time = sim::milliseconds(19'000);
    AppLoader module(late);
    const ToolRun run(module, upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image)));
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Ag3352Upgrade, SyncAnswerToTheLastProbeMayComeAfterTheDeadline) {
    Upgrade upgrade;
    Conditions conditions;
    conditions.faults = {{.kind = sim::FaultKind::silence, .byte = 0, .amount = 19'945},
                         {.kind = sim::FaultKind::delay,
                          .direction = sim::Direction::to_host,
                          .byte = 0,
                          .amount = 45}};
    const ToolRun run = upgrade.run(conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    const auto answer = std::find_if(run.trace.begin(), run.trace.end(), [](const auto& byte) {
        return byte.direction == sim::Direction::to_host;
    });
    ASSERT_NE(answer, run.trace.end());
    EXPECT_GT(answer->time - sim::VirtualPort::start, sim::milliseconds(20'000));
}

/// The silences between what the tool sends, in ms.
std::vector<double> pauses_ms(const ToolRun& run) {
    std::vector<double> pauses;
    for (const sim::Micros pause : run.pauses()) {
        pauses.push_back(static_cast<double>(pause) / 1000);
    }
    return pauses;
}

void expect_pauses(const ToolRun& run, const std::vector<double>& expected) {
    const std::vector<double> pauses = pauses_ms(run);
    ASSERT_GE(pauses.size(), expected.size());
    for (std::size_t index = 0; index < expected.size(); ++index) {
        EXPECT_NEAR(pauses[index], expected[index], 0.2) << "pause " << index;
    }
}

/// Each probe is given 20 ms, and its answer is over when nothing has come for 50 ms.
TEST(Ag3352Upgrade, SyncWaitsBetweenItsProbes) {
    SilentModule silent;
    const TempDir folder;
    const ToolRun unheard(silent, upgrade_arguments(folder.write("app.bin", random_image(10))));
    expect_pauses(unheard, std::vector<double>(284, 20 + 50));

    expect_pauses(Upgrade().run(), {20 + 50, 20 + 50});

    // The answer, of 0.35 ms, ends later than the pause of 20 ms: 50 ms from there on.
    for (const std::size_t late : {0U, 1U}) {
        Upgrade upgrade;
        Conditions conditions;
        conditions.faults = {{.kind = sim::FaultKind::delay,
                              .direction = sim::Direction::to_host,
                              .byte = 4 * late,
                              .amount = 40}};
        std::vector<double> expected(2, 20 + 50);
        expected[late] = 40 + 0.35 + 50;
        expect_pauses(upgrade.run(conditions), expected);
    }
}

/// A command's response is not looked at for 20 ms, and for no longer.
TEST(Ag3352Upgrade, CommandsAreGivenTwentyMilliseconds) {
    Upgrade upgrade;
    AppLoader::Settings settings;
    settings.program_time = 0;
    settings.erase_time = 0;
    AppLoader at_once(settings);
    const auto arguments = upgrade_arguments(upgrade.folder.write("app.bin", random_image(100)));
    const ToolRun run(at_once, arguments);
    EXPECT_EQ(run.result(), upgrade_success);
    // The version, the information, the erase; then a firmware frame, which follows its response of
    // 14 bytes at once.
    expect_pauses(run, {70, 70, 20, 20, 20, 1.3});
    const auto last_sent = std::find_if(run.trace.rbegin(), run.trace.rend(), [](const auto& byte) {
        return byte.direction == sim::Direction::to_module;
    });
    const std::uint64_t last_ms = (last_sent->time - sim::VirtualPort::start) / 1000;
    EXPECT_NEAR(static_cast<double>(run.duration_ms - last_ms), 20, 1) << "behind the reboot";

    settings.erase_time = sim::milliseconds(100);
    AppLoader slow(settings);
    expect_pauses(ToolRun(slow, arguments), {70, 70, 20, 20, 101.3});
}

TEST(Ag3352Upgrade, SyncAnswerMayComeInTwoPieces) {
    Upgrade upgrade;
    int probes = 0;
    upgrade.module.tamper_sync = [&probes](SyncEvent probe, Bytes& answer) {
        if (probe == SyncEvent::first_probe) {
            answer = probes++ == 0 ? hex("4D 3A") : hex("FC AA");
        }
    };
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    EXPECT_EQ(probes, 2);
}

TEST(Ag3352Upgrade, SyncAnswerIsJudgedByTheLastFourBytes) {
    Upgrade upgrade;
    upgrade.module.tamper_sync = [](SyncEvent /*probe*/, Bytes& answer) {
        answer.insert(answer.begin(), {'$', 'G', 'N', 0xAA});
    };
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
    upgrade.module.tamper_sync = [](SyncEvent /*probe*/, Bytes& answer) { answer.push_back('$'); };
    EXPECT_EQ(step_lines(upgrade.run()).back(), "[ERROR] Sync failed!");
}

TEST(Ag3352Upgrade, SecondSyncAnswerIsAskedForOnce) {
    for (const std::string wrong : {"", "A0 5B FD 54", "4D 3A FC AA"}) {
        Upgrade upgrade;
        int second_probes = 0;
        upgrade.module.tamper_sync = [&](SyncEvent probe, Bytes& answer) {
            if (probe == SyncEvent::second_probe) {
                ++second_probes;
                answer = hex(wrong);
            }
        };
        const ToolRun run = upgrade.run();
        EXPECT_EQ(step_lines(run), (Lines{"[INFO] Waiting for Sync...", "[ERROR] Sync failed!"}));
        EXPECT_EQ(second_probes, 1);
        EXPECT_LT(run.duration_ms, 300U);
        EXPECT_EQ(run.closes, 2);
    }
}

/// A receiver that never stops talking.
class Babbler : public SilentModule {
  public:
    [[nodiscard]] std::optional<sim::Micros> wake_time() const override { return next_; }
    void wake(sim::Micros now, sim::Wire& wire) override {
        wire.send("$GNGGA,");
        next_ = now + sim::milliseconds(10);
    }

  private:
    std::optional<sim::Micros> next_ = sim::VirtualPort::start;
};

TEST(Ag3352Upgrade, SyncEndsInTimeOnALineThatIsNeverSilent) {
    Babbler module;
    const TempDir folder;
    const ToolRun run(module, upgrade_arguments(folder.write("app.bin", random_image(10))));
    EXPECT_EQ(step_lines(run), (Lines{"[INFO] Waiting for Sync...", "[ERROR] Sync failed!"}));
    EXPECT_LT(run.duration_ms, 20'200U);
}

// --- refusals of each step -----------------------------------------------------------------------

struct Step {
    std::uint8_t command;
    std::string refused;  ///< the step's own line, with %s for the code
    std::string failed;   ///< the driver's line
};

const std::vector<Step> steps{
    {version_command, "[ERROR] GetBootVer --- Kv_Upgrade_DecodeBootVer failed errro code ",
     "[ERROR] Get Boot Version failed!"},
    {info_command, "[ERROR] SendFirmwareInfo --- Kv_Upgrade_DecodeMsg failed errro code ",
     "[ERROR] Send Firmware Info failed!"},
    {erase_command, "[ERROR] EraseAPP --- Kv_Upgrade_DecodeMsg failed errro code ",
     "[ERROR] Erase Flash failed!"},
    {reboot_command, "[ERROR] Reset --- Kv_Upgrade_DecodeMsg failed errro code ",
     "[ERROR] Reset failed!"},
};

class Ag3352UpgradeSteps : public ::testing::TestWithParam<Step> {};

TEST_P(Ag3352UpgradeSteps, SlaveStateOtherThanZero) {
    Upgrade upgrade;
    upgrade.answer(GetParam().command, [](Bytes& response) {
        Bytes payload(response.begin() + 5, response.end() - 5);
        payload[2] = 0x01;
        payload[3] = 0x14;
        response = make_upgrade_frame(2, response[2], payload);
    });
    const ToolRun run = upgrade.run();
    const bool decimal = GetParam().command == version_command;
    const Lines tail{"[ERROR] slave msg slave state is 114\r",
                     GetParam().refused + (decimal ? "276" : "0114"), GetParam().failed};
    EXPECT_EQ(step_lines(run), joined(upgrade.lines_up_to(GetParam().command), tail));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.closes, 2) << "the failing step's close, and that of the common exit";
}

TEST_P(Ag3352UpgradeSteps, ResponseOfAnotherLength) {
    for (const std::size_t length : {5U, 55U, 56U, 300U}) {
        Upgrade upgrade;
        upgrade.answer(GetParam().command, [length](Bytes& response) {
            response = make_upgrade_frame(2, response[2], Bytes(length, 0x00));
        });
        const bool is_version = GetParam().command == version_command;
        const Lines tail{"[ERROR] slave msg length: " + std::to_string(length) + "\r",
                         GetParam().refused + (is_version ? "5" : "0001"), GetParam().failed};
        EXPECT_EQ(step_lines(upgrade.run(unplugged_after_ms(60'000))),
                  joined(upgrade.lines_up_to(GetParam().command), tail));
    }
}

TEST_P(Ag3352UpgradeSteps, WrongTailFailsWithoutALineOfTheStep) {
    Upgrade upgrade;
    upgrade.answer(GetParam().command, [](Bytes& response) { response.back() = 0x54; });
    EXPECT_EQ(step_lines(upgrade.run()),
              joined(upgrade.lines_up_to(GetParam().command), {GetParam().failed}));
}

TEST_P(Ag3352UpgradeSteps, WrongCrcOrSilenceKeepsTheToolWaiting) {
    for (const bool silent : {false, true}) {
        Upgrade upgrade;
        upgrade.answer(GetParam().command, [silent](Bytes& response) {
            if (silent) {
                response.clear();
            } else {
                response[response.size() - 2] ^= 1;
            }
        });
        const std::uint64_t an_hour = 3'600'000;
        const ToolRun run = upgrade.run(unplugged_after_ms(an_hour));
        EXPECT_GE(run.duration_ms, an_hour);
        EXPECT_LT(run.duration_ms, an_hour + 1000) << "a device that vanished ends the wait";
        EXPECT_EQ(step_lines(run),
                  joined(upgrade.lines_up_to(GetParam().command), {GetParam().failed}));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

TEST_P(Ag3352UpgradeSteps, LateAnswerIsAwaited) {
    Upgrade upgrade;
    AppLoader::Settings slow;
    slow.erase_time = sim::milliseconds(90'000);
    AppLoader module(slow);
    const ToolRun run(module, upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image)));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_GT(run.duration_ms, 90'000U);
}

INSTANTIATE_TEST_SUITE_P(Commands, Ag3352UpgradeSteps, ::testing::ValuesIn(steps));

TEST(Ag3352Upgrade, NoiseInFrontOfAResponseIsSkipped) {
    Upgrade upgrade;
    upgrade.module.tamper = [](const UpgradeFrame& /*frame*/, Bytes& response) {
        response.insert(response.begin(), {0x00, 0x55, '$', 'G'});
    };
    EXPECT_EQ(upgrade.run().result(), upgrade_success);
}

// --- the transfer --------------------------------------------------------------------------------

/// Refuses the first `count` sendings of the block with that number.
void refuse_block(Upgrade& upgrade, std::uint32_t block, int count) {
    upgrade.module.tamper = [block, left = count](const UpgradeFrame& frame,
                                                  Bytes& response) mutable {
        if (frame.command == firmware_command && frame.word(0) == block && left > 0) {
            --left;
            response = make_upgrade_frame(2, firmware_command, hex("02 04 00 05"));
        }
    };
}

Lines refusals(int count) {
    Lines lines;
    for (int attempt = 1; attempt <= count; ++attempt) {
        lines.emplace_back("[ERROR] slave msg slave state is 5\r");
        lines.emplace_back(
            "[ERROR] SendFirmware --- Kv_Upgrade_DecodeMsg failed errro code 0005--1");
        lines.emplace_back(" Retry count: " + std::to_string(attempt));
    }
    return lines;
}

std::size_t count_of(const Bytes& whole, const Bytes& part) {
    std::size_t found = 0;
    auto at = whole.begin();
    while ((at = std::search(at, whole.end(), part.begin(), part.end())) != whole.end()) {
        ++found;
        at += static_cast<std::ptrdiff_t>(part.size());
    }
    return found;
}

TEST(Ag3352Upgrade, RefusedBlockIsSentAgainUnchanged) {
    Upgrade upgrade;
    refuse_block(upgrade, 1, 9);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(step_lines(run),
              joined(joined(upgrade.lines_up_to(0), refusals(9)), {"[INFO] Upgrade success!"}));
    const Bytes frame = block_frame(1, std::span(upgrade.image).subspan(4096));
    EXPECT_EQ(count_of(run.sent, frame), 10U);
}

TEST(Ag3352Upgrade, TenRefusalsOfABlockEndTheTransfer) {
    Upgrade upgrade;
    refuse_block(upgrade, 0, 10);
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(step_lines(run), joined(joined(upgrade.lines_up_to(0), refusals(10)),
                                      {"[ERROR] Exceeding the maximum number of retry attempts!",
                                       "[ERROR] Send Firmware failed!"}));
    const Bytes frame = block_frame(0, std::span(upgrade.image).first(4096));
    EXPECT_EQ(count_of(run.sent, frame), 10U);
    EXPECT_FALSE(upgrade.module.rebooted());
    EXPECT_EQ(run.closes, 2);
}

TEST(Ag3352Upgrade, WrongTailOfABlocksResponseCountsAsAnAttemptToo) {
    Upgrade upgrade;
    upgrade.module.tamper = [left = 3](const UpgradeFrame& frame, Bytes& response) mutable {
        if (frame.command == firmware_command && left > 0) {
            --left;
            response.back() = 0;
        }
    };
    const ToolRun run = upgrade.run();
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(step_lines(run),
              joined(upgrade.lines_up_to(0), {" Retry count: 1", " Retry count: 2",
                                              " Retry count: 3", "[INFO] Upgrade success!"}));
}

TEST(Ag3352Upgrade, BlocksFollowTheirResponsesWithoutAPause) {
    Upgrade upgrade;
    upgrade.image = random_image(40 * 4096);
    AppLoader::Settings settings;
    settings.program_time = 0;
    settings.erase_time = 0;
    AppLoader module(settings);
    const ToolRun run(module, upgrade_arguments(upgrade.folder.write("app.bin", upgrade.image)));
    const std::uint64_t bits = (run.sent.size() + run.received.size()) * 10;
    const std::uint64_t line_ms = bits * 1000 / 115200;
    // 20 ms behind each of two probes and four commands, 50 ms to hear each answer's end.
    EXPECT_LE(run.duration_ms, line_ms + 6 * 20 + 2 * 50 + 2);
}

TEST(Ag3352Upgrade, ModuleRefusesADamagedImage) {
    Upgrade upgrade;
    // One bit of the last block turned on the line: its frame is refused and sent again.
    Conditions conditions;
    conditions.faults.push_back({.kind = sim::FaultKind::flip, .byte = 4300});
    const ToolRun run = upgrade.run(conditions);
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.count("Retry count"), 1U);
}

// --- bad input -----------------------------------------------------------------------------------

ToolRun run_with_path(const std::string& path, AppLoader& module) {
    return ToolRun(module, upgrade_arguments(path));
}

TEST(Ag3352Upgrade, MissingFirmwareFile) {
    AppLoader module;
    const ToolRun run = run_with_path("/nonexistent/app.bin", module);
    EXPECT_EQ(step_lines(run).back(), "[ERROR] Send Firmware Info failed!");
    EXPECT_EQ(run.count("File CRC32"), 0U);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Ag3352Upgrade, NoFirmwareGiven) {
    AppLoader module;
    const ToolRun run(module, {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-t", "UPG"});
    EXPECT_EQ(step_lines(run).back(), "[ERROR] Send Firmware Info failed!");
}

TEST(Ag3352Upgrade, FolderGivenAsFirmware) {
    AppLoader module;
    const TempDir folder;
    ::testing::internal::CaptureStderr();
    const ToolRun run = run_with_path(folder.path(), module);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fopen: Is a directory\n");
    EXPECT_EQ(step_lines(run).back(), "[ERROR] Send Firmware Info failed!");
    EXPECT_FALSE(contains(run.sent, hex("AA 02 02"))) << "nothing of it may reach the module";
}

TEST(Ag3352Upgrade, FirmwareThatVanishesBeforeTheTransfer) {
    Upgrade upgrade;
    upgrade.answer(erase_command, [&upgrade](Bytes& /*response*/) {
        std::filesystem::remove(upgrade.folder.path("app.bin"));
    });
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade.run();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "fopen: No such file or directory\n");
    EXPECT_EQ(step_lines(run), joined(upgrade.lines_up_to(0), {"[ERROR] Send Firmware failed!"}));
}

TEST(Ag3352Upgrade, FirmwareThatShrinksDuringTheTransfer) {
    Upgrade upgrade;
    upgrade.image = random_image(20'000);
    upgrade.answer(firmware_command, [&upgrade](Bytes& /*response*/) {
        std::filesystem::resize_file(upgrade.folder.path("app.bin"), 9000);
    });
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade.run();
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(step_lines(run).back(), "[ERROR] Send Firmware failed!");
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Ag3352Upgrade, FirmwareOfAnotherLengthThanWasAnnounced) {
    for (const std::uintmax_t length : {0U, 8999U, 9001U}) {
        Upgrade upgrade;
        upgrade.image = random_image(9000);
        upgrade.answer(erase_command, [&upgrade, length](Bytes& /*response*/) {
            std::filesystem::resize_file(upgrade.folder.path("app.bin"), length);
        });
        ::testing::internal::CaptureStderr();
        const ToolRun run = upgrade.run();
        EXPECT_EQ(::testing::internal::GetCapturedStderr(),
                  "hint: the image has changed its length during the run, or cannot be read to its "
                  "end\n");
        EXPECT_EQ(step_lines(run).back(), "[ERROR] Send Firmware failed!");
        EXPECT_EQ(run.count("[SPEED]"), 0U) << "no frame of another image is sent";
        EXPECT_EQ(run.result(), upgrade_failure(-1));
    }
}

TEST(Ag3352Upgrade, FirmwareThatGrowsDuringTheTransfer) {
    Upgrade upgrade;
    upgrade.image = random_image(9000);
    // A module that takes whatever comes: nothing else stops the run.
    upgrade.answer(firmware_command, [&upgrade](Bytes& response) {
        std::filesystem::resize_file(upgrade.folder.path("app.bin"), 20'000);
        response = make_upgrade_frame(2, firmware_command, hex("02 04 00 00"));
    });
    ::testing::internal::CaptureStderr();
    const ToolRun run = upgrade.run();
    EXPECT_EQ(
        ::testing::internal::GetCapturedStderr(),
        "hint: the image has changed its length during the run, or cannot be read to its end\n");
    EXPECT_EQ(step_lines(run), joined(upgrade.lines_up_to(0), {"[ERROR] Send Firmware failed!"}));
    EXPECT_FALSE(contains(run.sent, command_frame(reboot_command, {2, 0})));
    EXPECT_EQ(run.result(), upgrade_failure(-1));
}

TEST(Ag3352Upgrade, UnpluggedAtAnyByteTheRunFails) {
    expect_failure_wherever_unplugged(
        [](const Conditions& conditions) { return Upgrade().run(conditions); },
        {.start = 100, .step_at_start = 1, .step = 97, .closes = 2, .most_ms = 30'000});
}

TEST(Ag3352Upgrade, PowerLostAtAnyByteNeverEndsInSuccessWithoutTheImage) {
    const std::size_t dialogue = whole_dialogue(Upgrade().image).size();
    for (std::size_t byte = 0; byte < dialogue; byte += byte < 100 ? 1 : 97) {
        Upgrade upgrade;
        Conditions conditions = unplugged_after_ms(60'000);
        conditions.faults.push_back({.kind = sim::FaultKind::power_cycle, .byte = byte});
        const ToolRun run = upgrade.run(conditions);
        const bool complete = upgrade.module.flash().holds(load_address, upgrade.image);
        ASSERT_TRUE(run.result() == upgrade_failure(-1) || complete) << "byte " << byte;
    }
}

}  // namespace
}  // namespace orbix::test
