#include "cli/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <span>

namespace orbix::test {

namespace {

constexpr int patience_ms = 60'000;

std::array<int, 2> make_pipe() {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    return ends;
}

/// Reads what is there; returns false at the end of the stream.
bool take(int descriptor, std::string& text) {
    std::array<char, 65536> buffer{};
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

}  // namespace

Background::Background(const std::string& program, const std::vector<std::string>& arguments,
                       const std::string& folder) {
    const bool is_path = program.find('/') != std::string::npos;
    const std::string path = is_path ? program : std::string(ORBIX_BIN_DIR) + "/" + program;
    std::vector<std::string> words{path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    const auto out = make_pipe();
    const auto err = make_pipe();
    pid_ = fork();
    if (pid_ < 0) {
        std::abort();
    }
    if (pid_ == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        if (!folder.empty() && chdir(folder.c_str()) != 0) {
            _exit(126);
        }
        execv(path.c_str(), argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    output_ = out[0];
    errors_ = err[0];
}

Background::~Background() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(output_);
    close(errors_);
}

std::string Background::read_line() {
    while (pending_.find('\n') == std::string::npos) {
        pollfd entry{.fd = output_, .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, patience_ms) <= 0 || !take(output_, pending_)) {
            break;
        }
    }
    const std::size_t end = pending_.find('\n');
    std::string line = pending_.substr(0, end);
    pending_.erase(0, end == std::string::npos ? end : end + 1);
    return line;
}

void Background::send_signal(int number) const {
    if (pid_ > 0) {  // kill takes anything else for many processes
        kill(pid_, number);
    }
}

Finished Background::finish() {
    Finished finished;
    if (pid_ <= 0) {
        return finished;  // it was waited for already
    }
    finished.output = pending_;
    bool output_open = true;
    bool errors_open = true;
    while (output_open || errors_open) {
        std::array<pollfd, 2> entries{pollfd{output_open ? output_ : -1, POLLIN, 0},
                                      pollfd{errors_open ? errors_ : -1, POLLIN, 0}};
        if (poll(entries.data(), entries.size(), patience_ms) <= 0) {
            kill(pid_, SIGKILL);
            break;
        }
        if (entries[0].revents != 0) {
            output_open = take(output_, finished.output);
        }
        if (entries[1].revents != 0) {
            errors_open = take(errors_, finished.errors);
        }
    }
    int status = 0;
    rusage usage{};
    wait4(pid_, &status, 0, &usage);
    pid_ = -1;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    finished.processor_seconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    finished.peak_kib = usage.ru_maxrss;
    finished.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    finished.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return finished;
}

Finished run_program(const std::string& program, const std::vector<std::string>& arguments,
                     const std::string& folder) {
    return Background(program, arguments, folder).finish();
}

namespace {

std::vector<std::string> with_model(const std::string& model, std::vector<std::string> options) {
    options.insert(options.begin(), model);
    return options;
}

}  // namespace

SimulatedModule::SimulatedModule(const std::string& model, std::vector<std::string> options)
    : process_("orbix_sim", with_model(model, std::move(options))), port_(process_.read_line()) {}

Finished SimulatedModule::stop() {
    process_.send_signal(SIGTERM);
    return process_.finish();
}

bool dump_holds(const std::string& dump, std::size_t offset, const sim::Bytes& image) {
    const sim::Bytes flash = sim::read_file(dump);
    return flash.size() >= offset + image.size() &&
           std::ranges::equal(std::span(flash).subspan(offset, image.size()), image);
}

}  // namespace orbix::test
