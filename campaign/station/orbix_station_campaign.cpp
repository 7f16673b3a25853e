// orbix_station_campaign: rounds of the station with seeded random faults, and the checks that must
// hold whatever happens.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "campaign/share.h"
#include "campaign/station/round.h"
#include "command_line.h"
#include "temp_dir.h"

namespace {

using namespace orbix::campaign;

constexpr int usage_error = 2;

/// A round that takes this long hangs.
constexpr unsigned stuck_after_s = 180;

struct Options {
    std::uint64_t seed = 1;
    std::uint64_t runs = 10;
    std::uint64_t jobs = 2;
    std::string programs;  ///< their folder
    bool verbose = false;
    bool help = false;
};

/// What came of the rounds; shared by their processes.
struct Tally {
    std::atomic<std::uint64_t> good;
    std::atomic<std::uint64_t> bad;
    std::atomic<std::uint64_t> attempts;
    std::atomic<std::uint64_t> records;
    std::atomic<std::uint64_t> page_events;
    std::atomic<std::uint64_t> flashed_but_failed;
};

void print_help(std::FILE* out) {
    std::fprintf(out,
                 "orbix_station_campaign: rounds of orbix_station with seeded random faults\n"
                 "\n"
                 "Usage: orbix_station_campaign [options]\n"
                 "\n"
                 "  --seed N       the first seed (default 1)\n"
                 "  --runs N       how many rounds (default 10), one seed each\n"
                 "  --jobs N       rounds side by side (default 2)\n"
                 "  --programs DIR the folder of the programs (default: that of this one)\n"
                 "  --verbose      show each round; those with a violation are always shown\n"
                 "  --help         print this text\n"
                 "\n"
                 "The exit status is 0 when all checks held, 1 when one did not.\n");
}

void count(const RoundReport& report, Tally& tally) {
    tally.good += report.good;
    tally.bad += report.bad;
    tally.attempts += report.attempts;
    tally.records += report.records;
    tally.page_events += report.page_events;
    tally.flashed_but_failed += report.flashed_but_failed;
}

/// One round in a process and a folder of its own. Returns its exit status.
int run_one(std::uint64_t seed, const Options& options, Tally& tally) {
    const orbix::sim::TempDir folder;
    std::filesystem::current_path(folder.path());
    alarm(stuck_after_s);
    const RoundReport report = run_round(seed, {.station = options.programs + "/orbix_station",
                                                .flash = options.programs + "/orbix_flash"});
    count(report, tally);
    std::string text;
    if (options.verbose || !report.findings.empty()) {
        text = "seed " + std::to_string(seed) + ": " + describe(report.plan);
        text += "  " + std::to_string(report.good) + " good, " + std::to_string(report.bad) +
                " bad, " + std::to_string(report.records) + " records\n";
    }
    for (const std::string& finding : report.findings) {
        text += "VIOLATION seed " + std::to_string(seed) + ": " + finding + "\n";
    }
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
    std::filesystem::current_path("/");
    return report.findings.empty() ? 0 : 1;
}

pid_t start(std::uint64_t seed, const Options& options, Tally& tally) {
    std::fflush(stdout);
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int status = 1;
        try {
            status = run_one(seed, options, tally);
        } catch (const std::exception& error) {
            std::printf("VIOLATION seed %s: %s\n", std::to_string(seed).c_str(), error.what());
        }
        std::fflush(stdout);
        _exit(status);
    }
    if (process < 0) {
        std::perror("fork");
        std::exit(usage_error);
    }
    return process;
}

/// Returns how many rounds violated a check.
std::uint64_t run_all(const Options& options, Tally& tally) {
    std::map<pid_t, std::uint64_t> running;
    std::uint64_t violated = 0;
    for (std::uint64_t next = options.seed;
         next < options.seed + options.runs || !running.empty();) {
        if (next < options.seed + options.runs && running.size() < options.jobs) {
            running[start(next, options, tally)] = next;
            ++next;
            continue;
        }
        int status = 0;
        const pid_t process = wait(&status);
        const auto ended = running.find(process);
        if (ended == running.end()) {
            continue;
        }
        if (WIFSIGNALED(status)) {
            std::printf("VIOLATION seed %s: the round was ended by signal %d\n",
                        std::to_string(ended->second).c_str(), WTERMSIG(status));
        }
        violated += status != 0 ? 1 : 0;
        running.erase(ended);
    }
    return violated;
}

/// Reads the command line. Returns false when it is not understood.
bool read_command_line(int argc, char** argv, Options& options) {
    options.programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const std::vector<orbix::sim::Option> known{
        orbix::sim::number("seed", options.seed),
        orbix::sim::number<std::uint64_t>("runs", options.runs, 1),
        orbix::sim::number<std::uint64_t>("jobs", options.jobs, 1),
        orbix::sim::text("programs", options.programs),
        orbix::sim::flag("verbose", options.verbose),
        orbix::sim::flag("help", options.help),
    };
    const auto words = orbix::sim::read_options(argc, argv, known);
    options.programs = std::filesystem::absolute(options.programs);
    return words && words->empty();
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!read_command_line(argc, argv, options)) {
        print_help(stderr);
        return usage_error;
    }
    if (options.help) {
        print_help(stdout);
        return 0;
    }
    Tally& tally = *share<Tally>();
    const auto begun = std::chrono::steady_clock::now();
    const std::uint64_t violated = run_all(options, tally);
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begun;
    const auto show = [](const std::atomic<std::uint64_t>& number, const char* what) {
        std::printf("%8llu %s\n", static_cast<unsigned long long>(number), what);
    };
    show(tally.good, "good results");
    show(tally.bad, "bad results");
    show(tally.attempts, "attempts");
    show(tally.records, "records");
    show(tally.page_events, "events of the page");
    show(tally.flashed_but_failed, "flashed, but the answer to the last step was lost");
    std::printf("%llu rounds in %.0f s, seeds %llu to %llu: %llu with a violation\n",
                static_cast<unsigned long long>(options.runs), taken.count(),
                static_cast<unsigned long long>(options.seed),
                static_cast<unsigned long long>(options.seed + options.runs - 1),
                static_cast<unsigned long long>(violated));
    return violated == 0 ? 0 : 1;
}
