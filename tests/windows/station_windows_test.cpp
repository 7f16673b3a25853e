// The Windows station under Wine: the same verdicts, records and page as on Linux.
#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/process.h"
#include "run/harness.h"
#include "station/free_port.h"
#include "windows/wine.h"

namespace orbix::test {
namespace {

using nlohmann::json;

constexpr const char* fast = "921600";
/// The module falls silent early in the transfer.
constexpr const char* silent_soon = "silence=0@100:to-host";

/// How many processes run that program, of those built here for Windows.
int processes_of(const std::string& program) {
    int count = 0;
    for (const auto& process : std::filesystem::directory_iterator("/proc")) {
        std::string command = sim::read_text(process.path() / "cmdline");
        std::replace(command.begin(), command.end(), '\\', '/');
        if (command.find(std::string(ORBIX_WINDOWS_DIR) + "/" + program + ".exe") !=
            std::string::npos) {
            ++count;
        }
    }
    return count;
}

/// Waits until that is so, at most twenty seconds.
bool comes_true(const std::function<bool()>& condition) {
    for (int attempt = 0; attempt < 400; ++attempt) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

/// The phase of a port on the station's page, or nothing while there is no page or no such port.
std::string phase_on_page(int http, const std::string& port) {
    const auto answer = httplib::Client("127.0.0.1", http).Get("/state");
    if (answer && answer->status == 200) {
        const json state = json::parse(answer->body);
        for (const json& row : state["rows"]) {
            if (row["port"] == port) {
                return row["phase"];
            }
        }
    }
    return {};
}

/// The words of a station that flashes app.bin of its folder at these ports.
std::vector<std::string> station_words(const std::vector<std::string>& options_and_ports) {
    std::vector<std::string> words{"--plain"};
    words.insert(words.end(), options_and_ports.begin(), options_and_ports.end());
    words.insert(words.end(), {"--", "-m", "TR52G", "-b", fast, "-f", "app.bin", "-t", "UPG"});
    return on_wine("orbix_station", words);
}

TEST(WindowsStation, TwoModulesSideBySideOneOfThemFaulty) {
    const TempDir folder;
    const Bytes image = random_image(30'000);
    folder.write("app.bin", image);
    const std::string dump = folder.path("flash.dump");
    SimulatedModule good("TR52G", {"--rate", fast, "--dump", dump});
    const SimulatedModule faulty("TR52G", {"--rate", fast, "--faults", silent_soon});
    const ComPort first("com12", good.port());
    const ComPort second("com13", faulty.port());
    const int http = free_port();
    Background station(find_wine(),
                       station_words({"--json", "records", "--log-dir", "logs", "--stall", "3",
                                      "--http", std::to_string(http), "COM12", "COM13"}),
                       folder.path());
    // The faulty one is waited for, so there is time to look at the page.
    if (!comes_true([http] { return phase_on_page(http, "COM12") == "done"; })) {
        const Finished finished = station.finish();
        FAIL() << "not on the page: " << finished.output << finished.errors;
    }
    EXPECT_EQ(phase_on_page(http, "COM13"), "write");
    const auto page = httplib::Client("127.0.0.1", http).Get("/");
    ASSERT_TRUE(page);
    EXPECT_NE(page->body.find("<title>orbix_station</title>"), std::string::npos);

    const Finished finished = station.finish();
    EXPECT_EQ(finished.status, 8) << "over the time limit";
    EXPECT_NE(finished.output.find("COM12: good: flashed in "), std::string::npos)
        << finished.output;
    std::map<std::string, json> results;
    std::ifstream records(folder.path("records"));
    for (std::string line; std::getline(records, line);) {
        const json record = json::parse(line);
        if (record["event"] == "result") {
            results[record["port"]] = record;
        }
    }
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results["COM12"]["result"], "success");
    EXPECT_EQ(results["COM12"]["bytes"], image.size());
    const std::string sum = run_program("/usr/bin/sha256sum", {folder.path("app.bin")}).output;
    EXPECT_EQ(results["COM12"]["firmware"][0]["sha256"], sum.substr(0, 64));
    EXPECT_EQ(results["COM13"]["result"], "fail");
    EXPECT_EQ(results["COM13"]["cause"], "time_limit");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path("logs")), {}), 2);
    EXPECT_TRUE(comes_true([] { return processes_of("orbix_flash") == 0; }));

    good.stop();
    EXPECT_TRUE(dump_holds(dump, 0x9000, image));
}

TEST(WindowsStation, AnAbsentPortIsToldAsThat) {
    const TempDir folder;
    folder.write("app.bin", random_image(1000));
    const Finished finished = run_program(find_wine(), station_words({"COM77"}), folder.path());
    EXPECT_EQ(finished.status, 3);
    EXPECT_NE(finished.output.find("COM77: FAILED: the port could not be opened"),
              std::string::npos)
        << finished.output;
}

/// A station whose only module falls silent early in the transfer: its run goes on. At the end the
/// station is killed.
struct StalledRun {
    TempDir folder;
    SimulatedModule module{"TR52G", {"--rate", fast, "--faults", silent_soon}};
    ComPort port{"com12", module.port()};
    std::string image = folder.write("app.bin", random_image(30'000));
    Background station{find_wine(), station_words({"COM12"}), folder.path()};
};

TEST(WindowsStation, CtrlCOnceLetsTheRunFinishTwiceEndsIt) {
    StalledRun run;
    Background& station = run.station;
    while (station.read_line().find(": write") == std::string::npos) {
    }
    station.send_signal(SIGINT);
    std::string line;
    while (!line.starts_with("the running ones finish")) {
        line = station.read_line();
        ASSERT_NE(line, "");
    }
    EXPECT_EQ(processes_of("orbix_flash"), 1);
    station.send_signal(SIGINT);
    const Finished finished = station.finish();
    EXPECT_EQ(finished.status, 10) << finished.output;
    EXPECT_TRUE(comes_true([] { return processes_of("orbix_flash") == 0; }));
}

TEST(WindowsStation, WhenItIsKilledItsRunsEnd) {
    {
        const StalledRun run;
        EXPECT_TRUE(comes_true([] { return processes_of("orbix_flash") == 1; }));
    }  // killed
    EXPECT_TRUE(comes_true([] { return processes_of("orbix_flash") == 0; }));
}

}  // namespace
}  // namespace orbix::test
