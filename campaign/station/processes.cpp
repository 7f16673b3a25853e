#include "campaign/station/processes.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <system_error>
#include <thread>
#include <utility>

namespace orbix::campaign {

namespace {

using namespace std::chrono_literals;

constexpr const char* holds = "holds the image";

bool holds_image(const Rig& rig) {
    return std::all_of(rig.held.begin(), rig.held.end(), [](const Held& held) {
        return held.flash->holds(held.address, held.content);
    });
}

/// As fork; but a number below 0, which kill would take for all processes, is never returned.
pid_t start_child() {
    const pid_t child = fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "no process");
    }
    return child;
}

/// In a forked child: it ends with its parent, and hears the signals that its parent holds back.
void settle_child(int death_signal) {
    prctl(PR_SET_PDEATHSIG, death_signal);
    sigset_t none{};
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// In a forked child: one of its outputs goes to a file.
void redirect(int descriptor, const char* path) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (file < 0 || dup2(file, descriptor) < 0) {
        _exit(126);
    }
    close(file);
}

/// The processor time of a process that has ended and was not yet waited for. What `wait4` tells
/// would hold that of its children too.
double processor_seconds(pid_t process) {
    const std::string text = sim::read_text("/proc/" + std::to_string(process) + "/stat");
    std::istringstream fields(text.substr(std::min(text.rfind(')') + 1, text.size())));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

}  // namespace

// --- modules -------------------------------------------------------------------------------------

ServedModule::ServedModule(Rig rig, const sim::PtySettings& settings) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    process_ = start_child();
    if (process_ == 0) {
        settle_child(SIGTERM);
        dup2(ends[1], STDOUT_FILENO);
        const int status = sim::serve_on_pty({&rig.module, 1}, settings);
        std::printf("%s\n", holds_image(rig) ? holds : "differs");
        std::fflush(stdout);
        _exit(status);
    }
    close(ends[1]);
    output_ = ends[0];
    port_ = read_line();
}

ServedModule::ServedModule(ServedModule&& other) noexcept
    : process_(std::exchange(other.process_, -1)),
      output_(std::exchange(other.output_, -1)),
      port_(std::move(other.port_)) {}

ServedModule::~ServedModule() {
    if (process_ > 0) {
        stop();
    }
}

std::string ServedModule::read_line() const {
    std::string line;
    char letter = 0;
    while (read(output_, &letter, 1) == 1 && letter != '\n') {
        line += letter;
    }
    return line;
}

bool ServedModule::stop() {
    kill(process_, SIGTERM);
    const bool held = read_line() == holds;
    waitpid(std::exchange(process_, -1), nullptr, 0);
    close(std::exchange(output_, -1));
    return held;
}

// --- the station ---------------------------------------------------------------------------------

StationProcess::StationProcess(const std::string& program,
                               const std::vector<std::string>& arguments) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv(words.size() + 1, nullptr);
    std::transform(words.begin(), words.end(), argv.begin(),
                   [](std::string& word) { return word.data(); });
    process_ = start_child();
    if (process_ == 0) {
        settle_child(SIGKILL);
        redirect(STDIN_FILENO, "/dev/null");
        redirect(STDOUT_FILENO, output_file);
        redirect(STDERR_FILENO, error_file);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

StationProcess::~StationProcess() {
    if (!end_) {
        send_signal(SIGKILL);
        wait();
    }
}

int StationProcess::page_port() const {
    static constexpr std::string_view start = "the page is at http://127.0.0.1:";
    for (int tries = 0; tries < 1000; ++tries) {
        const std::string text = sim::read_text(error_file);
        const std::size_t at = text.find(start);
        if (at != std::string::npos && text.find('\n', at) != std::string::npos) {
            return std::atoi(text.c_str() + at + start.size());
        }
        std::this_thread::sleep_for(10ms);
    }
    return 0;
}

std::optional<ProcessEnd> StationProcess::poll() {
    if (!end_) {
        siginfo_t ended{};
        const auto id = static_cast<id_t>(process_);
        if (waitid(P_PID, id, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0) {
            const double used = processor_seconds(process_);
            int status = 0;
            waitpid(process_, &status, 0);
            end_ = {.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1,
                    .signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0,
                    .processor_seconds = used};
        }
    }
    return end_;
}

ProcessEnd StationProcess::wait() {
    while (!poll()) {
        std::this_thread::sleep_for(5ms);
    }
    return *end_;
}

void StationProcess::send_signal(int number) const {
    kill(process_, number);
}

std::string StationProcess::last_words() {
    constexpr std::size_t longest = 6000;
    const std::string text = sim::read_text(error_file);
    return text.size() > longest ? text.substr(text.size() - longest) : text;
}

// --- looking at processes ------------------------------------------------------------------------

std::vector<pid_t> children_of(pid_t process) {
    const std::string id = std::to_string(process);
    std::vector<pid_t> children;
    std::error_code gone;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/" + id + "/task", gone)) {
        std::istringstream list(sim::read_text(thread.path() / "children"));
        children.insert(children.end(), std::istream_iterator<pid_t>(list), {});
    }
    return children;
}

std::string command_of(pid_t process) {
    std::string words = sim::read_text("/proc/" + std::to_string(process) + "/cmdline");
    std::replace(words.begin(), words.end(), '\0', ' ');
    return words;
}

std::vector<pid_t> processes_in(const std::string& folder) {
    std::vector<pid_t> found;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", gone)) {
        const pid_t process = std::atoi(entry.path().filename().c_str());
        if (process > 0 && std::filesystem::read_symlink(entry.path() / "cwd", gone) == folder) {
            found.push_back(process);
        }
    }
    return found;
}

}  // namespace orbix::campaign
