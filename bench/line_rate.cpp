// How close a run comes to what its line allows.
//
// Each benchmark is a transfer by the built orbix_flash over pseudo-terminals whose bytes take
// their time in both directions, to one simulated module or to several side by side. The bound is
// the same run in virtual time: the bytes on the line at 10 bit times each (11 with parity), the
// stated pauses and the module's own times, and nothing else. Where another program holds the same
// dialogue, it does the same transfer over the same line, in turns with the tool.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "awake.h"
#include "catalogue.h"
#include "cli/process.h"
#include "measured.h"
#include "peers.h"
#include "tool_run.h"
#include "transfers.h"

namespace orbix::bench {
namespace {

/// What must hold. Between the two rates the looser one does.
constexpr unsigned slow_rate = 115200;
constexpr double most_over_bound_slow = 0.01;
constexpr double most_over_bound = 0.03;
constexpr std::size_t station_size = 32;  ///< modules side by side
constexpr double most_loss_in_station = 0.02;

/// Tool and peer take turns this often; the shortest run of each counts. The shortest of five runs
/// of one program differ by up to two tenths of a per cent.
constexpr std::size_t turns = 5;
constexpr double most_ratio = 1.002;

/// One way of running a transfer.
struct Case {
    const Transfer* transfer;
    unsigned rate;
    std::size_t modules;
};

/// Seconds of a run with nothing but what the dialogue and the line ask for.
struct Bound {
    double all;
    double line;   ///< the bytes of both directions
    double delay;  ///< how long the module let its answers wait
};

/// Files and arguments of a transfer at a rate.
struct Prepared {
    Prepared(const Transfer& transfer, unsigned rate)
        : size(image_size(transfer, rate)), arguments(transfer.prepare(folder, rate, size)) {}

    sim::TempDir folder;
    std::size_t size;
    Arguments arguments;
};

Arguments with_port(const Transfer& transfer, const std::string& port, const Arguments& more) {
    Arguments arguments{"-m", transfer.model, "-p", port};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

Bound bound_of(const Transfer& transfer, unsigned rate, const Arguments& arguments) {
    const std::unique_ptr<sim::Model> model = sim::make_model(transfer.model);
    model->even_parity = transfer.even_parity;
    if (transfer.starts_at_rate) {
        model->start_baud = rate;
    }
    sim::Conditions conditions;
    conditions.traced = false;
    conditions.packet = 64;  // as orbix_sim hands on what the module says
    const sim::ToolRun run(*model, with_port(transfer, "COM6", arguments), conditions);
    return {.all = static_cast<double>(run.duration_ms) / 1e3,
            .line = static_cast<double>(run.line_busy) / 1e6,
            .delay = static_cast<double>(run.module_busy) / 1e6};
}

/// orbix_sim with the modules of a case; its lines have the rate of the terminals.
class Station {
  public:
    explicit Station(const Case& run) : simulator_("orbix_sim", options(run)) {
        for (std::size_t count = 0; count < run.modules; ++count) {
            ports_.push_back(simulator_.read_line());
        }
    }

    [[nodiscard]] const std::vector<std::string>& ports() const { return ports_; }

  private:
    static std::vector<std::string> options(const Case& run) {
        std::vector<std::string> words{run.transfer->model, "--pace", "--count",
                                       std::to_string(run.modules)};
        if (run.transfer->starts_at_rate) {
            words.insert(words.end(), {"--rate", std::to_string(run.rate)});
        }
        return words;
    }

    test::Background simulator_;
    std::vector<std::string> ports_;
};

/// Runs the tool once for each module, all at the same time.
std::vector<Measured> run_tools(const Case& run, const Prepared& prepared) {
    const Station station(run);
    std::vector<Command> commands;
    for (const std::string& port : station.ports()) {
        commands.push_back({std::string(ORBIX_BIN_DIR) + "/orbix_flash"});
        const Arguments words = with_port(*run.transfer, port, prepared.arguments);
        commands.back().insert(commands.back().end(), words.begin(), words.end());
    }
    return run_side_by_side(commands, prepared.folder.path());
}

/// The output of a run that failed, if one did.
std::optional<std::string> failure_in(const std::vector<Measured>& runs) {
    for (const Measured& run : runs) {
        if (run.output.find("[SUCCESS]") == std::string::npos) {
            return "no SUCCESS: " +
                   run.output.substr(run.output.size() -
                                     std::min<std::size_t>(run.output.size(), 300));
        }
    }
    return std::nullopt;
}

double limit_of(unsigned rate) {
    return rate <= slow_rate ? most_over_bound_slow : most_over_bound;
}

/// Seconds of the one-module runs so far, by transfer and rate: what more modules are compared
/// with.
std::map<std::pair<std::string, unsigned>, double> alone;

void measure(benchmark::State& state, const Case& run) {
    const Prepared prepared(*run.transfer, run.rate);
    const Bound bound = bound_of(*run.transfer, run.rate, prepared.arguments);
    std::vector<Measured> runs;
    double slowest = 0;
    double sum = 0;
    double processor = 0;
    long peak = 0;
    for (auto _ : state) {
        runs = run_tools(run, prepared);
        if (const auto failure = failure_in(runs)) {
            state.SkipWithError(failure->c_str());
            return;
        }
        for (const Measured& each : runs) {
            slowest = std::max(slowest, each.seconds);
            sum += each.seconds;
            processor += each.processor_seconds;
            peak = std::max(peak, each.peak_kib);
        }
        state.SetIterationTime(slowest);
    }
    const auto count = static_cast<double>(run.modules);
    auto& counters = state.counters;
    state.SetLabel(run.transfer->name);
    counters["baud"] = run.rate;
    counters["modules"] = count;
    counters["bytes"] = static_cast<double>(prepared.size);
    counters["bound_s"] = bound.all;
    counters["line_s"] = bound.line;
    counters["delay_s"] = bound.delay;
    counters["seconds"] = slowest;
    counters["over_bound"] = slowest / bound.all - 1;
    counters["processor_s"] = processor / count;
    counters["core_share"] = processor / sum;
    counters["peak_MiB"] = static_cast<double>(peak) / 1024;
    const std::pair key(run.transfer->name, run.rate);
    if (run.modules == 1) {
        alone[key] = slowest;
        counters["limit"] = limit_of(run.rate);
    } else if (alone.contains(key)) {
        counters["loss"] = slowest / alone[key] - 1;
        if (run.modules == station_size && run.rate == slow_rate) {
            counters["limit"] = most_loss_in_station;
        }
    }
}

void compare(benchmark::State& state, const Peer& peer, unsigned rate) {
    const Case run{.transfer = &transfer_named(peer.transfer), .rate = rate, .modules = 1};
    const Prepared prepared(*run.transfer, rate);
    std::vector<double> tool;
    std::vector<double> other;
    for (auto _ : state) {
        for (std::size_t turn = 0; turn < turns; ++turn) {
            const auto runs = run_tools(run, prepared);
            if (const auto failure = failure_in(runs)) {
                state.SkipWithError(failure->c_str());
                return;
            }
            tool.push_back(runs.front().seconds);
            const Station station(run);
            const Measured measured = peer.run(peer, station.ports().front(), rate,
                                               prepared.arguments, prepared.folder.path());
            if (measured.status != 0) {
                state.SkipWithError((peer.name + " failed: " + measured.output).c_str());
                return;
            }
            other.push_back(measured.seconds);
        }
        state.SetIterationTime(std::ranges::min(tool));
    }
    state.SetLabel(run.transfer->name + " / " + peer.name);
    state.counters["baud"] = rate;
    state.counters["bytes"] = static_cast<double>(prepared.size);
    const double seconds = std::ranges::min(tool);
    const double peer_seconds = std::ranges::min(other);
    const double more = static_cast<double>(peer.more_bytes(prepared.size)) *
                        (run.transfer->even_parity ? 11 : 10) / rate;
    state.counters["seconds"] = seconds;
    state.counters["peer_s"] = peer_seconds;
    state.counters["ratio"] = seconds / peer_seconds;
    state.counters["same_bytes_ratio"] = (seconds - more) / peer_seconds;
    if (peer.same_blocks) {
        state.counters["limit"] = most_ratio;
    }
}

// --- which of them are run -----------------------------------------------------------------------

void settle(benchmark::internal::Benchmark* benchmark) {
    benchmark->UseManualTime()->Iterations(1)->Unit(benchmark::kSecond);
}

void add(const Transfer& transfer, unsigned rate, std::size_t modules) {
    const std::string name =
        transfer.name + "/baud:" + std::to_string(rate) + "/modules:" + std::to_string(modules);
    settle(benchmark::RegisterBenchmark(
        name.c_str(),
        [run = Case{&transfer, rate, modules}](benchmark::State& state) { measure(state, run); }));
}

void add(const Peer& peer, unsigned rate) {
    const std::string name = peer.transfer + "/baud:" + std::to_string(rate) + "/" + peer.name;
    settle(benchmark::RegisterBenchmark(
        name.c_str(), [peer, rate](benchmark::State& state) { compare(state, peer, rate); }));
}

/// Everything: each transfer at each of its rates, and side by side at the lowest and the highest.
void add_all() {
    for (const Transfer& transfer : transfers()) {
        for (const unsigned rate : transfer.rates) {
            add(transfer, rate, 1);
            if (rate == transfer.rates.front() || rate == transfer.rates.back()) {
                add(transfer, rate, 8);
                add(transfer, rate, station_size);
            }
        }
    }
    for (const Peer& peer : installed_peers()) {
        for (const unsigned rate : peer.rates) {
            add(peer, rate);
        }
    }
}

/// What shows a loss soonest: each transfer at its highest rate, one station at the lowest, and
/// each peer at its highest rate.
void add_short() {
    for (const Transfer& transfer : transfers()) {
        add(transfer, transfer.rates.back(), 1);
    }
    const Transfer& upgrade = transfer_named("AG3352 upgrade");
    for (const std::size_t modules : {std::size_t{1}, std::size_t{8}, station_size}) {
        add(upgrade, slow_rate, modules);
    }
    for (const Peer& peer : installed_peers()) {
        add(peer, peer.rates.back());
    }
}

// --- the table -----------------------------------------------------------------------------------

/// A line for each run as it ends, and at the end how many kept what must hold.
class Table : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context& /*context*/) override {
        std::printf("%-18s %6s %7s %9s %9s %8s %8s %7s %6s %6s\n", "transfer", "baud", "modules",
                    "seconds", "bound", "over", "loss", "cpu s", "core", "MiB");
        return true;
    }

    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            report(run);
            std::fflush(stdout);
        }
    }

    [[nodiscard]] int missed() const { return missed_; }

  private:
    void report(const Run& run) {
        if (run.error_occurred) {
            std::printf("%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
            ++missed_;
            return;
        }
        const auto& counters = run.counters;
        const auto value = [&counters](const char* name) { return counters.at(name).value; };
        const char* judged = "loss";
        if (counters.contains("ratio")) {
            judged = "same_bytes_ratio";
            std::printf("%s at %.0f: %.3f s, %.3f s; ratio %.4f, for the same bytes %.4f",
                        run.report_label.c_str(), value("baud"), value("seconds"), value("peer_s"),
                        value("ratio"), value("same_bytes_ratio"));
        } else {
            std::array<char, 16> loss{"-"};
            if (counters.contains("loss")) {
                std::snprintf(loss.data(), loss.size(), "%+.2f %%", value("loss") * 100);
            }
            std::printf("%-18s %6.0f %7.0f %9.3f %9.3f %+6.2f %% %8s %7.3f %4.1f %% %6.1f",
                        run.report_label.c_str(), value("baud"), value("modules"), value("seconds"),
                        value("bound_s"), value("over_bound") * 100, loss.data(),
                        value("processor_s"), value("core_share") * 100, value("peak_MiB"));
            judged = value("modules") == 1 ? "over_bound" : "loss";
        }
        const bool kept = !counters.contains("limit") || value(judged) <= value("limit");
        std::printf("%s\n", kept ? "" : "  MISSED");
        missed_ += kept ? 0 : 1;
    }

    int missed_ = 0;
};

}  // namespace
}  // namespace orbix::bench

int main(int argc, char** argv) {
    const auto take_flag = [&argc, argv](std::string_view flag) {
        char** const end = argv + argc;
        char** const rest = std::remove(argv, end, flag);
        argc = static_cast<int>(rest - argv);
        return rest != end;
    };
    take_flag("--all") ? orbix::bench::add_all() : orbix::bench::add_short();
    std::optional<orbix::bench::AwakeProcessors> awake;
    if (!take_flag("--idle")) {
        awake.emplace();
    }
    const bool held = awake && awake->held();
    benchmark::AddCustomContext("processors", held ? "kept awake" : "may halt");
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 2;
    }
    std::printf("processors: %s\n",
                held    ? "kept awake"
                : awake ? "may halt, since /dev/cpu_dma_latency cannot be held (are you root?)"
                        : "may halt");
    orbix::bench::Table table;
    benchmark::RunSpecifiedBenchmarks(&table);
    std::printf("%d missed what must hold\n", table.missed());
    return table.missed() == 0 ? 0 : 1;
}
