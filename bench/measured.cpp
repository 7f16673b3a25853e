#include "measured.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <fstream>
#include <map>
#include <system_error>

#include "temp_dir.h"

namespace orbix::bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::minutes patience{5};

/// From one start to the next: starting a program costs more processor time than its whole run.
constexpr timespec between_starts{0, 10'000'000};

/// A child's peak of memory begins with that of the process that it was forked from. GNU time is a
/// small one, and tells the peak of the program alone.
constexpr const char* small_parent = "/usr/bin/time";

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// SIGCHLD waits until it is asked for.
class ChildSignal {
  public:
    ChildSignal() {
        sigemptyset(&set_);
        sigaddset(&set_, SIGCHLD);
        sigprocmask(SIG_BLOCK, &set_, &before_);
    }
    ~ChildSignal() { restore(); }
    ChildSignal(const ChildSignal&) = delete;
    ChildSignal& operator=(const ChildSignal&) = delete;

    void restore() const { sigprocmask(SIG_SETMASK, &before_, nullptr); }

    /// Returns false, and at once, when the deadline is over.
    [[nodiscard]] bool wait_until(Clock::time_point deadline) const {
        using std::chrono::nanoseconds;
        const nanoseconds left = std::max(deadline - Clock::now(), Clock::duration::zero());
        const timespec limit{static_cast<time_t>(left.count() / 1'000'000'000),
                             static_cast<long>(left.count() % 1'000'000'000)};
        return sigtimedwait(&set_, nullptr, &limit) >= 0 || errno == EINTR;
    }

  private:
    sigset_t set_{};
    sigset_t before_{};
};

/// One program under way.
struct Running {
    std::size_t number;
    Clock::time_point begun;
};

std::string file_of(const std::string& folder, const char* kind, std::size_t number) {
    return folder + "/" + kind + std::to_string(number);
}

/// Starts a command in a process group of its own.
pid_t start(const Command& command, const std::string& output, const std::string& peak, int line,
            const ChildSignal& signal) {
    Command words{small_parent, "-q", "-f", "%M", "-o", peak};
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "no process");
    }
    if (child == 0) {
        setpgid(0, 0);
        signal.restore();
        const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (line >= 0) {
            dup2(line, STDIN_FILENO);
        }
        dup2(line >= 0 ? line : file, STDOUT_FILENO);
        dup2(file, STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    setpgid(child, child);
    return child;
}

/// Whether a program has ended; then what it took stands in the results.
bool has_ended(pid_t child, const Running& program, std::vector<Measured>& results) {
    int status = 0;
    rusage usage{};
    const pid_t ended = wait4(child, &status, WNOHANG, &usage);
    if (ended == 0) {
        return false;
    }
    Measured& result = results[program.number];
    result.seconds = seconds_since(program.begun);
    result.status = ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.processor_seconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    return true;
}

}  // namespace

std::vector<Measured> run_side_by_side(const std::vector<Command>& commands,
                                       const std::string& folder, int line) {
    const ChildSignal signal;
    std::vector<Measured> results(commands.size());
    std::map<pid_t, Running> running;
    for (std::size_t number = 0; number < commands.size(); ++number) {
        const auto begun = Clock::now();
        const pid_t child = start(commands[number], file_of(folder, "output", number),
                                  file_of(folder, "peak", number), line, signal);
        running[child] = {number, begun};
        if (number + 1 < commands.size()) {
            nanosleep(&between_starts, nullptr);
        }
    }
    const auto deadline = Clock::now() + patience;
    while (true) {
        std::erase_if(running, [&results](const auto& entry) {
            return has_ended(entry.first, entry.second, results);
        });
        if (running.empty()) {
            break;
        }
        if (!signal.wait_until(deadline)) {
            for (const auto& [child, program] : running) {
                kill(-child, SIGKILL);
            }
        }
    }
    for (std::size_t number = 0; number < commands.size(); ++number) {
        const auto output = sim::read_file(file_of(folder, "output", number));
        results[number].output.assign(output.begin(), output.end());
        std::ifstream(file_of(folder, "peak", number)) >> results[number].peak_kib;
    }
    return results;
}

}  // namespace orbix::bench
