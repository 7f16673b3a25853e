// The Windows program under Wine: its lines are those of the Linux program for the same run.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <regex>
#include <sstream>

#include "cli/process.h"
#include "cyfm_package.h"
#include "run/harness.h"
#include "windows/wine.h"

namespace orbix::test {
namespace {

constexpr const char* fast = "921600";

Finished run_on_windows(const std::vector<std::string>& arguments, const std::string& folder = "") {
    return run_program(find_wine(), on_wine("orbix_flash", arguments), folder);
}

/// Lines without what must differ between two runs: times, rates, the build's date, the program's
/// own name, and the line ends of the C runtime.
Lines comparable(const std::string& output, bool from_windows) {
    static const std::regex stamp(R"(\[\d{3,}\.\d{3}\])");
    static const std::regex rate(R"(    \d+(\.\d)? KBps$)");
    Lines lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);) {
        if (from_windows) {
            EXPECT_TRUE(line.ends_with('\r')) << line;
            line = line.substr(0, line.size() - 1);
        }
        line = std::regex_replace(line, stamp, "");
        line = std::regex_replace(line, rate, "");
        if (line.starts_with("new_argv[0]:") || line.starts_with("[INFO] V1.0.9 ")) {
            continue;
        }
        lines.push_back(line);
    }
    return lines;
}

/// A run that both programs do, each with a module of its own. The module's port is called COM12.
struct Scenario {
    std::string name;
    std::string model;
    std::vector<std::string> simulator;  ///< options of orbix_sim
    /// Writes the run's files and returns the arguments behind "-m MODEL -p COM12".
    std::function<std::vector<std::string>(const TempDir& folder)> arguments;
    /// Looks at what the run left behind.
    std::function<void(const TempDir& folder, const Bytes& flash)> check;
    std::string result = upgrade_success;
};

/// gtest prints a parameter's name, not its bytes.
void PrintTo(const Scenario& scenario, std::ostream* out) {
    *out << scenario.name;
}

Lines run_scenario(const Scenario& scenario, bool on_windows) {
    const TempDir folder;
    const std::string dump = folder.path("flash.dump");
    std::vector<std::string> options = scenario.simulator;
    options.insert(options.end(), {"--dump", dump});
    SimulatedModule module(scenario.model, options);
    std::vector<std::string> arguments{"-m", scenario.model, "-p", "COM12"};
    const auto more = scenario.arguments(folder);
    arguments.insert(arguments.end(), more.begin(), more.end());

    Finished run;
    if (on_windows) {
        const ComPort port("com12", module.port());
        run = run_on_windows(arguments, folder.path());
    } else {
        // The same name on Linux: a file of the folder that the program is started in.
        std::filesystem::create_symlink(module.port(), folder.path("COM12"));
        run = run_program("orbix_flash", arguments, folder.path());
    }
    EXPECT_EQ(run.status, 0);
    module.stop();
    scenario.check(folder, read_file(dump));
    Lines lines = comparable(run.output, on_windows);
    EXPECT_FALSE(lines.empty());
    if (!lines.empty()) {
        EXPECT_EQ(lines.back(), scenario.result) << run.output;
    }
    return lines;
}

class Windows : public ::testing::TestWithParam<Scenario> {};

TEST_P(Windows, SaysWhatLinuxSays) {
    const Lines linux_lines = run_scenario(GetParam(), false);
    EXPECT_EQ(run_scenario(GetParam(), true), linux_lines);
}

const Bytes small_image = random_image(30'000);

bool holds(const Bytes& flash, std::size_t offset, const Bytes& image) {
    return flash.size() >= offset + image.size() &&
           std::equal(image.begin(), image.end(),
                      flash.begin() + static_cast<std::ptrdiff_t>(offset));
}

/// The image stands somewhere in the module's flash.
void expect_small_image(const TempDir& /*folder*/, const Bytes& flash) {
    EXPECT_TRUE(contains(flash, small_image));
}

const std::vector<Scenario> scenarios{
    {"Ag3352Upgrade",
     "TR52G",
     {"--rate", fast},
     [](const TempDir& folder) -> std::vector<std::string> {
         folder.write("app.bin", small_image);
         return {"-b", fast, "-f", "app.bin", "-t", "UPG"};
     },
     [](const TempDir& /*folder*/, const Bytes& flash) {
         EXPECT_TRUE(holds(flash, 0x9000, small_image));
     }},
    {"Ag3352Download",
     "TR52G",
     {},
     [](const TempDir& folder) -> std::vector<std::string> {
         std::filesystem::create_directory(folder.path("fw"));
         folder.write("fw/app.bin", small_image);
         folder.write("fw/flash_download.cfg",
                      std::string("rom:\n    file: app.bin\n    begin_address: 0x08013000\n"));
         folder.write("agent.bin", random_image(43956));
         return {"-b", fast, "-d", "fw", "-s", "agent.bin", "-t", "DL"};
     },
     [](const TempDir& /*folder*/, const Bytes& flash) {
         EXPECT_TRUE(holds(flash, 0x13000, small_image));
     }},
    {"Ag3352Readback",
     "TR52G",
     {},
     [](const TempDir& folder) -> std::vector<std::string> {
         folder.write("agent.bin", random_image(43956));
         return {"-b", fast,     "-s",     "agent.bin", "-a",     "0x08000000", "0x08009000",
                 "-t", "0x2000", "0x1000", "-o",        "a.read", "b.read"};
     },
     [](const TempDir& folder, const Bytes& flash) {
         const Bytes first = read_file(folder.path("a.read"));
         EXPECT_EQ(first.size(), 0x2000U);
         EXPECT_TRUE(holds(flash, 0, first));
         EXPECT_EQ(read_file(folder.path("b.read")).size(), 0x1000U);
     },
     readback_success},
    {"TeseoBootRom",
     "TS90B",
     {},
     [](const TempDir& folder) -> std::vector<std::string> {
         folder.write("app.bin", small_image);
         return {"-b", "115200", "-f", "app.bin"};
     },
     expect_small_image},
    {"Rx7040Xmodem",
     "MX290B",
     {},
     [](const TempDir& folder) -> std::vector<std::string> {
         folder.write("loader.pkg", random_image(2000));
         folder.write("fw.pkg", small_image);
         return {"-L", "loader.pkg", "-f", "fw.pkg", "-t", "DL"};
     },
     expect_small_image},
    {"Hd8xx0User",
     "MX210A00",
     {},
     [](const TempDir& folder) -> std::vector<std::string> {
         folder.write("app.cyfm", sim::make_cyfm(small_image));
         return {"-b", "115200", "-f", "app.cyfm", "-t", "user"};
     },
     expect_small_image},
};

INSTANTIATE_TEST_SUITE_P(Runs, Windows, ::testing::ValuesIn(scenarios),
                         [](const auto& parameter) { return parameter.param.name; });

TEST(WindowsProgram, ListAndUsageAreTheSame) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-S"},
             {"-p", "COM1"},
             {"-m", "nosuch"},
             {"word", "--m", "nosuch", "word", "--zDb9600", "--", "-R1"}}) {
        const auto linux_run = comparable(run_program("orbix_flash", arguments).output, false);
        auto windows_run = comparable(run_on_windows(arguments).output, true);
        ASSERT_EQ(windows_run.size(), linux_run.size());
        for (std::size_t line = 0; line < linux_run.size(); ++line) {
            if (!linux_run[line].starts_with(" Usage: ")) {
                EXPECT_EQ(windows_run[line], linux_run[line]);
            }
        }
    }
}

TEST(WindowsProgram, AbsentPort) {
    const Finished run =
        run_on_windows({"-m", "TR52G", "-p", "COM77", "-b", fast, "-f", "x", "-t", "UPG"});
    EXPECT_NE(run.output.find("[ERROR] Error opening COM77: No such file or directory\r\n"),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find(upgrade_failure(-1) + "\r\n"), std::string::npos);
}

TEST(WindowsProgram, DevicePathIsCutTo31Characters) {
    const TempDir folder;
    folder.write("loader.pkg", random_image(100));
    folder.write("fw.pkg", random_image(100));
    const SimulatedModule module("MX290B");
    const std::string name(27, 'p');  // behind the four characters that lead every device path
    const ComPort port(name, module.port());
    const Finished run = run_on_windows(
        {"-m", "MX290B", "-p", name + "xx", "-L", "loader.pkg", "-f", "fw.pkg", "-t", "DL"},
        folder.path());
    EXPECT_NE(run.output.find(upgrade_success), std::string::npos) << run.output;
}

/// The clock of the lines, in milliseconds, in the first one that holds the text.
int stamp_of(const std::string& output, const std::string& text) {
    const std::regex line(R"(\[(\d{3,})\.(\d{3})\])" + text);
    std::smatch found;
    EXPECT_TRUE(std::regex_search(output, found, line)) << output;
    return found.empty() ? 0 : std::stoi(found[1]) * 1000 + std::stoi(found[2]);
}

/// Wine hands bytes on at once, as an adapter with a long queue does: that they take their time on
/// the line shows in the clock alone.
TEST(WindowsProgram, WritesAreWaitedForUntilTheLineHasCarriedThem) {
    const TempDir folder;
    const int size = 6000;
    const int rate = 57'600;
    folder.write("app.bin", random_image(size));
    const SimulatedModule module("TR52G", {"--rate", std::to_string(rate), "--instant"});
    const ComPort port("com12", module.port());
    const Finished run = run_on_windows(
        {"-m", "TR52G", "-p", "COM12", "-b", std::to_string(rate), "-f", "app.bin", "-t", "UPG"},
        folder.path());
    EXPECT_GE(stamp_of(run.output, R"(\[SUCCESS\])") - stamp_of(run.output, ".*Sync success"),
              size * 10 * 1000 / rate);
}

TEST(WindowsProgram, PathsWithBlanksAndLettersOfTheAnsiCodePage) {
    const TempDir folder;
    const std::string name = "f\u00fcr M\u00f6dul 1/app \u00e4.bin";
    std::filesystem::create_directory(folder.path("f\u00fcr M\u00f6dul 1"));
    folder.write(name, small_image);
    const std::string dump = folder.path("flash.dump");
    SimulatedModule module("TR52G", {"--rate", fast, "--dump", dump});
    const ComPort port("com12", module.port());
    const Finished run = run_on_windows(
        {"-m", "TR52G", "-p", "COM12", "-b", fast, "-f", name, "-t", "UPG"}, folder.path());
    EXPECT_NE(run.output.find(upgrade_success), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("f\xFCr M\xF6"
                              "dul 1/app \xE4.bin\r\n"),
              std::string::npos)
        << "the name stays in the ANSI code page";
    module.stop();
    EXPECT_TRUE(dump_holds(dump, 0x9000, small_image));
}

/// Letters of the ANSI code page whose numbers there are not those of Unicode.
TEST(WindowsProgram, PackageFolderWithLettersOutsideLatin1) {
    const TempDir folder;
    const std::string package = "fw\u20131 \u20ac";
    std::filesystem::create_directory(folder.path(package));
    folder.write(package + "/app.bin", small_image);
    folder.write(package + "/flash_download.cfg",
                 std::string("rom:\n    file: app.bin\n    begin_address: 0x08013000\n"));
    folder.write("agent.bin", random_image(43956));
    const std::string dump = folder.path("flash.dump");
    SimulatedModule module("TR52G", {"--instant", "--dump", dump});
    const ComPort port("com12", module.port());
    const Finished run = run_on_windows(
        {"-m", "TR52G", "-p", "COM12", "-b", fast, "-d", package, "-s", "agent.bin", "-t", "DL"},
        folder.path());
    EXPECT_NE(run.output.find(upgrade_success), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("fw\x96"
                              "1 \x80/flash_download.cfg\r\n"),
              std::string::npos)
        << run.output;
    module.stop();
    EXPECT_TRUE(holds(read_file(dump), 0x13000, small_image));
}

}  // namespace
}  // namespace orbix::test
