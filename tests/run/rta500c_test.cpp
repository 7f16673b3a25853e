// The RTA500C entry: options, checks and codes. Its dialogue is the upgrade dialogue with a running
// firmware, which has its own tests.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "run/harness.h"
#include "upgrade_agent.h"

namespace orbix::test {
namespace {

using sim::UpgradeAgent;

const std::string version_line = "[INFO] Version: RTA500C_EVB_NXP_Flash_Tool_V1.0";
const std::string missing_line =
    "[ERROR] Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m "
    "RTA500C_EVB_NXP -p /dev/ttyUSB0 -f ../RTA500C_EVB_NXP.bin -b 115200 -c app, FAIL";

std::vector<std::string> with(std::vector<std::string> more) {
    std::vector<std::string> words{"-m", "RTA500C_EVB_NXP"};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

TEST(Rta500c, SaysWhatItTakesAndWhatItDoes) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    UpgradeAgent module;
    const ToolRun run(module, with({"-p", "COM6", "-b", "115200", "-f", image, "-c", "gnss"}));
    EXPECT_EQ(run.family_lines(), (std::vector<std::string>{
                                      "[INFO] Module: RTA500C_EVB_NXP",
                                      "[INFO] Port: COM6",
                                      "[INFO] Baud rate:115200",
                                      "[INFO] Firmware: " + image,
                                      "[INFO] Flash area: gnss",
                                      version_line,
                                      "[INFO] Synchronize...",
                                      "[INFO] Please power up the module within 10s.",
                                      "[INFO] Send Firmware Address...",
                                      "[INFO] Send Firmware Information...",
                                      "[INFO] Send Firmware Upgrade Command...",
                                      "[INFO] Sending Firmware...",
                                  }));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    EXPECT_FALSE(run.left_open);
}

TEST(Rta500c, KeepsTheRateThatItIsGiven) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    UpgradeAgent module;
    module.start_baud = 460800;
    const ToolRun run(module, with({"-p", "COM6", "-b", "460800", "-f", image, "-c", "app"}));
    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.rates, std::vector<unsigned>{460800});
}

TEST(Rta500c, WithoutAnAreaThePortIsOpenedAndNothingIsSent) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    UpgradeAgent module;
    const ToolRun run(module, with({"-p", "COM6", "-b", "115200", "-f", image}));
    const auto lines = run.family_lines();
    EXPECT_EQ(lines.back(), "[ERROR] Parameter call error.");
    EXPECT_EQ(lines[lines.size() - 2], version_line);
    EXPECT_EQ(run.result(), upgrade_failure(-1));
    EXPECT_EQ(run.opens, 1);
    EXPECT_FALSE(run.left_open);
    EXPECT_TRUE(run.sent.empty());
}

TEST(Rta500c, UnknownAreaEndsTheRunAtOnce) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    for (const std::string area : {"app_boot", "APP", "", "gnss1"}) {
        UpgradeAgent module;
        const ToolRun run(module, with({"-c", area, "-p", "COM6", "-b", "115200", "-f", image}));
        EXPECT_EQ(run.family_lines(), (std::vector<std::string>{
                                          "[INFO] Module: RTA500C_EVB_NXP",
                                          "[INFO] Flash area: " + area,
                                          "[ERROR] unknow flash area " + area + ", FAIL",
                                      }));
        EXPECT_EQ(run.result(), upgrade_failure(-1));
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Rta500c, ModeAndUnknownOptionsAreAnsweredWithTheUsageText) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    for (const std::vector<std::string>& option :
         {std::vector<std::string>{"-t", "recovery"}, {"-x"}, {"-l", "115200"}, {"-c"}}) {
        UpgradeAgent module;
        std::vector<std::string> words = with({"-p", "COM6", "-b", "115200", "-f", image});
        words.insert(words.end(), option.begin(), option.end());
        const ToolRun run(module, words);
        EXPECT_EQ(run.count(" Usage: orbix_flash [options...]\n"), 1U) << option[0];
        EXPECT_EQ(run.count("Version:"), 0U);
        EXPECT_EQ(run.result(), upgrade_failure(-1)) << option[0];
        EXPECT_EQ(run.opens, 0);
    }
}

TEST(Rta500c, VersionOptionEndsTheProcess) {
    UpgradeAgent module;
    const ToolRun run(module, with({"-v"}));
    EXPECT_EQ(run.status, -1);
    EXPECT_EQ(run.lines().back(), version_line);
    EXPECT_EQ(run.count(version_line), 1U);
    EXPECT_EQ(run.count("[FAIL]"), 0U);
    EXPECT_EQ(run.opens, 0);
    // and the next run knows nothing of it
    EXPECT_EQ(ToolRun(module, with({})).result(), upgrade_failure(258));
}

TEST(Rta500c, MissingParameters) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    for (const std::vector<std::string>& given : {std::vector<std::string>{},
                                                  {"-p", "COM6", "-b", "115200"},
                                                  {"-p", "COM6", "-f", image},
                                                  {"-b", "115200", "-f", image},
                                                  {"-p", "", "-b", "115200", "-f", image},
                                                  {"-p", "COM6", "-b", "115200", "-f", ""},
                                                  {"-p", "COM6", "-b", "fast", "-f", image}}) {
        UpgradeAgent module;
        const ToolRun run(module, with(given));
        const auto lines = run.family_lines();
        EXPECT_EQ(lines.back(), missing_line);
        EXPECT_EQ(lines[lines.size() - 2], version_line);
        EXPECT_EQ(run.result(), upgrade_failure(258));
        EXPECT_EQ(run.opens, 0);
        EXPECT_EQ(run.closes, 1);
    }
}

TEST(Rta500c, FirmwareThatCannotBeRead) {
    const TempDir folder;
    UpgradeAgent module;
    const auto run_with_file = [&module](const std::string& path) {
        return ToolRun(module, with({"-p", "COM6", "-b", "115200", "-c", "app", "-f", path}));
    };
    const std::string absent = folder.path("absent.bin");
    const ToolRun without_file = run_with_file(absent);
    EXPECT_EQ(without_file.family_lines().back(),
              "[ERROR] Fail to access " + absent + ", errno: 2 (No such file or directory)");
    EXPECT_EQ(without_file.result(), upgrade_failure(259));
    EXPECT_EQ(without_file.opens, 0);
    EXPECT_EQ(without_file.closes, 1);

    const ToolRun with_folder = run_with_file(folder.path());
    EXPECT_EQ(with_folder.family_lines().back(),
              "[ERROR] Fail to access " + folder.path() + ", errno: 21 (Is a directory)");
    EXPECT_EQ(with_folder.result(), upgrade_failure(259));

    const std::string long_path = folder.path(std::string(3000, 'x'));
    const ToolRun with_long_path = run_with_file(long_path);
    EXPECT_EQ(with_long_path.count("[INFO] Firmware: " + long_path.substr(0, 255) + "\n"), 1U);
    EXPECT_EQ(with_long_path.result(), upgrade_failure(259));
}

TEST(Rta500c, PortThatCannotBeOpened) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    UpgradeAgent module;
    const ToolRun run(module, with({"-p", "COM77", "-b", "115200", "-c", "app", "-f", image}));
    EXPECT_EQ(run.family_lines().back(), "[ERROR] Fail to open COM77");
    EXPECT_EQ(run.result(), upgrade_failure(260));
    EXPECT_EQ(run.closes, 1) << "once, as on every way out";
    EXPECT_FALSE(run.left_open);
}

TEST(Rta500c, PortNameCountsWithTwentyCharacters) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(100));
    UpgradeAgent module;
    Conditions conditions;
    conditions.port.name = "/dev/serial/by-id/us";
    const ToolRun run(
        module,
        with({"-p", "/dev/serial/by-id/usb-adapter", "-b", "115200", "-c", "app", "-f", image}),
        conditions);
    EXPECT_EQ(run.count("[INFO] Port: /dev/serial/by-id/us\n"), 1U);
    EXPECT_EQ(run.result(), upgrade_success);
}

TEST(Rta500c, DebugOptionTurnsTheDumpsOn) {
    const TempDir folder;
    const std::string image = folder.write("fw.bin", random_image(3));
    UpgradeAgent module;
    const ToolRun run(module, with({"-D", "-p", "COM6", "-b", "115200", "-c", "app", "-f", image}));
    EXPECT_EQ(run.count("] debug mode\n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] send to module -- < 09 13 56 4b \n"), 1U);
    EXPECT_EQ(run.count("[DEBUG] recv to module -- < 4D 3A FC AA ,ret:4\n"), 1U);
}

}  // namespace
}  // namespace orbix::test
