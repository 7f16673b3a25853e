#include "campaign/station/round.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "campaign/campaign.h"
#include "campaign/checks.h"
#include "campaign/knowledge.h"
#include "campaign/station/processes.h"
#include "tool_run.h"

namespace orbix::campaign {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using sim::Direction;
using sim::Fault;
using sim::FaultKind;
using Kind = Place::Kind;

constexpr double longest_healthy_run = 6;

/// What a station may take beyond its limits, on a machine that is busy.
constexpr double longest_silence_added = 4;

constexpr const char* records_file = "records.jsonl";
constexpr const char* log_folder = "logs";

/// Shell commands that stand in for orbix_flash, and never flash anything.
constexpr std::array<const char*, 7> impostors = {
    "head -c 20000 garbage; exit 0",
    "exit 0",
    "exit 255",
    "kill -SEGV $$",
    "printf '[000.001][SUCCESS] orbix_flash upgrade success'",
    "printf '[000.001][SUCCESS] orbix_flash upgrade success\\n[000.002][INFO] more\\n'",
    "printf '[SUCCESS] orbix_flash upgrade success\\n'",
};

// --- drawing -------------------------------------------------------------------------------------

/// Whether SUCCESS of this mode always means that the flash holds the image.
bool keeps_its_word(const Scenario& scenario) {
    return std::none_of(exceptions.begin(), exceptions.end(), [&](const Exception& exception) {
        return exception.check == Check::holds_image &&
               concerns(exception.family, scenario.family) &&
               concerns(exception.mode, scenario.mode);
    });
}

std::vector<const Scenario*> usable_scenarios() {
    std::vector<const Scenario*> usable;
    for (const Scenario& scenario : scenarios()) {
        if (keeps_its_word(scenario) &&
            std::string_view(scenario.mode).find("readback") == std::string_view::npos) {
            usable.push_back(&scenario);
        }
    }
    return usable;
}

double longest_gap(const std::string& output) {
    std::uint64_t before = 0;
    std::uint64_t longest = 0;
    for (const LogLine& line : split_lines(output)) {
        if (line.stamp_ms) {
            longest = std::max(longest, *line.stamp_ms - std::min(before, *line.stamp_ms));
            before = *line.stamp_ms;
        }
    }
    return static_cast<double>(longest) / 1000;
}

/// Draws what all modules of the round are, until an undisturbed run of it is short and ends well.
void draw_modules(Draw& draw, Plan& plan) {
    static const std::vector<const Scenario*> usable = usable_scenarios();
    for (;;) {
        plan.scenario = usable[draw.number(0, usable.size() - 1)];
        plan.rig_seed = draw.number(1, 1'000'000'000);
        Draw rig_draw(plan.rig_seed);
        const Rig rig = plan.scenario->make(rig_draw);
        sim::Conditions conditions;
        conditions.port.limit = sim::milliseconds(60'000);
        conditions.traced = false;
        conditions.packet = 64;
        const sim::ToolRun run(*rig.module, rig.arguments, conditions);
        plan.healthy_seconds = static_cast<double>(run.duration_ms) / 1000;
        if (plan.healthy_seconds <= longest_healthy_run &&
            run.result().find("[SUCCESS]") != std::string::npos) {
            plan.stall_seconds = longest_gap(run.output) + longest_silence_added;
            return;
        }
    }
}

/// Milder than in virtual time: a round waits for what they bring about.
constexpr FaultOdds fault_odds[] = {
    // Kind, weight, most; in how many per cent another amount is taken, and which.
    {FaultKind::drop, 1, 600, 50, 1},      {FaultKind::flip, 1, 600, 50, 1},
    {FaultKind::duplicate, 1, 600, 50, 1}, {FaultKind::noise, 1, 600, 50, 1},
    {FaultKind::delay, 1, 1500, 0, 0},     {FaultKind::silence, 1, 3000, 40, 0},
    {FaultKind::unplug, 2, 0, 0, 0},       {FaultKind::power_cycle, 1, 0, 0, 0},
};

Fault draw_fault(Draw& draw, const Rig& rig, double seconds) {
    Fault fault = draw.fault(fault_odds);
    if (draw.chance(75)) {
        fault.byte = draw.number(
            0, fault.direction == Direction::to_module ? rig.bytes_to_module : rig.bytes_to_host);
    } else {
        fault.time = sim::milliseconds(draw.number(0, static_cast<std::uint64_t>(seconds * 1000)));
    }
    return fault;
}

Place draw_place(Draw& draw, const Plan& plan, const Rig& rig) {
    Place place;
    place.kind = draw.pick({Kind::sound, Kind::sound, Kind::sound, Kind::disturbed, Kind::disturbed,
                            Kind::disturbed, Kind::disturbed, Kind::killed, Kind::killed,
                            Kind::absent, Kind::busy, Kind::impostor});
    if (place.kind == Kind::disturbed) {
        const std::uint64_t count = draw.pick({1U, 1U, 1U, 2U, 3U});
        for (std::uint64_t number = 0; number < count; ++number) {
            place.faults.push_back(draw_fault(draw, rig, plan.healthy_seconds));
        }
    }
    place.killed_after = std::chrono::milliseconds(
        draw.number(0, static_cast<std::uint64_t>(plan.healthy_seconds * 1000)));
    place.impostor = draw.number(0, impostors.size() - 1);
    return place;
}

std::string fixed(double number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", number);
    return text.data();
}

// --- a round that runs ---------------------------------------------------------------------------

/// A place with its module, or without one.
struct Post {
    const Place* place;
    std::vector<ServedModule> module;  ///< one, or none
    std::string port;    ///< a link, which goes with the module: a device's name is given to others
    std::string device;  ///< what it leads to
    int held_port = -1;
    bool killed = false;
};

/// Another process's lock on a port.
int hold_port(const std::string& port) {
    const int descriptor = open(port.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0 || flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        throw std::runtime_error("cannot hold " + port);
    }
    return descriptor;
}

std::vector<Post> set_up(const Plan& plan, std::uint64_t seed) {
    std::vector<Post> posts;
    for (const Place& place : plan.places) {
        Post post{.place = &place, .module = {}, .port = {}, .device = {}};
        if (place.kind == Kind::absent) {
            post.port = "/dev/ttyNone" + std::to_string(posts.size());
        } else {
            Draw draw(plan.rig_seed);
            sim::PtySettings settings;
            settings.faults = place.faults;
            settings.seed = seed + posts.size();
            settings.link =
                std::filesystem::current_path() / ("port" + std::to_string(posts.size()));
            post.module.emplace_back(plan.scenario->make(draw), settings);
            post.port = settings.link;
            std::error_code gone;
            post.device = std::filesystem::read_symlink(post.port, gone);
        }
        if (place.kind == Kind::busy) {
            post.held_port = hold_port(post.device);
        }
        posts.push_back(std::move(post));
    }
    return posts;
}

/// The program that the station starts: orbix_flash, but for the impostors' ports.
std::string put_flash_program(const std::vector<Post>& posts, const std::string& flash) {
    std::string path = std::filesystem::current_path() / "flash";
    std::ofstream script(path);
    script << "#!/bin/sh\ncase \" $* \" in\n";
    for (const Post& post : posts) {
        if (post.place->kind == Kind::impostor) {
            script << "*' -p " << post.device << " '*) " << impostors.at(post.place->impostor)
                   << "; exit;;\n";
        }
    }
    script << "esac\nexec '" << flash << "' \"$@\"\n";
    script.close();
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

std::vector<std::string> station_arguments(const Plan& plan, const std::vector<Post>& posts,
                                           const std::string& flash) {
    std::vector<std::string> words{"--json",          records_file,
                                   "--log-dir",       log_folder,
                                   "--http",          "127.0.0.1:0",
                                   "--retries",       std::to_string(plan.retries),
                                   "--stall",         fixed(plan.stall_seconds),
                                   "--timeout",       fixed(plan.time_limit_seconds),
                                   "--flash-program", flash};
    if (plan.jobs != 0) {
        words.insert(words.end(), {"--jobs", std::to_string(plan.jobs)});
    }
    for (const Post& post : posts) {
        words.push_back(post.port);
    }
    words.emplace_back("--");
    Draw draw(plan.rig_seed);
    const std::vector<std::string> arguments = plan.scenario->make(draw).arguments;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        if (arguments[index] == "-p") {
            ++index;  // the station names the port
        } else {
            words.push_back(arguments[index]);
        }
    }
    return words;
}

/// Kills a place's orbix_flash, once, when its time has come and it runs.
void kill_when_due(Post& post, const StationProcess& station, Clock::time_point begun) {
    if (post.place->kind != Kind::killed || post.killed ||
        Clock::now() - begun < post.place->killed_after) {
        return;
    }
    for (const pid_t child : children_of(station.process())) {
        if ((command_of(child) + " ").find(" -p " + post.device + " ") != std::string::npos) {
            post.killed = kill(child, SIGKILL) == 0;
        }
    }
}

/// What a place's kind promises of its result.
void check_place(const Plan& plan, Post& post, const Json& result, bool holds, Findings& findings) {
    const auto add = [&](const std::string& what) {
        findings.push_back(post.port + ": " + what + ": " + result.dump());
    };
    const bool success = result["result"] == "success";
    const auto expect_failure = [&](std::string_view cause) {
        if (result["cause"] != cause || result["attempts"] != plan.retries + 1) {
            add("expected " + std::string(cause) + " after all attempts");
        }
    };
    if (success && !holds) {
        add("a success, but the flash does not hold the image");
    }
    switch (post.place->kind) {
        case Kind::sound:
            if (!success && !plan.short_limit) {
                add("a sound module has failed");
            }
            break;
        case Kind::killed:
            if (post.killed && !success && plan.retries > 0 && !plan.short_limit) {
                add("not flashed by the attempt behind the kill");
            }
            break;
        case Kind::disturbed:
            break;
        case Kind::absent:
        case Kind::busy:
            expect_failure("port");
            break;
        case Kind::impostor:
            expect_failure("no_result");
            break;
    }
}

void check_no_process_is_left(const std::vector<Post>& posts, Findings& findings) {
    const std::string folder = std::filesystem::current_path();
    for (const pid_t process : processes_in(folder)) {
        const bool own =
            process == getpid() || std::any_of(posts.begin(), posts.end(), [&](const Post& post) {
                return !post.module.empty() && post.module.front().process() == process;
            });
        if (!own) {
            findings.push_back("still running: " + command_of(process));
        }
    }
}

}  // namespace

Plan draw_plan(std::uint64_t seed) {
    Draw draw(seed);
    Plan plan;
    draw_modules(draw, plan);
    plan.retries = draw.pick({0, 0, 0, 1, 1, 2});
    plan.jobs = draw.pick({0U, 0U, 0U, 2U, 3U});
    plan.short_limit = draw.chance(10);
    plan.time_limit_seconds =
        plan.short_limit ? plan.healthy_seconds * 0.6 + 0.5 : plan.healthy_seconds * 3 + 15;
    Draw rig_draw(plan.rig_seed);
    const Rig rig = plan.scenario->make(rig_draw);
    for (std::uint64_t count = draw.number(3, 6); count > 0; --count) {
        plan.places.push_back(draw_place(draw, plan, rig));
    }
    return plan;
}

std::string describe(const Plan& plan) {
    static constexpr std::array<const char*, 6> kinds = {"sound",  "disturbed", "killed",
                                                         "absent", "busy",      "impostor"};
    std::string text = std::string(plan.scenario->family) + " " + plan.scenario->mode +
                       ", undisturbed " + fixed(plan.healthy_seconds) + " s, --stall " +
                       fixed(plan.stall_seconds) + " --timeout " + fixed(plan.time_limit_seconds) +
                       " --retries " + std::to_string(plan.retries) + " --jobs " +
                       std::to_string(plan.jobs) + "\n";
    for (const Place& place : plan.places) {
        text += std::string("  ") + kinds.at(static_cast<std::size_t>(place.kind));
        if (place.kind == Kind::disturbed) {
            text += ": " + describe(place.faults);
        } else if (place.kind == Kind::killed) {
            text += " after " + std::to_string(place.killed_after.count()) + " ms";
        } else if (place.kind == Kind::impostor) {
            text += std::string(": ") + impostors.at(place.impostor);
        }
        text += "\n";
    }
    return text;
}

RoundReport run_round(std::uint64_t seed, const Programs& programs) {
    RoundReport report;
    report.plan = draw_plan(seed);
    const Plan& plan = report.plan;
    Findings& findings = report.findings;
    put_file("garbage", Draw(seed).bytes(20'000));
    std::filesystem::create_directory(log_folder);
    std::vector<Post> posts = set_up(plan, seed);
    std::vector<std::string> ports(posts.size());
    std::transform(posts.begin(), posts.end(), ports.begin(),
                   [](const Post& post) { return post.port; });

    StationProcess station(
        programs.station, station_arguments(plan, posts, put_flash_program(posts, programs.flash)));
    const Clock::time_point begun = Clock::now();
    PageWatcher page;
    std::thread watcher([&] { page.follow(station.page_port()); });
    while (!station.poll()) {
        for (Post& post : posts) {
            kill_when_due(post, station, begun);
        }
        std::this_thread::sleep_for(5ms);
    }
    watcher.join();
    const ProcessEnd end = station.wait();

    if (end.status < 0 || end.status == 1) {
        findings.push_back("the station broke down, signal " + std::to_string(end.signal) + ": " +
                           StationProcess::last_words());
    }
    check_no_process_is_left(posts, findings);
    const std::vector<Json> records = read_records(records_file, findings);
    report.records = records.size();
    report.page_events = page.events();
    check_order(records, ports, end.status, findings);
    check_against_logs(records, findings);
    page.check(records, ports, findings);
    for (Post& post : posts) {
        const bool holds = !post.module.empty() && post.module.front().stop();
        const Json* const result = result_of(records, post.port);
        if (result == nullptr) {
            continue;  // found already
        }
        check_place(plan, post, *result, holds, findings);
        const bool success = (*result)["result"] == "success";
        ++(success ? report.good : report.bad);
        report.attempts += (*result)["attempts"].get<std::size_t>();
        report.flashed_but_failed += !success && holds ? 1 : 0;
        if (post.held_port >= 0) {
            close(post.held_port);
        }
    }
    return report;
}

}  // namespace orbix::campaign
