#include "campaign.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "checks.h"

namespace orbix::campaign {

namespace {

using sim::Direction;
using sim::Fault;
using sim::FaultKind;

/// How long a run may go on once its device has vanished.
constexpr std::uint64_t farewell_ms = 60'000;

constexpr FaultOdds fault_odds[] = {
    // Kind, weight, most; in how many per cent another amount is taken, and which.
    {FaultKind::drop, 2, 2000, 60, 1},      {FaultKind::flip, 2, 2000, 60, 1},
    {FaultKind::duplicate, 1, 2000, 60, 1}, {FaultKind::noise, 1, 600, 0, 0},
    {FaultKind::delay, 1, 15'000, 0, 0},    {FaultKind::silence, 1, 30'000, 10, 0},
    {FaultKind::unplug, 1, 0, 0, 0},        {FaultKind::power_cycle, 1, 0, 0, 0},
};

Fault draw_fault(Draw& draw, const Rig& rig) {
    Fault fault = draw.fault(fault_odds);
    if (draw.chance(75)) {
        const std::uint64_t length =
            fault.direction == Direction::to_module ? rig.bytes_to_module : rig.bytes_to_host;
        fault.byte = draw.chance(50) ? draw.magnitude(0, length) : draw.number(0, length);
    } else {
        fault.time = sim::milliseconds(draw.magnitude(1, 40'000));
    }
    return fault;
}

std::vector<Fault> draw_faults(Draw& draw, const Rig& rig) {
    std::vector<Fault> faults;
    const unsigned count = draw.pick({0U, 1U, 1U, 1U, 1U, 1U, 2U, 2U, 3U, 5U});
    for (unsigned number = 0; number < count; ++number) {
        faults.push_back(draw_fault(draw, rig));
    }
    return faults;
}

}  // namespace

Record run_seed(const Scenario& scenario, std::uint64_t seed, const Wishes& wishes) {
    Draw draw(seed);
    const Rig rig = scenario.make(draw);
    for (const Held& held : rig.held) {
        held.flash->fill(0x00);  // the old firmware: nothing is right there without an erase
    }

    Record record;
    record.scenario = &scenario;
    record.seed = seed;
    record.arguments = rig.arguments;
    record.faults = draw_faults(draw, rig);
    if (wishes.faults) {
        record.faults = *wishes.faults;
    }

    sim::Conditions conditions;
    conditions.faults = record.faults;
    conditions.faults.push_back(
        {.kind = FaultKind::unplug, .byte = std::nullopt, .time = sim::milliseconds(patience_ms)});
    conditions.seed = seed;
    conditions.packet = draw.pick<std::size_t>({1, 1, 1, 16, 62});  // a UART, or a USB adapter
    conditions.port.limit = sim::milliseconds(patience_ms + farewell_ms);
    conditions.traced = wishes.traced;
    const sim::ToolRun run(*rig.module, rig.arguments, conditions);

    record.output = run.output;
    record.trace = run.trace;
    record.strikes = run.strikes;
    record.duration_ms = run.duration_ms;
    record.waited = run.duration_ms >= patience_ms;
    judge(record, rig, run);
    return record;
}

std::string put_file(const std::string& name, std::span<const std::uint8_t> content) {
    std::FILE* file = std::fopen(name.c_str(), "wb");
    if (file == nullptr) {
        throw std::runtime_error("cannot write " + name);
    }
    const bool complete = std::fwrite(content.data(), 1, content.size(), file) == content.size();
    if (std::fclose(file) != 0 || !complete) {
        throw std::runtime_error("cannot write " + name);
    }
    return name;
}

void begin_arguments(Rig& rig, Draw& draw, const std::string& model, unsigned baud) {
    rig.option("-m", model);
    rig.option("-p", "COM6");
    rig.option("-b", std::to_string(baud));
    if (draw.chance(10)) {
        rig.option("-R", draw.pick({"0", "1"}));
    }
    if (draw.chance(10)) {
        rig.option("-T", draw.pick({"0", "1"}));
    }
    if (draw.chance(4)) {
        rig.arguments.emplace_back("-D");
    }
}

const char* name_of(FaultKind kind) {
    static constexpr const char* names[] = {"drop",  "flip",    "duplicate", "noise",
                                            "delay", "silence", "unplug",    "power-cycle"};
    return names[static_cast<std::size_t>(kind)];
}

std::string describe(const std::vector<Fault>& faults) {
    std::string text;
    for (const Fault& fault : faults) {
        text += text.empty() ? "" : ",";
        text += name_of(fault.kind);
        if (fault.kind != FaultKind::unplug && fault.kind != FaultKind::power_cycle) {
            text += "=" + std::to_string(fault.amount);
        }
        text += "@" + (fault.byte ? std::to_string(*fault.byte)
                                  : std::to_string(fault.time / 1000) + "ms");
        text += fault.direction == Direction::to_host ? ":to-host" : "";
    }
    return text.empty() ? "none" : text;
}

// --- the working folder --------------------------------------------------------------------------

namespace {

constexpr const char* diagnostics = "diagnostics";

std::filesystem::path folder_of(int process) {
    const std::filesystem::path memory = "/dev/shm";
    return (std::filesystem::is_directory(memory) ? memory
                                                  : std::filesystem::temp_directory_path()) /
           ("orbix-campaign-" + std::to_string(process));
}

}  // namespace

Workplace::Workplace() : before_(std::filesystem::current_path()) {
    const auto folder = folder_of(getpid());
    std::filesystem::create_directory(folder);
    std::filesystem::current_path(folder);
    std::fflush(stderr);
    standard_error_ = dup(STDERR_FILENO);
    const int file = open(diagnostics, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (standard_error_ < 0 || file < 0 || dup2(file, STDERR_FILENO) < 0) {
        throw std::runtime_error("cannot turn standard error aside");
    }
    close(file);
}

Workplace::~Workplace() {
    std::fflush(stderr);
    dup2(standard_error_, STDERR_FILENO);
    close(standard_error_);
    std::error_code ignored;
    std::filesystem::current_path(before_, ignored);
    std::filesystem::remove_all(folder_of(getpid()), ignored);
}

std::string Workplace::clear_behind(int process) {
    const auto folder = folder_of(process);
    const std::string text = sim::read_text(folder / diagnostics);
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    constexpr std::size_t longest = 6000;
    return text.size() > longest ? text.substr(text.size() - longest) : text;
}

}  // namespace orbix::campaign
