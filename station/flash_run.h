// One run of orbix_flash as a child process: its lines as they come, its limits, its end.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace boost::asio {
class io_context;
}

namespace orbix::station {

/// What is started, and for how long at most. A limit of 0 is none.
struct FlashCommand {
    std::string program;
    std::vector<std::string> arguments;
    std::chrono::milliseconds time_limit{};
    std::chrono::milliseconds silence_limit{};
};

/// How a child process ended.
struct FlashEnd {
    enum class How {
        exited,       ///< by itself; `status` is its exit status
        signalled,    ///< by the signal `status`, which was not ours
        too_long,     ///< ended by us: over the time limit
        too_silent,   ///< ended by us: wrote nothing for too long
        stopped,      ///< ended by us: `stop` was called
        not_started,  ///< there is no process; `error` says why
    };
    How how = How::exited;
    int status = 0;
    std::string error;
    std::string unfinished;  ///< standard output behind its last line feed
};

/// Who hears of the run. All are called by the io_context, none after `on_end`, and none inside
/// the constructor.
struct FlashListener {
    std::function<void(std::string_view)> on_bytes;       ///< of both streams, as they came
    std::function<void(std::string_view)> on_line;        ///< of standard output
    std::function<void(std::string_view)> on_error_line;  ///< of standard error
    std::function<void()> on_taken;  ///< all lines of what came at once have been handed out
    std::function<void(const FlashEnd&)> on_end;
};

/// A run. Lives until `on_end` at least; destroying it earlier kills the process and tells nobody.
class FlashRun {
  public:
    FlashRun(boost::asio::io_context& context, const FlashCommand& command, FlashListener listener);
    ~FlashRun();
    FlashRun(const FlashRun&) = delete;
    FlashRun& operator=(const FlashRun&) = delete;

    /// Ends the process; `on_end` follows.
    void stop();

  private:
    class Process;
    std::shared_ptr<Process> process_;
};

}  // namespace orbix::station
