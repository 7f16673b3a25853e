// What the station needs of the operating system. Two whole files implement it:
// system_posix.cpp and system_win32.cpp.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orbix::station::system {

// --- the terminal --------------------------------------------------------------------------------

struct TerminalSize {
    std::size_t columns = 80;
    std::size_t lines = 24;
};

/// The size of the terminal that standard output is, or nothing when it is none.
std::optional<TerminalSize> terminal_size();

/// Makes the terminal obey ANSI sequences, where that has to be asked for.
void prepare_terminal();

// --- ports ---------------------------------------------------------------------------------------

/// The device behind a port's name: the same text for all spellings of one port. A name of which
/// there is no device comes back as it would be looked for.
std::string device_of(const std::string& port);

/// Whether there is a device of this name.
bool is_port(const std::string& port);

/// Whether there is such a port, and this process may open it.
bool is_usable_port(const std::string& port);

/// Changes when the device behind a port goes and comes back. Empty when there is none.
std::string identity_of(const std::string& port);

/// The ports that match a pattern ("/dev/ttyUSB*", on Windows "COM*"), sorted.
std::vector<std::string> matching_ports(const std::string& pattern);

// --- files ---------------------------------------------------------------------------------------

/// Makes a new file for writing that children do not inherit. Null, with errno, when it exists
/// already or cannot be made.
std::FILE* create_file(const std::string& path);

/// The same for a file that may exist: what it holds is kept, new text goes behind it.
std::FILE* append_to_file(const std::string& path);

// --- programs ------------------------------------------------------------------------------------

/// The folder of this program, with a slash at its end; empty when it cannot be told.
std::string own_folder();

/// The folders in which programs are looked for.
std::vector<std::string> search_folders();

/// The file name of a program: "orbix_flash", or "orbix_flash.exe".
std::string program_name(const std::string& name);

/// Called once at the start: whatever is started from now on ends with this process, also when
/// this process is killed; and this process does not end because nobody reads its output.
void bind_children();

/// Called in a child between fork and exec (nowhere else, and not on Windows): has it killed when
/// the process `parent` ends, or has ended already.
void end_with_parent(int parent) noexcept;

/// The number of this process.
int process_id();

/// Keeps a descriptor or handle from being inherited by children.
void keep_from_children(int descriptor);
void keep_from_children(void* handle);

/// What a process left behind: whether a signal has ended it, and the signal or the exit status.
struct ExitStatus {
    bool by_signal = false;
    int number = 0;
};
ExitStatus exit_status(int native_status);

/// The signals that end this program, and whether one of them says that its terminal has gone.
std::vector<int> end_signals();
bool is_hangup(int signal_number);

/// Asks a process to end.
void ask_to_end(int process);

/// Ends all processes of a group by force.
void end_group(int leader);

}  // namespace orbix::station::system
