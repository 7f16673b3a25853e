// What the station shows to people: a live table on a terminal, plain lines elsewhere, and a
// summary at the end.
#pragma once

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "board.h"
#include "system.h"

namespace orbix::station {

/// Plain lines, each with its port, each written at once and as a whole.
class PlainLines {
  public:
    explicit PlainLines(std::FILE* file) : file_(file) {}

    void started(const Row& row);
    void phase(const Row& row);
    void progress(const Row& row);  ///< prints each tenth of a transfer
    void waiting(const Row& row);
    void attempt_failed(const Row& row);
    void result(const Row& row);
    void note(const std::string& text);

  private:
    void line(const Row& row, const std::string& text);

    std::FILE* file_;
    std::map<std::string, int> tenths_;  ///< told already, by port
};

/// The table of all rows as lines, no longer and no more than the terminal has room for. Without
/// colours when `coloured` is false.
std::vector<std::string> table_lines(const std::vector<Row>& rows, const Counters& counters,
                                     system::TerminalSize size, Clock::time_point now,
                                     bool coloured = true);

/// The table on a terminal, drawn over itself.
class LiveTable {
  public:
    explicit LiveTable(const Board& board);
    ~LiveTable();
    LiveTable(const LiveTable&) = delete;
    LiveTable& operator=(const LiveTable&) = delete;

    /// Draws what has changed since the last time, if anything has.
    void draw();

    /// A line above the table, for what happens once.
    void note(const std::string& text);

    /// Leaves the table as it stands and gives the cursor back.
    void close();

  private:
    void erase();

    const Board& board_;
    std::uint64_t version_ = 0;
    long long second_ = -1;
    std::map<std::string, Row> rows_;
    std::vector<std::string> shown_;
    bool open_ = true;
};

/// What came of all runs: a line with the numbers, and a line for each port that failed.
std::vector<std::string> summary_lines(const Counters& counters, const std::vector<Row>& failed);

/// "flashed in 35.8 s", or why not.
std::string outcome_in_words(const Row& row);

}  // namespace orbix::station
