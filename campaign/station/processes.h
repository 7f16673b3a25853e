// The processes of a round: simulated modules, and the station itself.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "campaign/scenario.h"
#include "pty_host.h"

namespace orbix::campaign {

/// A simulated module on a pseudo-terminal, in a process of its own.
class ServedModule {
  public:
    /// Starts it. What the module's flash must hold is taken from the rig.
    ServedModule(Rig rig, const sim::PtySettings& settings);
    ~ServedModule();
    ServedModule(ServedModule&& other) noexcept;
    ServedModule(const ServedModule&) = delete;
    ServedModule& operator=(const ServedModule&) = delete;
    ServedModule& operator=(ServedModule&&) = delete;

    [[nodiscard]] const std::string& port() const { return port_; }
    [[nodiscard]] pid_t process() const { return process_; }

    /// Stops it. Returns whether its flash holds the image.
    bool stop();

  private:
    std::string read_line() const;

    pid_t process_ = -1;
    int output_ = -1;
    std::string port_;
};

/// How a process has ended, and what it has used; its children are not counted.
struct ProcessEnd {
    int status = -1;  ///< exit status, or -1 when a signal ended it
    int signal = 0;
    double processor_seconds = 0;
};

/// orbix_station, started in the current folder; its two outputs go to files there.
class StationProcess {
  public:
    static constexpr const char* output_file = "station.out";
    static constexpr const char* error_file = "station.err";

    StationProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~StationProcess();
    StationProcess(const StationProcess&) = delete;
    StationProcess& operator=(const StationProcess&) = delete;

    [[nodiscard]] pid_t process() const { return process_; }

    /// The port of its page, as it tells it; 0 when it does not within ten seconds.
    [[nodiscard]] int page_port() const;

    /// Whether it has ended by now.
    std::optional<ProcessEnd> poll();

    /// Waits for its end.
    ProcessEnd wait();

    void send_signal(int number) const;

    /// The end of what it has written to standard error.
    static std::string last_words();

  private:
    pid_t process_ = -1;
    std::optional<ProcessEnd> end_;
};

/// The running children of a process.
std::vector<pid_t> children_of(pid_t process);

/// The command line of a process, its words parted by spaces; empty when there is none.
std::string command_of(pid_t process);

/// All processes whose working folder is this one.
std::vector<pid_t> processes_in(const std::string& folder);

}  // namespace orbix::campaign
