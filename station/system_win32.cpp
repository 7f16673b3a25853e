#include <io.h>
#include <windows.h>

#include <cctype>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "system.h"

namespace orbix::station::system {

namespace {

/// "\\.\COM6", "com6" and "COM6" are one port.
std::string plain_name(const std::string& port) {
    std::string name = port.starts_with("\\\\.\\") ? port.substr(4) : port;
    for (char& letter : name) {
        letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    }
    return name;
}

/// '*' stands for any letters, '?' for one.
bool matches(const char* name, const char* pattern) {
    if (*pattern == '*') {
        return matches(name, pattern + 1) || (*name != '\0' && matches(name + 1, pattern));
    }
    if (*pattern == '\0' || *name == '\0') {
        return *pattern == *name;
    }
    return (*pattern == '?' || *pattern == *name) && matches(name + 1, pattern + 1);
}

std::FILE* open_text(const std::string& path, const char* mode) {
    // 'N': children do not inherit it.
    return std::fopen(path.c_str(), (std::string(mode) + "N").c_str());
}

}  // namespace

std::optional<TerminalSize> terminal_size() {
    CONSOLE_SCREEN_BUFFER_INFO info{};
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    if (GetConsoleScreenBufferInfo(output, &info) == 0) {
        return std::nullopt;
    }
    return TerminalSize{
        .columns = static_cast<std::size_t>(info.srWindow.Right - info.srWindow.Left + 1),
        .lines = static_cast<std::size_t>(info.srWindow.Bottom - info.srWindow.Top + 1)};
}

void prepare_terminal() {
    const HANDLE output = GetStdHandle(STD_OUTPUT_HANDLE);
    DWORD mode = 0;
    if (GetConsoleMode(output, &mode) != 0) {
        SetConsoleMode(output, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
    SetConsoleOutputCP(CP_UTF8);
}

std::string device_of(const std::string& port) {
    return plain_name(port);
}

bool is_port(const std::string& port) {
    char target[256];
    return QueryDosDeviceA(plain_name(port).c_str(), target, sizeof target) != 0;
}

bool is_usable_port(const std::string& port) {
    return is_port(port);
}

std::string identity_of(const std::string& port) {
    char target[256];
    return QueryDosDeviceA(plain_name(port).c_str(), target, sizeof target) != 0 ? target : "";
}

std::vector<std::string> matching_ports(const std::string& pattern) {
    const std::string wanted = plain_name(pattern);
    std::vector<std::string> ports;
    for (int number = 1; number <= 256; ++number) {
        const std::string name = "COM" + std::to_string(number);
        if (matches(name.c_str(), wanted.c_str()) && is_port(name)) {
            ports.push_back(name);
        }
    }
    return ports;
}

std::FILE* create_file(const std::string& path) {
    return open_text(path, "wbx");
}

std::FILE* append_to_file(const std::string& path) {
    return open_text(path, "ab");
}

std::string own_folder() {
    char path[MAX_PATH];
    const DWORD length = GetModuleFileNameA(nullptr, path, sizeof path);
    const std::string program(path, length < sizeof path ? length : 0);
    const std::size_t end = program.find_last_of("\\/");
    return end == std::string::npos ? std::string() : program.substr(0, end + 1);
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
    // The job ends with its last handle, which only this process has; children are born into it.
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

bool is_hangup(int signal_number) {
    return signal_number == SIGBREAK;
}

void ask_to_end(int process) {
    // A console program without a window has no polite way to be asked.
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
