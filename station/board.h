// What the station knows of each port at this moment. The runs write it; the table, the page and
// the records read it. Safe to use from several threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "causes.h"

namespace orbix::station {

using Clock = std::chrono::steady_clock;

/// Where a run is. A run goes through these in this order; some families leave some out.
enum class Phase : std::uint8_t { queued, connect, sync, erase, write, verify, done };

/// The phase as it stands in records and tables: "queued", "connect", ...
std::string_view phase_name(Phase phase);

/// One port: a row of the table and of the page.
struct Row {
    std::string port;
    std::string model;
    Phase phase = Phase::queued;
    std::string waiting_for;       ///< what a person has to do now ("press reset"), or empty
    double percent = 0;            ///< of the transfer, 0 to 100
    std::uint64_t bytes_done = 0;  ///< of the transfer
    std::uint64_t bytes_total = 0;
    double kbytes_per_second = 0;
    int attempt = 0;                     ///< 1 for the first
    Clock::time_point started{};         ///< of this attempt
    double seconds = 0;                  ///< how long it took; set when the phase is done
    Cause cause = Cause::none;           ///< meant once the phase is done
    int code = 0;                        ///< orbix_flash's own, of its FAIL line
    std::string message;                 ///< the failure in orbix_flash's own words
    std::deque<std::string> last_lines;  ///< of orbix_flash, the newest last, at most kept_lines
    std::uint64_t version = 0;           ///< the board's, when this row was last written
};

inline constexpr std::size_t kept_lines = 12;

/// How many runs of this station ended well and badly.
struct Counters {
    std::uint64_t good = 0;
    std::uint64_t bad = 0;
};

/// The rows that are new since a version, and what has gone.
struct Changes {
    std::uint64_t version = 0;  ///< to ask with, the next time
    Counters counters;
    std::vector<Row> rows;           ///< written since the version asked with, in order of port
    std::vector<std::string> ports;  ///< all ports that have a row now, in the table's order
    bool closed = false;             ///< the station has ended: nothing more will come
};

class Board {
  public:
    /// Writes a port's row (made when it is not there yet) under the lock.
    void write(const std::string& port, const std::function<void(Row&)>& change);

    /// Forgets a port.
    void remove(const std::string& port);

    /// Counts a finished run.
    void count(bool good);

    /// What is new since a version; 0 brings everything.
    Changes changes_since(std::uint64_t version) const;

    /// The same, but waits until there is something, the board is closed, or the time is over.
    Changes wait_for_changes(std::uint64_t version, std::chrono::milliseconds at_most) const;

    /// No more changes: wakes all who wait.
    void close();

  private:
    Changes changes_since_locked(std::uint64_t version) const;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Row> rows_;
    Counters counters_;
    std::uint64_t version_ = 0;
    bool closed_ = false;
};

}  // namespace orbix::station
