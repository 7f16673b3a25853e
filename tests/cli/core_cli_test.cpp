// What only processes can show: exit status, flushing, exclusive ports, signals, real terminals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "cli/process.h"
#include "platform/platform.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

constexpr const char* fast = "921600";

std::vector<std::string> upgrade_arguments(const std::string& port, const std::string& image) {
    return {"-m", "TR52G", "-p", port, "-b", fast, "-f", image, "-t", "UPG"};
}

bool ends_with_line(const std::string& output, const std::string& line) {
    return output.ends_with(line + "\n");
}

TEST(Program, NoArgumentsIsUsageAndStatus255) {
    const Finished run = run_program("orbix_flash", {});
    EXPECT_EQ(run.status, 255);
    EXPECT_NE(run.output.find(" Usage: "), std::string::npos);
}

TEST(Program, StatusIsZeroEvenWhenTheRunFailed) {
    const Finished run = run_program("orbix_flash", {"-m", "nosuch"});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(ends_with_line(run.output, upgrade_failure(-1)));
}

TEST(Program, OptionDiagnosticsGoToStandardError) {
    const Finished run = run_program("orbix_flash", {"-m", "nosuch", "-Z"});
    EXPECT_NE(run.errors.find("'Z'"), std::string::npos);
    EXPECT_EQ(run.output.find("'Z'"), std::string::npos);
}

TEST(Program, SecondDashIsALetterThatIsNotKnown) {
    const Finished run = run_program("orbix_flash", {"--m", "nosuch"});
    EXPECT_EQ(run.errors.find("unrecognized"), std::string::npos) << run.errors;
    EXPECT_NE(run.errors.find("'-'"), std::string::npos) << run.errors;
    EXPECT_NE(run.output.find("[INFO] name :nosuch\n"), std::string::npos) << run.output;
}

class ProgramUpgrade : public ::testing::TestWithParam<std::size_t> {};

TEST_P(ProgramUpgrade, OverAPseudoTerminal) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    const std::string dump = folder.path("flash.bin");
    SimulatedModule module("TR52G", {"--rate", fast, "--pace", "--dump", dump});
    const Finished run = run_program(
        "orbix_flash", upgrade_arguments(module.port(), folder.write("app.bin", image)));
    EXPECT_TRUE(ends_with_line(run.output, upgrade_success)) << run.output;
    EXPECT_EQ(run.errors, "");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(module.stop().status, 0);
    EXPECT_EQ(std::filesystem::file_size(dump), 2U * 1024 * 1024);
    EXPECT_TRUE(dump_holds(dump, 0x9000, image));
}

INSTANTIATE_TEST_SUITE_P(Images, ProgramUpgrade, ::testing::Values(0, 1, 4097, 30'000));

TEST(ProgramSim, SeveralModulesStandOnPortsOfTheirOwn) {
    const TempDir folder;
    const std::string dump = folder.path("flash.bin");
    const std::string link = "/tmp/orbixn" + std::to_string(getpid() % 100'000);
    Background simulator("orbix_sim", {"TR52G", "--rate", fast, "--count", "3", "--link", link,
                                       "--faults", "unplug@2000", "--dump", dump});
    const Bytes image = random_image(1000);
    // The third one gets more bytes than it takes until its port is unplugged; the others stay.
    const Bytes long_image = random_image(9000);
    const std::vector<Bytes> images{image, random_image(1000, 2), long_image};
    for (std::size_t number = 0; number < images.size(); ++number) {
        ASSERT_EQ(simulator.read_line(), link + "." + std::to_string(number + 1));
    }
    for (const std::size_t number : {2U, 0U, 1U}) {
        const Finished run =
            run_program("orbix_flash", upgrade_arguments(link + "." + std::to_string(number + 1),
                                                         folder.write("app.bin", images[number])));
        EXPECT_EQ(ends_with_line(run.output, upgrade_success), number != 2) << run.output;
    }
    simulator.send_signal(SIGTERM);
    EXPECT_EQ(simulator.finish().status, 0);
    for (const std::size_t number : {0U, 1U}) {
        EXPECT_TRUE(dump_holds(dump + "." + std::to_string(number + 1), 0x9000, images[number]));
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link + ".1")));
}

TEST(ProgramSim, LinkIsThePortAndGoesAway) {
    const TempDir folder;
    // The device name in the tool is clipped, so the link's name is short.
    const std::string link = "/tmp/orbix" + std::to_string(getpid() % 100'000);
    SimulatedModule module("TR52G", {"--rate", fast, "--link", link});
    EXPECT_EQ(module.port(), link);
    const Finished run = run_program(
        "orbix_flash", upgrade_arguments(link, folder.write("app.bin", random_image(3000))));
    EXPECT_TRUE(ends_with_line(run.output, upgrade_success)) << run.output;
    module.stop();
    EXPECT_FALSE(std::filesystem::is_symlink(link));
}

TEST(ProgramSim, LinkTakesThePlaceOfAnotherLinkAndOfNothingElse) {
    const TempDir folder;
    const std::string file = folder.write("app.bin", std::string("firmware"));
    const Finished refused = run_program("orbix_sim", {"TR52G", "--link", file});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.errors, "orbix_sim: cannot make the link " + file + ": File exists\n");
    EXPECT_EQ(sim::read_text(file), "firmware");

    const std::string link = folder.path("port");
    SimulatedModule first("TR52G", {"--link", link});
    SimulatedModule second("TR52G", {"--link", link});
    first.stop();
    EXPECT_TRUE(std::filesystem::is_symlink(link)) << "it is the second one's now";
    second.stop();
    EXPECT_FALSE(std::filesystem::is_symlink(link));
}

TEST(ProgramSim, ServesOneRunAfterTheOther) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", fast});
    const std::string image = folder.write("app.bin", random_image(3000));
    for (int round = 0; round < 2; ++round) {
        const Finished run = run_program("orbix_flash", upgrade_arguments(module.port(), image));
        EXPECT_TRUE(ends_with_line(run.output, upgrade_success)) << round << run.output;
        // The module restarts when it sees the port closed.
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
}

TEST(ProgramSim, HelpListAndBadArguments) {
    const Finished help = run_program("orbix_sim", {"--help"});
    EXPECT_EQ(help.status, 0);
    for (const std::string option : {"--link", "--pace", "--faults", "--seed", "--dump"}) {
        EXPECT_NE(help.output.find(option), std::string::npos) << option;
    }
    EXPECT_NE(run_program("orbix_sim", {"--list"}).output.find("TR58G\n"), std::string::npos);
    EXPECT_EQ(run_program("orbix_sim", {}).status, 2);
    EXPECT_EQ(run_program("orbix_sim", {"NOSUCH"}).status, 2);
    EXPECT_EQ(run_program("orbix_sim", {"TR52G", "--faults", "explode@3"}).status, 2);
    EXPECT_EQ(run_program("orbix_sim", {"TR52G", "--faults", "drop"}).status, 2);
    EXPECT_EQ(run_program("orbix_sim", {"TR52G", "--rate", "0"}).status, 2);
    const Finished words_behind = run_program("orbix_sim", {"TR52G", "--rate", "9600 baud"});
    EXPECT_EQ(words_behind.status, 2);
    EXPECT_TRUE(words_behind.errors.starts_with("orbix_sim: --rate takes a number from 1 to "))
        << words_behind.errors;
}

TEST(ProgramSim, FaultOnTheLineIsRetried) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", fast, "--faults", "flip@4000"});
    const Finished run =
        run_program("orbix_flash",
                    upgrade_arguments(module.port(), folder.write("app.bin", random_image(9000))));
    EXPECT_NE(run.output.find(" Retry count: 1\n"), std::string::npos);
    EXPECT_TRUE(ends_with_line(run.output, upgrade_success)) << run.output;
}

TEST(ProgramPort, UnpluggedInMidTransferFails) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", fast, "--faults", "unplug@6000"});
    const Finished run = run_program(
        "orbix_flash",
        upgrade_arguments(module.port(), folder.write("app.bin", random_image(90'000))));
    EXPECT_NE(run.output.find("[ERROR] Send Firmware failed!\n"), std::string::npos);
    EXPECT_TRUE(ends_with_line(run.output, upgrade_failure(-1))) << run.output;
}

TEST(ProgramPort, AbsentPort) {
    const Finished run = run_program("orbix_flash", upgrade_arguments("ttyNOSUCH", "x"));
    EXPECT_NE(run.output.find("[ERROR] Error opening /dev/ttyNOSUCH: No such file or directory\n"),
              std::string::npos);
    EXPECT_TRUE(ends_with_line(run.output, upgrade_failure(-1)));
    EXPECT_TRUE(run.errors.starts_with("hint: /dev/ttyNOSUCH: there is no such port; "));
}

TEST(ProgramPort, WhatIsNoSerialDeviceIsRefused) {
    for (const std::string port : {"/dev/null", "/etc/passwd", "/tmp"}) {
        const Finished run = run_program("orbix_flash", upgrade_arguments(port, "x"));
        EXPECT_NE(run.output.find("[ERROR] Error opening " + port + ": "), std::string::npos);
        EXPECT_EQ(run.errors, "hint: " + port + ": that is no serial port\n");
        EXPECT_TRUE(ends_with_line(run.output, upgrade_failure(-1)));
    }
}

TEST(ProgramPort, NameWithoutASlashIsLookedForInDev) {
    // "COM6" passes through the tool as it is; as a file of that name does not exist here, the
    // system is asked for /dev/COM6 and has none either.
    const Finished run = run_program("orbix_flash", upgrade_arguments("COM6", "x"));
    EXPECT_NE(run.output.find("[ERROR] Error opening COM6: No such file or directory\n"),
              std::string::npos);
}

/// Waits until the output of a running tool holds a text.
void await(Background& tool, const std::string& text) {
    for (std::string line = tool.read_line(); !line.empty(); line = tool.read_line()) {
        if (line.find(text) != std::string::npos) {
            return;
        }
    }
    ADD_FAILURE() << "the tool never printed: " << text;
}

TEST(ProgramPort, SecondRunOnABusyPortIsRefusedAndDoesNotDisturbTheFirst) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", fast, "--pace"});
    const std::string image = folder.write("app.bin", random_image(40'000));
    Background first("orbix_flash", upgrade_arguments(module.port(), image));
    await(first, "[INFO] Sync success!");
    const Finished second = run_program("orbix_flash", upgrade_arguments(module.port(), image));
    EXPECT_NE(second.output.find("[ERROR] Error opening " + module.port() +
                                 ": Device or resource busy\n"),
              std::string::npos);
    EXPECT_TRUE(
        second.errors.starts_with("hint: " + module.port() + ": another program holds the port; "))
        << second.errors;
    EXPECT_TRUE(ends_with_line(first.finish().output, upgrade_success));
}

TEST(ProgramPort, LockOfAnotherProgramIsHonoured) {
    SimulatedModule module("TR52G");
    const int descriptor = open(module.port().c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(descriptor, 0);
    ASSERT_EQ(flock(descriptor, LOCK_EX | LOCK_NB), 0);
    const Finished run = run_program("orbix_flash", upgrade_arguments(module.port(), "x"));
    EXPECT_NE(run.output.find("busy"), std::string::npos) << run.output;
    close(descriptor);
}

bool is_exclusive(int descriptor) {
    int exclusive = 0;
    return ioctl(descriptor, TIOCGEXCL, &exclusive) == 0 && exclusive != 0;
}

TEST(ProgramPort, ExclusiveFlagIsSetDuringTheRunAndGivenBackBySignals) {
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
        SimulatedModule module("TR52G");  // at another rate: the tool waits for its answer
        const int watcher = open(module.port().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        ASSERT_GE(watcher, 0);
        Background tool("orbix_flash", upgrade_arguments(module.port(), "x"));
        await(tool, "[INFO] Waiting for Sync...");
        EXPECT_TRUE(is_exclusive(watcher));
        tool.send_signal(signal_number);
        EXPECT_EQ(tool.finish().signal, signal_number) << "the signal still ends the program";
        EXPECT_FALSE(is_exclusive(watcher));
        EXPECT_EQ(flock(watcher, LOCK_EX | LOCK_NB), 0) << "the lock is free again";
        close(watcher);
    }
}

TEST(ProgramPort, ExclusiveFlagIsGivenBackWhereThePortIsLeftOpen) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", fast});
    const int watcher = open(module.port().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(watcher, 0);
    const Finished run = run_program(
        "orbix_flash", upgrade_arguments(module.port(), folder.write("a", random_image(100))));
    EXPECT_TRUE(ends_with_line(run.output, upgrade_success));
    EXPECT_FALSE(is_exclusive(watcher));
    close(watcher);
}

/// Another program may have left the line with a parity bit that is always or never set.
TEST(ProgramPort, MarkAndSpaceParityOfBeforeAreCleared) {
    const SimulatedModule module("TR52G");
    const int watcher = open(module.port().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(watcher, 0);
    const auto leave_mark_parity = [watcher] {
        termios settings{};
        ASSERT_EQ(tcgetattr(watcher, &settings), 0);
        settings.c_cflag |= CMSPAR;
        ASSERT_EQ(tcsetattr(watcher, TCSANOW, &settings), 0);
    };
    const auto has_mark_parity = [watcher] {
        termios settings{};
        EXPECT_EQ(tcgetattr(watcher, &settings), 0);
        return (settings.c_cflag & CMSPAR) != 0;
    };
    leave_mark_parity();
    ASSERT_TRUE(has_mark_parity());
    const platform::Backend& system = platform::native();
    const platform::Port port = system.open(module.port().c_str());
    ASSERT_NE(port, platform::no_port);
    EXPECT_FALSE(has_mark_parity()) << "by opening";
    leave_mark_parity();
    EXPECT_TRUE(system.set_settings(port, {.baud = 115200}));
    EXPECT_FALSE(has_mark_parity()) << "by setting";
    system.close(port);
    close(watcher);
}

TEST(Program, LinesAreFlushedAsTheyAreWritten) {
    SimulatedModule module("TR52G");
    Background tool("orbix_flash", upgrade_arguments(module.port(), "x"));
    // The tool is still waiting for its module when this line has to be here.
    await(tool, "[INFO] Waiting for Sync...");
    tool.send_signal(SIGKILL);
    EXPECT_EQ(tool.finish().signal, SIGKILL);
}

TEST(Program, NonStandardRateIsSetOnTheTerminal) {
    const TempDir folder;
    SimulatedModule module("TR52G", {"--rate", "1234567"});
    auto arguments = upgrade_arguments(module.port(), folder.write("a", random_image(100)));
    arguments[5] = "1234567";
    EXPECT_TRUE(ends_with_line(run_program("orbix_flash", arguments).output, upgrade_success));
}

}  // namespace
}  // namespace orbix::test
