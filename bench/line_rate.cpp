// How close a run comes to what its line allows.
//
// Each benchmark is one run of the built orbix_flash against orbix_sim on a pseudo-terminal whose
// bytes take their time in both directions. The bound is the same run in virtual time: the bytes on
// the line at 10 bit times each, the stated pauses and the module's own times, and nothing else.
#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "catalogue.h"
#include "cli/process.h"
#include "temp_dir.h"
#include "tool_run.h"

namespace orbix {
namespace {

using Arguments = std::vector<std::string>;

/// A transfer: the model, and the arguments behind its port for a rate.
struct Transfer {
    std::string name;
    std::string model;
    bool starts_at_rate;  ///< the module listens at the benchmark's rate from the start
    std::function<Arguments(const sim::TempDir& folder, const std::string& rate)> prepare;
};

constexpr std::size_t image_size = 1'048'576;

/// A package of one image of 1 MiB, and an agent.
void write_package(const sim::TempDir& folder, std::size_t agent_size) {
    std::filesystem::create_directory(folder.path("fw"));
    folder.write("fw/app.bin", sim::random_image(image_size));
    folder.write("fw/flash_download.cfg",
                 std::string("rom:\n    file: app.bin\n    begin_address: 0x08013000\n"));
    folder.write("agent.bin", sim::random_image(agent_size));
}

const std::vector<Transfer> transfers{
    {"Ag3352Upgrade", "TR52G", true,
     [](const sim::TempDir& folder, const std::string& rate) -> Arguments {
         return {"-b", rate, "-f", folder.write("app.bin", sim::random_image(image_size)),
                 "-t", "UPG"};
     }},
    {"Ag3352Download", "TR52G", false,
     [](const sim::TempDir& folder, const std::string& rate) -> Arguments {
         write_package(folder, 43956);
         return {"-b", rate, "-d", folder.path("fw"), "-s", folder.path("agent.bin"), "-t", "DL"};
     }},
    {"Ag3335Upgrade", "TR40XBA", false,
     [](const sim::TempDir& folder, const std::string& rate) -> Arguments {
         write_package(folder, 30000);
         return {"-b", "115200",          "-l", rate,
                 "-d", folder.path("fw"), "-s", folder.path("agent.bin")};
     }},
};

Arguments with_port(const Transfer& transfer, const std::string& port, const Arguments& more) {
    Arguments arguments{"-m", transfer.model, "-p", port};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

/// Seconds that the run takes in virtual time.
double bound_of(const Transfer& transfer, unsigned rate, const Arguments& arguments) {
    const std::unique_ptr<sim::Model> model = sim::make_model(transfer.model);
    if (transfer.starts_at_rate) {
        model->start_baud = rate;
    }
    sim::Conditions conditions;
    conditions.traced = false;
    conditions.packet = 64;  // as orbix_sim hands on what the module says
    const sim::ToolRun run(*model, with_port(transfer, "COM6", arguments), conditions);
    return static_cast<double>(run.duration_ms) / 1000;
}

void run_transfer(benchmark::State& state, const Transfer& transfer, unsigned rate,
                  std::size_t modules) {
    const sim::TempDir folder;
    const Arguments arguments = transfer.prepare(folder, std::to_string(rate));
    const double bound = bound_of(transfer, rate, arguments);
    Arguments simulator{"--pace"};
    if (transfer.starts_at_rate) {
        simulator.insert(simulator.end(), {"--rate", std::to_string(rate)});
    }
    double slowest = 0;
    double processor = 0;
    long peak = 0;
    for (auto _ : state) {
        std::vector<std::unique_ptr<test::SimulatedModule>> simulated;
        for (std::size_t count = 0; count < modules; ++count) {
            simulated.push_back(std::make_unique<test::SimulatedModule>(transfer.model, simulator));
        }
        const auto begun = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<test::Background>> tools;
        for (const auto& module : simulated) {
            tools.push_back(std::make_unique<test::Background>(
                "orbix_flash", with_port(transfer, module->port(), arguments)));
        }
        for (const auto& tool : tools) {
            const test::Finished run = tool->finish();
            if (run.output.find("[SUCCESS]") == std::string::npos) {
                state.SkipWithError(run.output.c_str());
                return;
            }
            processor += run.processor_seconds;
            peak = std::max(peak, run.peak_kib);
        }
        slowest = std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
        state.SetIterationTime(slowest);
    }
    state.counters["bound_s"] = bound;
    state.counters["of_bound"] = slowest / bound;
    state.counters["core_share"] = processor / static_cast<double>(modules) / slowest;
    state.counters["peak_MiB"] = static_cast<double>(peak) / 1024;
}

void register_transfer(const Transfer& transfer, unsigned rate, std::size_t modules) {
    const std::string name =
        transfer.name + "/baud:" + std::to_string(rate) + "/modules:" + std::to_string(modules);
    benchmark::RegisterBenchmark(name.c_str(),
                                 [&transfer, rate, modules](benchmark::State& state) {
                                     run_transfer(state, transfer, rate, modules);
                                 })
        ->UseManualTime()
        ->Iterations(1)
        ->Unit(benchmark::kSecond);
}

}  // namespace
}  // namespace orbix

int main(int argc, char** argv) {
    for (const auto& transfer : orbix::transfers) {
        for (const unsigned rate : {921600U, 460800U}) {
            orbix::register_transfer(transfer, rate, 1);
        }
    }
    orbix::register_transfer(orbix::transfers.front(), 921600, 8);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
