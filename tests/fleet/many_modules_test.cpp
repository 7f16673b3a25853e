// A whole bench: 32 simulated modules side by side, three of them faulty, in real time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "campaign/station/processes.h"
#include "campaign/station/records_check.h"
#include "cli/process.h"
#include "temp_dir.h"

namespace orbix::campaign {
namespace {

using namespace std::chrono_literals;
using test::SimulatedModule;

constexpr std::size_t module_count = 32;
constexpr std::uint32_t image_offset = 0x9000;

/// About 15 seconds at 115200 baud; the silent module takes 20.
constexpr std::size_t image_size = 160'000;

/// The sanitizers' own work is no measure of the station's.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
constexpr bool sanitized = __has_feature(address_sanitizer);
#else
constexpr bool sanitized = false;
#endif

/// The places of the three faulty modules, what is wrong with them, and what must come of it.
struct Faulty {
    std::size_t place;
    const char* faults;
    const char* cause;
};
constexpr Faulty faulty_modules[] = {
    {5, "silence=0@0ms:to-host", "no_sync"},  // says nothing
    {12, "flip=3@30", "refused"},             // is told of its image in a frame with a wrong CRC
    {23, "unplug@60000", "transfer"},         // vanishes in the midst of the image
};

const Faulty* fault_of(std::size_t place) {
    for (const Faulty& faulty : faulty_modules) {
        if (faulty.place == place) {
            return &faulty;
        }
    }
    return nullptr;
}

/// The working folder for as long as it is needed.
class WorkingFolder {
  public:
    explicit WorkingFolder(const std::string& path) : before_(std::filesystem::current_path()) {
        std::filesystem::current_path(path);
    }
    ~WorkingFolder() { std::filesystem::current_path(before_); }
    WorkingFolder(const WorkingFolder&) = delete;
    WorkingFolder& operator=(const WorkingFolder&) = delete;

  private:
    std::filesystem::path before_;
};

/// Asks for the state once a second, and checks in the end that each row that was done showed the
/// result of the records.
class StatePoller {
  public:
    void poll(int port) {
        if (Json state = page_state(port); state.is_object()) {
            states_.push_back(std::move(state));
        }
    }

    void check(const std::vector<Json>& records) const {
        std::size_t compared = 0;
        for (const Json& state : states_) {
            EXPECT_EQ(state["ports"].size(), module_count);
            for (const Json& row : state["rows"]) {
                if (row["phase"] == "done") {
                    ++compared;
                    const Json* const result = result_of(records, row["port"]);
                    ASSERT_NE(result, nullptr);
                    EXPECT_EQ(row["cause"], (*result)["cause"]);
                    EXPECT_EQ(row["message"], (*result)["message"]);
                }
            }
        }
        EXPECT_GT(compared, 0U) << "no state showed a finished run";
    }

  private:
    std::vector<Json> states_;
};

struct Bench {
    std::vector<std::unique_ptr<SimulatedModule>> modules;
    std::vector<std::string> ports;
};

Bench start_modules(const sim::TempDir& folder) {
    Bench bench;
    for (std::size_t place = 0; place < module_count; ++place) {
        std::vector<std::string> options{"--dump", folder.path(std::to_string(place))};
        if (const Faulty* const faulty = fault_of(place)) {
            options.insert(options.end(), {"--faults", faulty->faults});
        }
        bench.modules.push_back(std::make_unique<SimulatedModule>("TR52G", options));
        bench.ports.push_back(bench.modules.back()->port());
    }
    return bench;
}

// In real time, for what it measures is the station's share of a processor: half a minute.
TEST(ThirtyTwoModules, GoodOnesAreFlashedAndFaultyOnesAreNamed) {
    const sim::TempDir folder;
    const sim::Bytes image = sim::random_image(image_size);
    folder.write("app.bin", image);
    Bench bench = start_modules(folder);
    const WorkingFolder here(folder.path());
    std::filesystem::create_directory("logs");

    std::vector<std::string> arguments{"--json", "records.jsonl", "--log-dir",
                                       "logs",   "--http",        "127.0.0.1:0"};
    arguments.insert(arguments.end(), bench.ports.begin(), bench.ports.end());
    arguments.insert(arguments.end(),
                     {"--", "-m", "TR52G", "-b", "115200", "-f", "app.bin", "-t", "UPG"});
    const auto begun = std::chrono::steady_clock::now();
    StationProcess station(std::string(ORBIX_BIN_DIR) + "/orbix_station", arguments);
    const int page_port = station.page_port();
    ASSERT_NE(page_port, 0) << StationProcess::last_words();
    PageWatcher page;
    std::thread watcher([&] { page.follow(page_port); });
    StatePoller state;
    while (!station.poll()) {
        state.poll(page_port);
        std::this_thread::sleep_for(1s);
    }
    watcher.join();
    const ProcessEnd end = station.wait();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();

    for (const pid_t process : processes_in(std::filesystem::current_path())) {
        EXPECT_EQ(process, getpid()) << "still running: " << command_of(process);
    }
    Findings findings;
    const std::vector<Json> records = read_records("records.jsonl", findings);
    check_order(records, bench.ports, end.status, findings);
    check_against_logs(records, findings);
    page.check(records, bench.ports, findings);
    for (const std::string& finding : findings) {
        ADD_FAILURE() << finding;
    }
    state.check(records);
    EXPECT_EQ(end.status, status_of("transfer"));
    if (!sanitized) {
        EXPECT_LT(end.processor_seconds / seconds, 0.05);
    }
    std::printf("%.1f s, %.2f s of a processor: %.1f %%\n", seconds, end.processor_seconds,
                100 * end.processor_seconds / seconds);

    const std::string sum = test::run_program("/usr/bin/sha256sum", {"app.bin"}).output;
    std::size_t good = 0;
    for (std::size_t place = 0; place < module_count; ++place) {
        bench.modules[place]->stop();
        const Json* const result = result_of(records, bench.ports[place]);
        ASSERT_NE(result, nullptr) << place;
        const Faulty* const faulty = fault_of(place);
        const std::string cause = faulty != nullptr ? faulty->cause : "none";
        EXPECT_EQ((*result)["cause"], cause) << result->dump();
        EXPECT_EQ((*result)["firmware"][0]["sha256"], sum.substr(0, 64));
        EXPECT_EQ(test::dump_holds(std::to_string(place), image_offset, image), faulty == nullptr)
            << place;
        good += cause == "none" && (*result)["bytes"] == image_size ? 1 : 0;
    }
    EXPECT_EQ(good, module_count - std::size(faulty_modules));
}

}  // namespace
}  // namespace orbix::campaign
