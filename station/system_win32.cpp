#include <fcntl.h>
#include <io.h>
#include <shlwapi.h>
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "system.h"

namespace orbix::station::system {

namespace {

constexpr std::string_view device_prefix = "\\\\.\\";

/// What a DOS device name stands for, or empty.
std::string target_of(const std::string& device) {
    std::array<char, 1024> target{};
    const DWORD length =
        QueryDosDeviceA(device.c_str(), target.data(), static_cast<DWORD>(target.size()));
    return length == 0 ? std::string() : std::string(target.data());
}

/// All DOS device names: they come one behind the other, each with a zero at its end.
std::vector<std::string> device_names() {
    std::vector<char> list(65536);
    DWORD length = 0;
    while ((length = QueryDosDeviceA(nullptr, list.data(), static_cast<DWORD>(list.size()))) == 0 &&
           GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        list.resize(2 * list.size());
    }
    std::vector<std::string> names;
    for (const char* name = list.data(); length != 0 && *name != '\0';
         name += names.back().size() + 1) {
        names.emplace_back(name);
    }
    return names;
}

/// COM2 stands before COM10.
bool is_before(const std::string& one, const std::string& other) {
    return one.size() != other.size() ? one.size() < other.size() : one < other;
}

std::FILE* open_file(const std::string& path, int flags, const char* mode) {
    const int descriptor =
        _open(path.c_str(), _O_WRONLY | _O_CREAT | _O_BINARY | _O_NOINHERIT | flags,
              _S_IREAD | _S_IWRITE);
    return descriptor < 0 ? nullptr : _fdopen(descriptor, mode);
}

}  // namespace

std::optional<TerminalSize> terminal_size() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (!GetConsoleScreenBufferInfo(GetStdHandle(STD_OUTPUT_HANDLE), &info)) {
        return std::nullopt;
    }
    return TerminalSize{
        .columns = static_cast<std::size_t>(info.srWindow.Right - info.srWindow.Left + 1),
        .lines = static_cast<std::size_t>(info.srWindow.Bottom - info.srWindow.Top + 1)};
}

void prepare_terminal() {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(output, &mode)) {
        SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    SetConsoleOutputCP(CP_UTF8);
}

std::string device_of(const std::string& port) {
    std::string device = port.starts_with(device_prefix) ? port.substr(device_prefix.size()) : port;
    std::transform(device.begin(), device.end(), device.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return device;
}

bool is_port(const std::string& port) {
    return !target_of(device_of(port)).empty();
}

/// Opening it would tell more, but a port that is opened moves its lines.
bool is_usable_port(const std::string& port) {
    return is_port(port);
}

std::string identity_of(const std::string& port) {
    return target_of(device_of(port));
}

std::vector<std::string> matching_ports(const std::string& pattern) {
    std::vector<std::string> ports;
    for (const std::string& name : device_names()) {
        if (name.starts_with("COM") && PathMatchSpecA(name.c_str(), device_of(pattern).c_str())) {
            ports.push_back(name);
        }
    }
    std::sort(ports.begin(), ports.end(), is_before);
    return ports;
}

std::FILE* create_file(const std::string& path) {
    return open_file(path, _O_EXCL, "wb");
}

std::FILE* append_to_file(const std::string& path) {
    return open_file(path, _O_APPEND, "ab");
}

std::string own_folder() {
    std::array<char, 32768> path{};
    const DWORD length = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
    const std::string program(path.data(), length);
    return program.substr(0, program.find_last_of("\\/") + 1);
}

std::vector<std::string> search_folders() {
    const char* const path = std::getenv("PATH");
    std::stringstream list(path != nullptr ? path : "");
    std::vector<std::string> folders;
    for (std::string folder; std::getline(list, folder, ';');) {
        if (!folder.empty()) {
            folders.push_back(folder);
        }
    }
    return folders;
}

std::string program_name(const std::string& name) {
    return name + ".exe";
}

void bind_children() {
    // All that this process starts belongs to its job. The job ends with its last handle, which is
    // this process's: it is left to the system on purpose.
    const HANDLE job = CreateJobObjectA(nullptr, nullptr);
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job != nullptr && SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits,
                                                  sizeof limits) != 0) {
        AssignProcessToJobObject(job, GetCurrentProcess());
    }
}

void end_with_parent(int /*parent*/) noexcept {}

int process_id() {
    return static_cast<int>(GetCurrentProcessId());
}

void keep_from_children(int /*descriptor*/) {}

void keep_from_children(void* handle) {
    SetHandleInformation(handle, HANDLE_FLAG_INHERIT, 0);
}

ExitStatus exit_status(int native_status) {
    return {.by_signal = false, .number = native_status};
}

std::vector<int> end_signals() {
    return {SIGINT, SIGTERM, SIGBREAK};
}

/// The window was closed, or somebody pressed Ctrl-Break.
bool is_hangup(int signal_number) {
    return signal_number == SIGBREAK;
}

void ask_to_end(int process) {
    // There is no polite way that does not reach the whole console; the system gives the port back.
    end_group(process);
}

void end_group(int leader) {
    const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, static_cast<DWORD>(leader));
    if (process != nullptr) {
        TerminateProcess(process, 1);
        CloseHandle(process);
    }
}

}  // namespace orbix::station::system
