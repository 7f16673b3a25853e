// orbix_campaign: many runs of the tool with seeded random faults on the line, and the checks that
// must hold whatever happens.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "campaign.h"
#include "command_line.h"
#include "share.h"

namespace {

using namespace orbix::campaign;

/// The exit status where runs cannot be made, for a wrong command line or for want of a folder.
constexpr int not_run = 2;

/// That of a process without its working folder; the tool has no such status.
constexpr int no_workplace = 70;

/// A run that takes this long on the wall clock is stuck without asking the port for anything.
constexpr unsigned stuck_after_s = 120;

struct Options {
    std::string family = "*";
    std::string mode = "*";
    std::uint64_t seed = 1;
    std::uint64_t runs = 1000;
    unsigned jobs = 0;
    std::optional<std::vector<orbix::sim::Fault>> faults;
    bool trace = false;
    bool summary = false;
    bool list = false;
    bool help = false;
};

void print_help(std::FILE* out) {
    std::fprintf(
        out,
        "orbix_campaign: runs of the tool in virtual time with seeded random faults\n"
        "\n"
        "Usage: orbix_campaign [options]\n"
        "\n"
        "  --family NAME  only this family       --mode NAME  only this mode\n"
        "  --seed N       the first seed (default 1)\n"
        "  --runs N       how many (default 1000), one seed each\n"
        "  --faults LIST  these faults instead of the drawn ones (as orbix_sim takes them)\n"
        "  --jobs N       processes (default: one for each processor)\n"
        "  --trace        show each run: arguments, faults, lines, and bytes with times\n"
        "  --summary      show what came of the runs, mode by mode\n"
        "  --list         print the families and modes\n"
        "  --help         print this text\n"
        "\n"
        "The exit status is 0 when all checks held, 1 when one did not, 2 when runs were not "
        "made.\n");
}

void list_modes() {
    for (const Scenario& scenario : scenarios()) {
        std::printf("%-10s %s\n", scenario.family, scenario.mode);
    }
}

std::vector<const Scenario*> chosen(const Options& options) {
    std::vector<const Scenario*> result;
    for (const Scenario& scenario : scenarios()) {
        if ((options.family == "*" || options.family == scenario.family) &&
            (options.mode == "*" || options.mode == scenario.mode)) {
            result.push_back(&scenario);
        }
    }
    return result;
}

// --- one process's share -------------------------------------------------------------------------

/// What came of the runs of one mode.
struct Tally {
    std::atomic<std::uint64_t> runs;
    std::atomic<std::uint64_t> succeeded;
    std::atomic<std::uint64_t> waited;
    std::atomic<std::uint64_t> excepted;
    std::atomic<std::uint64_t> violated;
};

/// What the processes share.
struct Shared {
    static constexpr std::size_t most_modes = 64;
    Tally tallies[most_modes];
};

/// Where one process stands, so that its death can be laid at a run's door.
struct Post {
    std::atomic<std::uint64_t> run;
};

void say_replay(const Scenario& scenario, std::uint64_t seed) {
    std::printf("  replay: orbix_campaign --family %s --mode %s --seed %llu --runs 1 --trace\n",
                scenario.family, scenario.mode, static_cast<unsigned long long>(seed));
}

void show_run(const Record& record) {
    std::printf("%s %s seed %llu\n  arguments:", record.scenario->family, record.scenario->mode,
                static_cast<unsigned long long>(record.seed));
    for (const auto& argument : record.arguments) {
        std::printf(" %s", argument.c_str());
    }
    std::printf("\n  faults: %s\n%s", describe(record.faults).c_str(),
                readable_trace(record).c_str());
    std::printf("  %s after %.3f s%s\n", record.succeeded ? "SUCCESS" : "FAIL",
                static_cast<double>(record.duration_ms) / 1000,
                record.waited ? ", unplugged while it waited" : "");
    for (const Violation& found : record.excepted) {
        std::printf("  excepted (%s): %s\n", name_of(found.check), found.what.c_str());
    }
}

void show_violations(const Record& record) {
    for (const Violation& found : record.violations) {
        std::printf("VIOLATION %s %s seed %llu (%s): %s\n", record.scenario->family,
                    record.scenario->mode, static_cast<unsigned long long>(record.seed),
                    name_of(found.check), found.what.c_str());
    }
    std::printf("  faults: %s\n", describe(record.faults).c_str());
    say_replay(*record.scenario, record.seed);
}

void take_run(const std::vector<const Scenario*>& table, const Options& options, std::uint64_t run,
              Shared& shared) {
    const std::size_t index = run % table.size();
    const Record record = run_seed(*table[index], options.seed + run,
                                   {.traced = options.trace, .faults = options.faults});
    Tally& tally = shared.tallies[index];
    ++tally.runs;
    tally.succeeded += record.succeeded ? 1 : 0;
    tally.waited += record.waited ? 1 : 0;
    tally.excepted += record.excepted.empty() ? 0 : 1;
    tally.violated += record.violations.empty() ? 0 : 1;
    if (options.trace) {
        show_run(record);
    }
    if (!record.violations.empty()) {
        show_violations(record);
    }
    std::fflush(stdout);
}

/// The working folder, or nothing after a line on standard error.
std::unique_ptr<Workplace> make_workplace() {
    try {
        return std::make_unique<Workplace>();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "orbix_campaign: no working folder: %s\n", error.what());
        return nullptr;
    }
}

/// Every `jobs`th run from `first` on. Returns the exit status of the process.
int work(const std::vector<const Scenario*>& table, const Options& options, std::uint64_t first,
         Shared& shared, Post& post) {
    const std::unique_ptr<Workplace> workplace = make_workplace();
    if (workplace == nullptr) {
        return no_workplace;
    }
    for (std::uint64_t run = first; run < options.runs; run += options.jobs) {
        post.run = run;
        alarm(stuck_after_s);
        take_run(table, options, run, shared);
    }
    alarm(0);
    return 0;
}

/// Starts a process for the share from `first` on.
pid_t start(const std::vector<const Scenario*>& table, const Options& options, std::uint64_t first,
            Shared& shared, Post& post) {
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        const int status = work(table, options, first, shared, post);
        std::fflush(stdout);
        _exit(status);
    }
    if (process < 0) {
        std::perror("fork");
        std::exit(not_run);
    }
    return process;
}

/// Runs all shares. A process that dies is replaced by one that goes on behind the deadly run.
/// Returns false when a share could not be run.
bool run_all(const std::vector<const Scenario*>& table, const Options& options, Shared& shared) {
    bool all_run = true;
    std::map<pid_t, Post*> processes;
    for (unsigned job = 0; job < options.jobs; ++job) {
        Post* const post = share<Post>();
        processes[start(table, options, job, shared, *post)] = post;
    }
    while (!processes.empty()) {
        int status = 0;
        const pid_t process = wait(&status);
        const auto ended = processes.find(process);
        if (ended == processes.end()) {
            continue;
        }
        Post* const post = ended->second;
        processes.erase(ended);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
            continue;
        }
        if (WIFEXITED(status) && WEXITSTATUS(status) == no_workplace) {
            Workplace::clear_behind(process);
            all_run = false;
            continue;
        }
        const std::uint64_t run = post->run;
        const Scenario& scenario = *table[run % table.size()];
        ++shared.tallies[run % table.size()].violated;
        std::printf("VIOLATION %s %s seed %s (no crash, no hang): the process ended with %s %d\n",
                    scenario.family, scenario.mode, std::to_string(options.seed + run).c_str(),
                    WIFSIGNALED(status) ? "signal" : "status",
                    WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
        std::printf("%s", Workplace::clear_behind(process).c_str());
        say_replay(scenario, options.seed + run);
        if (run + options.jobs < options.runs) {
            processes[start(table, options, run + options.jobs, shared, *post)] = post;
        }
    }
    return all_run;
}

// --- the whole -----------------------------------------------------------------------------------

/// Returns how many runs violated a check.
std::uint64_t report(const std::vector<const Scenario*>& table, const Options& options,
                     const Shared& shared, double seconds) {
    std::uint64_t runs = 0;
    std::uint64_t violated = 0;
    std::uint64_t excepted = 0;
    if (options.summary) {
        std::printf("%-10s %-14s %8s %8s %8s %8s %8s\n", "family", "mode", "runs", "success",
                    "waited", "excepted", "violated");
    }
    for (std::size_t index = 0; index < table.size(); ++index) {
        const Tally& tally = shared.tallies[index];
        runs += tally.runs;
        violated += tally.violated;
        excepted += tally.excepted;
        if (options.summary) {
            std::printf("%-10s %-14s %8llu %8llu %8llu %8llu %8llu\n", table[index]->family,
                        table[index]->mode, static_cast<unsigned long long>(tally.runs),
                        static_cast<unsigned long long>(tally.succeeded),
                        static_cast<unsigned long long>(tally.waited),
                        static_cast<unsigned long long>(tally.excepted),
                        static_cast<unsigned long long>(tally.violated));
        }
    }
    std::printf(
        "%llu runs of %zu modes in %.1f s (%.0f a minute), seeds %llu to %llu: "
        "%llu violations, %llu with an exception\n",
        static_cast<unsigned long long>(runs), table.size(), seconds,
        static_cast<double>(runs) * 60 / seconds, static_cast<unsigned long long>(options.seed),
        static_cast<unsigned long long>(options.seed + options.runs - 1),
        static_cast<unsigned long long>(violated), static_cast<unsigned long long>(excepted));
    return violated;
}

/// Reads the command line. Returns false when it is not understood.
bool read_command_line(int argc, char** argv, Options& options) {
    const std::vector<orbix::sim::Option> known{
        orbix::sim::text("family", options.family),
        orbix::sim::text("mode", options.mode),
        orbix::sim::number("seed", options.seed),
        orbix::sim::number<std::uint64_t>("runs", options.runs, 1),
        orbix::sim::fault_list("faults", options.faults),
        orbix::sim::number("jobs", options.jobs),
        orbix::sim::flag("trace", options.trace),
        orbix::sim::flag("summary", options.summary),
        orbix::sim::flag("list", options.list),
        orbix::sim::flag("help", options.help),
    };
    const auto words = orbix::sim::read_options(argc, argv, known);
    return words && words->empty();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!read_command_line(argc, argv, options)) {
        print_help(stderr);
        return not_run;
    }
    if (options.help) {
        print_help(stdout);
        return 0;
    }
    if (options.list) {
        list_modes();
        return 0;
    }
    const auto table = chosen(options);
    if (table.empty() || table.size() > Shared::most_modes) {
        std::fprintf(stderr, "orbix_campaign: nothing to run; --list prints families and modes\n");
        return not_run;
    }
    if (options.jobs == 0) {
        options.jobs = options.trace ? 1 : std::max(1U, std::thread::hardware_concurrency());
    }
    Shared& shared = *share<Shared>();
    const auto begun = std::chrono::steady_clock::now();
    const bool all_run = run_all(table, options, shared);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    const std::uint64_t violated = report(table, options, shared, taken.count());
    return violated != 0 ? 1 : all_run ? 0 : not_run;
}
