// The built station with simulated modules, seen in a real browser.
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <map>
#include <thread>

#include "station/browser.h"
#include "station/free_port.h"

namespace orbix::test {
namespace {

using nlohmann::json;
using sim::TempDir;

std::string page_at(int port) {
    return "127.0.0.1:" + std::to_string(port);
}

/// Opens the page, as soon as the station serves it.
void open_page(Browser& browser, int port) {
    for (int attempt = 0; attempt < 200; ++attempt) {
        try {
            browser.open("http://" + page_at(port) + "/");
            return;
        } catch (const std::runtime_error&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
    }
    FAIL() << "there is no page";
}

/// In the page: the text of one cell of a port's row.
std::string cell(const std::string& port, const std::string& name) {
    return "[...document.querySelectorAll('tbody')].find((row) => row.querySelector('.port')"
           ".textContent.trim() === '" +
           port + "')?.querySelector('." + name + "').textContent";
}

/// The final record of each port.
std::map<std::string, json> results_of(const std::string& records) {
    std::map<std::string, json> results;
    std::ifstream stream(records);
    for (std::string line; std::getline(stream, line);) {
        const json record = json::parse(line);
        if (record["event"] == "result") {
            results[record["port"]] = record;
        }
    }
    return results;
}

TEST(StationInBrowser, ShowsTheRunsOfRealModulesAndAgreesWithTheRecords) {
    const TempDir folder;
    const std::string image = folder.write("app.bin", sim::random_image(1'000'000));
    const std::string records = folder.path("records");
    const auto module_options = [](const std::string& faults) {
        std::vector<std::string> options{"--rate", "921600", "--pace"};
        if (!faults.empty()) {
            options.insert(options.end(), {"--faults", faults});
        }
        return options;
    };
    SimulatedModule first("TR52G", module_options(""));
    SimulatedModule second("TR52G", module_options(""));
    SimulatedModule unplugged("TR52G", module_options("unplug@5000"));
    Browser browser;
    const int port = free_port();
    Background station("orbix_station", {"--plain", "--http", page_at(port), "--json", records,
                                         first.port(), second.port(), unplugged.port(), "--", "-m",
                                         "TR52G", "-b", "921600", "-f", image, "-t", "UPG"});
    open_page(browser, port);
    EXPECT_TRUE(browser.comes_true("document.querySelectorAll('tbody').length === 3"));
    EXPECT_EQ(browser.run("return document.querySelector('tbody .model').textContent"), "TR52G");

    const std::string percent = "Number(" + cell(first.port(), "percent") + ")";
    EXPECT_TRUE(browser.comes_true(percent + " > 5"));
    const json before = browser.run("return " + percent);
    EXPECT_TRUE(browser.comes_true(percent + " > " + before.dump()));
    EXPECT_TRUE(browser.comes_true(cell(unplugged.port(), "result") + " === '✗ failed'"));
    EXPECT_TRUE(browser.comes_true(percent + " < 100")) << "the others go on";

    browser.reload();
    EXPECT_TRUE(browser.comes_true(percent + " >= " + before.dump()));
    EXPECT_TRUE(browser.comes_true(cell(unplugged.port(), "result") + " === '✗ failed'"));

    EXPECT_TRUE(
        browser.comes_true("document.querySelector('#connection').textContent === 'ended'"));
    const Finished finished = station.finish();
    EXPECT_EQ(finished.status, 7) << "the transfer broke off" << finished.output;
    EXPECT_EQ(browser.run("return document.title"), "2 good, 1 bad, 0 running – orbix_station");
    const auto results = results_of(records);
    EXPECT_EQ(results.size(), 3U);
    for (const auto& [name, record] : results) {
        const bool good = record["result"] == "success";
        EXPECT_EQ(browser.run("return " + cell(name, "result")), good ? "✓ flashed" : "✗ failed");
        const std::string note = browser.run("return " + cell(name, "note"));
        EXPECT_EQ(note,
                  good ? "" : "the transfer broke off: " + record["message"].get<std::string>());
    }
}

TEST(StationInBrowser, ALostStationIsTakenUpAgainWhenItComesBack) {
    Browser browser;
    const int port = free_port();
    const std::vector<std::string> arguments{"--plain",    "--http",  page_at(port), "--watch",
                                             "/nowhere/*", "--",      "-m",          "TR52G",
                                             "-f",         "none.bin"};
    const auto sees_connection = [&browser](const std::string& words) {
        return browser.comes_true("document.querySelector('#connection').textContent.startsWith('" +
                                  words + "')");
    };
    {
        const Background station("orbix_station", arguments);
        open_page(browser, port);
        EXPECT_TRUE(sees_connection("live"));
    }  // killed
    EXPECT_TRUE(sees_connection("connection lost"));
    const Background again("orbix_station", arguments);
    EXPECT_TRUE(sees_connection("live"));
}

}  // namespace
}  // namespace orbix::test
