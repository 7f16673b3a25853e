#include <fcntl.h>
#include <glob.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "system.h"

namespace orbix::station::system {

std::optional<TerminalSize> terminal_size() {
    winsize size{};
    if (isatty(STDOUT_FILENO) == 0) {
        return std::nullopt;
    }
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0) {
        return TerminalSize{};
    }
    return TerminalSize{.columns = size.ws_col, .lines = size.ws_row};
}

void prepare_terminal() {}

std::string device_of(const std::string& port) {
    // As orbix_flash looks for it: "ttyUSB0" and "USB0" stand for /dev/ttyUSB0.
    std::string path = port;
    if (port.find('/') == std::string::npos && access(port.c_str(), F_OK) != 0) {
        path = port.starts_with("USB") ? "/dev/tty" + port : "/dev/" + port;
    }
    std::error_code failure;
    const auto device = std::filesystem::canonical(path, failure);
    return failure ? std::filesystem::path(path).lexically_normal().string() : device.string();
}

bool is_port(const std::string& port) {
    return access(device_of(port).c_str(), F_OK) == 0;
}

bool is_usable_port(const std::string& port) {
    std::error_code failure;
    return std::filesystem::is_character_file(device_of(port), failure) &&
           access(device_of(port).c_str(), R_OK | W_OK) == 0;
}

std::string identity_of(const std::string& port) {
    struct stat link {};
    struct stat device {};
    if (lstat(port.c_str(), &link) != 0 || stat(port.c_str(), &device) != 0) {
        return {};
    }
    return std::to_string(link.st_ino) + " " + std::to_string(device.st_ino) + " " +
           std::to_string(device.st_rdev);
}

std::vector<std::string> matching_ports(const std::string& pattern) {
    glob_t found{};
    std::vector<std::string> ports;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0) {
        ports.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    }
    globfree(&found);
    return ports;
}

std::FILE* create_file(const std::string& path) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    return descriptor < 0 ? nullptr : fdopen(descriptor, "w");
}

std::FILE* append_to_file(const std::string& path) {
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    std::FILE* const file = descriptor < 0 ? nullptr : fdopen(descriptor, "a");
    if (file == nullptr && descriptor >= 0) {
        const int reason = errno;
        close(descriptor);
        errno = reason;
    }
    return file;
}

std::string own_folder() {
    std::error_code failure;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", failure);
    return failure ? std::string() : program.parent_path().string() + "/";
}

std::vector<std::string> search_folders() {
    const char* const path = std::getenv("PATH");
    std::stringstream list(path != nullptr ? path : "");
    std::vector<std::string> folders;
    for (std::string folder; std::getline(list, folder, ':');) {
        folders.push_back(folder.empty() ? "." : folder);
    }
    return folders;
}

std::string program_name(const std::string& name) {
    return name;
}

void bind_children() {
    // The children see to it themselves, in end_with_parent.
    std::signal(SIGPIPE, SIG_IGN);
}

void end_with_parent(int parent) noexcept {
    prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL), 0UL, 0UL, 0UL);
    // The parent may have ended before; then nobody would tell.
    if (getppid() != parent) {
        _exit(127);
    }
    sigset_t none{};
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        std::signal(number, SIG_DFL);
    }
}

int process_id() {
    return getpid();
}

void keep_from_children(int descriptor) {
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

void keep_from_children(void* /*handle*/) {}

ExitStatus exit_status(int native_status) {
    if (WIFSIGNALED(native_status)) {
        return {.by_signal = true, .number = WTERMSIG(native_status)};
    }
    return {.by_signal = false, .number = WEXITSTATUS(native_status)};
}

std::vector<int> end_signals() {
    return {SIGINT, SIGTERM, SIGHUP};
}

bool is_hangup(int signal_number) {
    return signal_number == SIGHUP;
}

void ask_to_end(int process) {
    kill(process, SIGTERM);
}

void end_group(int leader) {
    kill(-leader, SIGKILL);
}

}  // namespace orbix::station::system
