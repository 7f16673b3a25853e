#include "station.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "flash_lines.h"
#include "flash_run.h"
#include "line_splitter.h"
#include "people.h"
#include "records.h"
#include "run_log.h"
#include "system.h"

namespace orbix::station {

namespace {

namespace asio = boost::asio;
using boost::system::error_code;
using std::chrono::milliseconds;

constexpr milliseconds redraw_interval{100};
constexpr milliseconds progress_interval{500};
constexpr milliseconds poll_interval{250};

/// How long a port must have been there before it is used: its driver and its permissions come
/// one after the other. One that stays forbidden is used after the longer time, to tell why.
constexpr milliseconds settle_time{300};
constexpr milliseconds patience{5000};

/// Before another attempt; a module that restarts needs a moment.
constexpr milliseconds retry_pause{1000};

double seconds_since(Clock::time_point then) {
    return std::chrono::duration<double>(Clock::now() - then).count();
}

struct Job {
    std::string port;
    int attempt = 1;
};

/// A run that is going on.
struct Run {
    Row row;
    RunFacts facts;
    bool had_port = false;  ///< when it began
    FlashLines lines;
    RunLog log;
    Clock::time_point progress_told{};
    std::unique_ptr<FlashRun> process;
};

/// An attempt that has failed and is followed by another one: its result, should that one not come.
struct FailedAttempt {
    std::shared_ptr<asio::steady_timer> pause;  ///< before the next one is due
    Row row;
    RunFacts facts;
};

/// A port of the production mode.
struct WatchedPort {
    std::string identity;
    Clock::time_point since{};
    bool taken = false;  ///< its module has had its turn
    bool gone = false;   ///< while it was being flashed
};

/// Why a run ended as it did, in words, where orbix_flash has none.
std::string words_of(const FlashEnd& end) {
    switch (end.how) {
        case FlashEnd::How::exited:
            return "orbix_flash ended with status " + std::to_string(end.status) +
                   " and without a result line";
        case FlashEnd::How::signalled:
            return "orbix_flash was killed by signal " + std::to_string(end.status);
        case FlashEnd::How::too_long:
            return "ended by the station: the run took too long (--timeout)";
        case FlashEnd::How::too_silent:
            return "ended by the station: no output for too long (--stall)";
        case FlashEnd::How::stopped:
            return "ended by the station";
        case FlashEnd::How::not_started:
            return "cannot start orbix_flash: " + end.error;
    }
    return {};
}

/// Whether another attempt may end otherwise.
bool is_worth_another_attempt(Cause cause) {
    return cause != Cause::none && cause != Cause::internal && cause != Cause::usage &&
           cause != Cause::file && cause != Cause::stopped;
}

class Station {
  public:
    Station(const Options& options, Board& board)
        : options_(options),
          board_(board),
          signals_(context_),
          redraw_timer_(context_),
          poll_timer_(context_),
          records_(options.json) {
        const bool records_on_output = options.json == "-";
        if (!options.plain && !records_on_output && system::terminal_size()) {
            system::prepare_terminal();
            table_ = std::make_unique<LiveTable>(board);
        } else {
            plain_ = std::make_unique<PlainLines>(records_on_output ? stderr : stdout);
        }
    }

    Cause run() {
        for (const int number : system::end_signals()) {
            signals_.add(number);
        }
        await_signal();
        if (table_) {
            redraw();
        }
        for (const std::string& port : options_.ports) {
            enqueue(port);
        }
        if (!options_.watch.empty()) {
            note("watching " + options_.watch + "; Ctrl-C ends");
            poll();
        }
        start_waiting_jobs();
        context_.run();
        conclude();
        return worst_;
    }

  private:
    // --- what is told ----------------------------------------------------------------------------

    void note(const std::string& text) {
        if (table_) {
            table_->note(text);
        } else {
            plain_->note(text);
        }
    }

    template <typename Told>
    void tell(Told told) {
        if (plain_) {
            told(*plain_);
        }
    }

    /// The station's own failure: told once, and nothing new is started.
    void fail(const std::string& why) {
        worst_ = worse(worst_, Cause::internal);
        if (table_) {
            table_->note("orbix_station: " + why);
        } else {
            std::fputs(("orbix_station: " + why + "\n").c_str(), stderr);
        }
        if (!ending_) {
            ending_ = true;
            give_up_queue(Cause::internal);
        }
    }

    /// Does what may fail for want of room.
    template <typename Action>
    void keep(Action action) {
        try {
            action();
        } catch (const std::runtime_error& error) {
            fail(error.what());
        }
    }

    void publish(const Row& row) {
        board_.write(row.port, [&row](Row& shown) { shown = row; });
    }

    // --- the queue -------------------------------------------------------------------------------

    void enqueue(const std::string& port) {
        Row row;
        row.port = port;
        row.model = options_.flash.model;
        publish(row);
        queue_.push_back({.port = port});
    }

    void start_waiting_jobs() {
        const std::size_t most =
            options_.jobs == 0 ? queue_.size() + running_.size() : options_.jobs;
        while (!queue_.empty() && running_.size() < most) {
            const Job job = queue_.front();
            queue_.pop_front();
            start(job);
        }
        end_when_done();
    }

    void start(const Job& job) {
        auto owner = std::make_unique<Run>();
        Run& run = *owner;
        run.row.port = job.port;
        run.row.model = options_.flash.model;
        run.row.phase = Phase::connect;
        run.row.attempt = job.attempt;
        run.row.started = Clock::now();
        run.facts.firmware = firmware_files(options_.flash);
        if (!options_.log_folder.empty()) {
            keep([&] { run.log = RunLog(options_.log_folder, job.port, job.attempt); });
            run.facts.log_file = run.log.path();
        }
        FlashCommand command{.program = options_.flash_program,
                             .arguments = options_.flash.words,
                             .time_limit = options_.time_limit,
                             .silence_limit = options_.silence_limit};
        // orbix_flash takes 20 letters at most: the device behind a link is shorter.
        command.arguments.emplace_back("-p");
        run.had_port = system::is_port(job.port);
        command.arguments.push_back(run.had_port ? system::device_of(job.port) : job.port);
        std::vector<std::string> words{command.program};
        words.insert(words.end(), command.arguments.begin(), command.arguments.end());

        if (!ending_) {
            keep([&] { records_.start(run.row, run.facts, words); });
        }
        if (ending_) {
            // There is no room for its log or records. Attempts before it have been concluded.
            if (job.attempt == 1) {
                conclude_unstarted(job.port, Cause::internal);
            }
            return;
        }
        failed_attempts_.erase(job.port);
        running_[job.port] = std::move(owner);
        publish(run.row);
        keep([&] { records_.phase(run.row); });
        tell([&](PlainLines& lines) { lines.started(run.row); });
        try {
            start_process(run, command);
        } catch (const std::exception& error) {
            FlashEnd end;
            end.how = FlashEnd::How::not_started;
            end.error = error.what();
            asio::post(context_, [this, port = job.port, end] { finish(port, end); });
        }
    }

    void start_process(Run& run, const FlashCommand& command) {
        run.process = std::make_unique<FlashRun>(
            context_, command,
            FlashListener{
                .on_bytes = [this,
                             &run](std::string_view bytes) { keep([&] { run.log.write(bytes); }); },
                .on_line =
                    [this, &run](std::string_view line) {
                        run.lines.take(line);
                        follow(run, line);
                    },
                .on_error_line =
                    [this, &run](std::string_view line) {
                        run.lines.take_error_output(line);
                        follow(run, line);
                    },
                .on_taken = [this, &run] { show(run); },
                .on_end = [this, port = run.row.port](const FlashEnd& end) { finish(port, end); },
            });
    }

    /// Takes over where a line has brought the run, and tells it.
    void follow(Run& run, std::string_view line) {
        Row& row = run.row;
        const FlashLines& lines = run.lines;
        const bool new_phase = lines.phase != row.phase;
        const bool new_wait = lines.waiting_for != row.waiting_for && !lines.waiting_for.empty();
        row.phase = lines.phase;
        row.waiting_for = lines.waiting_for;
        if (const std::string text = printable(line); !text.empty()) {
            row.last_lines.push_back(text);
        }
        if (row.last_lines.size() > kept_lines) {
            row.last_lines.pop_front();
        }
        if (new_phase) {
            keep([&] { records_.phase(row); });
            tell([&](PlainLines& told) { told.phase(row); });
        }
        if (new_wait) {
            keep([&] { records_.waiting(row); });
            tell([&](PlainLines& told) { told.waiting(row); });
        }
    }

    /// How far it is, once for all lines that came together.
    void show(Run& run) {
        Row& row = run.row;
        const FlashLines& lines = run.lines;
        const bool moved = lines.percent != row.percent || lines.bytes_done != row.bytes_done;
        row.percent = lines.percent;
        row.bytes_done = lines.bytes_done;
        row.bytes_total = lines.bytes_total;
        row.kbytes_per_second = lines.kbytes_per_second;
        publish(row);
        if (!moved) {
            return;
        }
        tell([&](PlainLines& told) { told.progress(row); });
        if (Clock::now() - run.progress_told >= progress_interval) {
            run.progress_told = Clock::now();
            keep([&] { records_.progress(row); });
        }
    }

    void judge(Run& run, const FlashEnd& end) {
        Row& row = run.row;
        const bool port_gone = run.had_port && !system::is_port(row.port);
        run.lines.end(end.unfinished, port_gone);
        row.phase = Phase::done;
        row.waiting_for.clear();
        row.seconds = seconds_since(row.started);
        row.cause = run.lines.cause;
        row.message = run.lines.message;
        switch (end.how) {
            case FlashEnd::How::exited:
            case FlashEnd::How::signalled:
                break;
            case FlashEnd::How::too_long:
            case FlashEnd::How::too_silent:
                row.cause = Cause::time_limit;
                break;
            case FlashEnd::How::stopped:
                row.cause = Cause::stopped;
                break;
            case FlashEnd::How::not_started:
                row.cause = Cause::internal;
                break;
        }
        const bool has_result = run.lines.has_result();
        if (row.cause == Cause::no_result || row.cause == Cause::time_limit ||
            row.cause == Cause::stopped || row.cause == Cause::internal) {
            row.message = words_of(end) + (row.message.empty() ? "" : "; " + row.message);
        }
        explain_missing_file(run);
        if (port_gone && row.cause != Cause::none) {
            row.message = "the port has vanished; " + row.message;
        } else if (!run.had_port && row.cause == Cause::port) {
            row.message = "there is no such port; " + row.message;
        }
        if (row.cause == Cause::none) {
            row.percent = 100;
        }
        row.code = run.lines.code;
        row.message = printable(row.message);
        run.facts.has_code = has_result;
        run.facts.bytes = run.lines.bytes_flashed;
        run.facts.hint = printable(run.lines.hint);
        if (row.cause != Cause::none && !run.facts.hint.empty()) {
            row.message += " (" + run.facts.hint + ")";
        }
        keep([&] { run.log.close(); });
    }

    /// Some families do not tell an image that is missing from a transfer that broke off.
    static void explain_missing_file(Run& run) {
        if (run.row.cause != Cause::transfer) {
            return;
        }
        for (const HashedFile& file : run.facts.firmware) {
            if (file.sha256.empty()) {
                run.row.cause = Cause::file;
                run.row.message = "cannot read " + file.path + "; " + run.row.message;
                return;
            }
        }
    }

    void finish(const std::string& port, const FlashEnd& end) {
        const auto node = running_.extract(port);
        Run& run = *node.mapped();
        judge(run, end);
        const bool port_gone = watched_.contains(port) && watched_[port].gone;
        if (run.row.attempt <= options_.retries && !ending_ && !port_gone &&
            is_worth_another_attempt(run.row.cause)) {
            try_again(run);
        } else {
            conclude_run(run.row, run.facts);
            if (port_gone) {
                forget(port);
            }
        }
        start_waiting_jobs();
    }

    void try_again(const Run& run) {
        keep([&] { records_.attempt_failed(run.row, run.facts); });
        tell([&](PlainLines& lines) { lines.attempt_failed(run.row); });
        if (ending_) {
            conclude_run(run.row, run.facts);  // there was no room for the record
            return;
        }
        Row row = run.row;
        row.phase = Phase::queued;
        publish(row);
        const Job job{.port = run.row.port, .attempt = run.row.attempt + 1};
        auto pause = std::make_shared<asio::steady_timer>(context_, retry_pause);
        failed_attempts_[job.port] = {.pause = pause, .row = run.row, .facts = run.facts};
        pause->async_wait([this, job, pause](const error_code& cancelled) {
            const auto failed = failed_attempts_.find(job.port);
            if (!cancelled && failed != failed_attempts_.end() && failed->second.pause == pause) {
                queue_.push_front(job);
                start_waiting_jobs();
            }
        });
    }

    void conclude_run(const Row& row, const RunFacts& facts) {
        publish(row);
        board_.count(row.cause == Cause::none);
        ++(row.cause == Cause::none ? counters_.good : counters_.bad);
        worst_ = worse(worst_, row.cause);
        if (row.cause != Cause::none) {
            failed_.push_back(row);
        }
        keep([&] { records_.result(row, facts); });
        tell([&](PlainLines& lines) { lines.result(row); });
    }

    /// No more attempts for a port: if one has failed, it counts.
    void give_up_next_attempt(const std::string& port) {
        const auto failed = failed_attempts_.extract(port);
        if (!failed.empty()) {
            failed.mapped().pause->cancel();
            leave_queue(port);
            conclude_run(failed.mapped().row, failed.mapped().facts);
        }
    }

    void leave_queue(const std::string& port) {
        std::erase_if(queue_, [&port](const Job& job) { return job.port == port; });
    }

    void conclude_unstarted(const std::string& port, Cause cause) {
        Row row;
        row.port = port;
        row.model = options_.flash.model;
        row.phase = Phase::done;
        row.cause = cause;
        row.message = "not started";
        RunFacts facts;
        facts.firmware = firmware_files(options_.flash);
        conclude_run(row, facts);
    }

    /// Those that have not had their turn get none.
    void give_up_queue(Cause cause) {
        while (!failed_attempts_.empty()) {
            give_up_next_attempt(std::string(failed_attempts_.begin()->first));
        }
        for (const Job& job : std::exchange(queue_, {})) {
            conclude_unstarted(job.port, cause);
        }
    }

    // --- production mode -------------------------------------------------------------------------

    void forget(const std::string& port) {
        watched_.erase(port);
        board_.remove(port);
    }

    void mark_gone(const std::string& port, WatchedPort& watched) {
        leave_queue(port);
        give_up_next_attempt(port);
        if (running_.contains(port)) {
            watched.gone = true;
        } else {
            forget(port);
        }
    }

    void look_at_port(const std::string& port) {
        const std::string identity = system::identity_of(port);
        if (const auto known = watched_.find(port);
            known != watched_.end() && known->second.identity != identity) {
            mark_gone(port, known->second);
        }
        if (identity.empty()) {
            return;
        }
        WatchedPort& watched = watched_[port];
        if (watched.identity.empty()) {
            watched = {.identity = identity, .since = Clock::now()};
        }
        const auto age = Clock::now() - watched.since;
        const bool ready = age >= settle_time && (system::is_usable_port(port) || age >= patience);
        if (ready && !watched.taken && !watched.gone) {
            watched.taken = true;
            enqueue(port);
        }
    }

    void poll() {
        if (ending_) {
            return;
        }
        std::vector<std::string> present;
        std::vector<std::string> devices;
        for (const std::string& port : system::matching_ports(options_.watch)) {
            const std::string device = system::device_of(port);
            if (std::find(devices.begin(), devices.end(), device) == devices.end()) {
                devices.push_back(device);
                present.push_back(port);
            }
        }
        std::vector<std::string> absent;
        for (const auto& [port, watched] : watched_) {
            if (std::find(present.begin(), present.end(), port) == present.end()) {
                absent.push_back(port);
            }
        }
        for (const std::string& port : absent) {
            mark_gone(port, watched_[port]);
        }
        for (const std::string& port : present) {
            look_at_port(port);
        }
        start_waiting_jobs();
        poll_timer_.expires_after(poll_interval);
        poll_timer_.async_wait([this](const error_code& cancelled) {
            if (!cancelled) {
                poll();
            }
        });
    }

    // --- the end ---------------------------------------------------------------------------------

    void await_signal() {
        signals_.async_wait([this](const error_code& cancelled, int number) {
            if (!cancelled) {
                take_signal(number);
                await_signal();
            }
        });
    }

    /// The first request lets the running ones finish, the second ends them. A terminal that has
    /// gone is never more than a first request: it may say so twice, and a module would suffer.
    void take_signal(int number) {
        const bool at_once = stop_requested_ && !system::is_hangup(number);
        if (!stop_requested_) {
            note(running_.empty() ? "stopping"
                                  : "the running ones finish, no more are started; once more "
                                    "ends them at once");
        }
        stop_requested_ = true;
        ending_ = true;
        give_up_queue(Cause::stopped);
        if (at_once) {
            for (const auto& [port, run] : running_) {
                if (run->process) {
                    run->process->stop();
                }
            }
        }
        end_when_done();
    }

    void end_when_done() {
        const bool more_may_come = !options_.watch.empty() && !ending_;
        if (!more_may_come && queue_.empty() && running_.empty() && failed_attempts_.empty()) {
            signals_.cancel();
            redraw_timer_.cancel();
            poll_timer_.cancel();
            context_.stop();
        }
    }

    void conclude() {
        if (table_) {
            table_->draw();
            table_.reset();  // what is told from here on stands below it
        }
        std::FILE* const file = options_.json == "-" ? stderr : stdout;
        PlainLines last(file);
        for (const std::string& line : summary_lines(counters_, failed_)) {
            last.note(line);
        }
        keep([&] { records_.summary(counters_, seconds_since(begun_), worst_); });
        board_.close();
    }

    void redraw() {
        table_->draw();
        redraw_timer_.expires_after(redraw_interval);
        redraw_timer_.async_wait([this](const error_code& cancelled) {
            if (!cancelled) {
                redraw();
            }
        });
    }

    const Options& options_;
    Board& board_;
    asio::io_context context_;
    asio::signal_set signals_;
    asio::steady_timer redraw_timer_;
    asio::steady_timer poll_timer_;
    Records records_;
    std::unique_ptr<PlainLines> plain_;
    std::unique_ptr<LiveTable> table_;
    Clock::time_point begun_ = Clock::now();

    std::deque<Job> queue_;
    std::map<std::string, std::unique_ptr<Run>> running_;
    std::map<std::string, FailedAttempt> failed_attempts_;
    std::map<std::string, WatchedPort> watched_;
    std::vector<Row> failed_;
    Counters counters_;
    Cause worst_ = Cause::none;
    bool stop_requested_ = false;
    bool ending_ = false;
};

}  // namespace

Cause run_station(const Options& options, Board& board) {
    if (!options.log_folder.empty()) {
        std::error_code failure;
        std::filesystem::create_directories(options.log_folder, failure);
        if (failure) {
            throw std::runtime_error("cannot make the folder " + options.log_folder + ": " +
                                     failure.message());
        }
    }
    return Station(options, board).run();
}

}  // namespace orbix::station
