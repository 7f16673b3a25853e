// One run of the tool in virtual time against a simulated module, from its arguments to its end,
// with all that it wrote and did.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "faults.h"
#include "line.h"
#include "model.h"
#include "temp_dir.h"
#include "virtual_port.h"

namespace orbix::sim {

/// What a run meets besides the module.
struct Conditions {
    std::vector<Fault> faults;
    std::uint64_t seed = 1;
    VirtualPort::Settings port{};
    bool traced = true;      ///< keep the bytes of the line
    std::size_t packet = 1;  ///< how many bytes of an answer arrive together
};

/// Ends an unlimited wait: the device vanishes at that time of the run.
Conditions unplugged_after_ms(std::uint64_t time);

/// One run of the tool, from its arguments (without the program's name) to its end.
class ToolRun {
  public:
    ToolRun(Model& module, const std::vector<std::string>& arguments, Conditions conditions = {});

    int status = 0;
    std::string output;             ///< standard output, as it was written
    Bytes sent;                     ///< what the module's end of the line received, as it was sent
    Bytes received;                 ///< what arrived at the tool
    std::vector<TracedByte> trace;  ///< both directions with their times, if traced
    std::vector<Strike> strikes;    ///< what the faults have done
    std::uint64_t duration_ms = 0;
    Micros line_busy = 0;         ///< how long the bytes of both directions took
    Micros module_busy = 0;       ///< how long the module let its answers wait
    bool hit_time_limit = false;  ///< the run was cut off, it would not have ended

    /// What the tool did with the port.
    int opens = 0;
    int closes = 0;
    int discards = 0;  ///< of what was received and not read
    bool left_open = false;
    std::vector<VirtualPort::ModemEvent> modem_events;
    std::vector<unsigned> rates;  ///< each rate that was set, in order; repeats left out

    /// The lines of the output without their time stamps and line feeds (a "\r" stays).
    [[nodiscard]] std::vector<std::string> lines() const;

    /// `lines` from the one behind the last "new_argv" line to the one before the result line:
    /// what the family said. PROGRESS and SPEED lines are left out unless asked for.
    [[nodiscard]] std::vector<std::string> family_lines(bool with_progress = false) const;

    /// The PROGRESS and SPEED lines alone.
    [[nodiscard]] std::vector<std::string> progress_lines() const;

    /// The last line: the result.
    [[nodiscard]] std::string result() const;

    /// How often `text` stands in the output.
    [[nodiscard]] std::size_t count(const std::string& text) const;

    /// The silences of more than 1 ms between the bytes that the tool sent, in order.
    [[nodiscard]] std::vector<Micros> pauses() const;
};

}  // namespace orbix::sim
