#include "flash_run.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/process/args.hpp>
#include <boost/process/async.hpp>
#include <boost/process/async_pipe.hpp>
#include <boost/process/child.hpp>
#include <boost/process/exe.hpp>
#include <boost/process/extend.hpp>
#include <boost/process/group.hpp>
#include <boost/process/io.hpp>
#include <optional>
#include <utility>

#include "line_splitter.h"
#include "system.h"

namespace orbix::station {

namespace {

namespace asio = boost::asio;
namespace process = boost::process;
using boost::system::error_code;
using std::chrono::milliseconds;

/// How long a process may take to follow a polite request.
constexpr milliseconds patience{2000};

/// How long the pipes of a process that has ended are read on. Longer only matters when a
/// grandchild holds them.
constexpr milliseconds last_words{300};

/// Windows' CREATE_NEW_PROCESS_GROUP: a Ctrl-C for the station does not reach its runs.
constexpr unsigned long new_process_group = 0x200;

/// What a child is started with, and what it does before it becomes the program.
struct EndsWithParent : process::extend::handler {
    int parent = system::process_id();

    template <typename Executor>
    void on_setup(Executor& executor) const {
        if constexpr (requires { executor.creation_flags; }) {
            executor.creation_flags |= new_process_group;
        }
    }

    template <typename Executor>
    void on_exec_setup(Executor& /*executor*/) const {
        system::end_with_parent(parent);
    }
};

}  // namespace

class FlashRun::Process : public std::enable_shared_from_this<FlashRun::Process> {
  public:
    Process(asio::io_context& context, FlashListener listener)
        : context_(context),
          listener_(std::move(listener)),
          output_(context),
          errors_(context),
          time_limit_(context),
          silence_limit_(context),
          patience_(context),
          last_words_(context) {}

    void start(const FlashCommand& command) {
        silence_ = command.silence_limit;
        for (Stream* stream : {&output_, &errors_}) {
            system::keep_from_children(stream->pipe.native_source());
            system::keep_from_children(stream->pipe.native_sink());
        }
        std::error_code failure;
        child_.emplace(
            process::exe = command.program, process::args = command.arguments,
            process::std_in = process::null, process::std_out = output_.pipe,
            process::std_err = errors_.pipe, group_, EndsWithParent{}, failure, context_,
            // Not at once: the library tells of one end after the other out of a list, which a new
            // process would change.
            process::on_exit = [self = shared_from_this()](int, const std::error_code&) {
                asio::post(self->context_, [self] { self->exited(); });
            });
        if (failure) {
            child_.reset();
            end_.how = FlashEnd::How::not_started;
            end_.error = failure.message();
            asio::post(context_, [self = shared_from_this()] { self->finish(); });
            return;
        }
        running_ = true;
        read(output_);
        read(errors_);
        if (command.time_limit.count() != 0) {
            after(time_limit_, command.time_limit,
                  [](Process& self) { self.end_by(FlashEnd::How::too_long); });
        }
        watch_silence();
    }

    void stop() { end_by(FlashEnd::How::stopped); }

    void forget() {
        listener_ = {};
        if (running_) {
            system::end_group(child_->id());
        }
    }

  private:
    struct Stream {
        explicit Stream(asio::io_context& context) : pipe(context) {}
        process::async_pipe pipe;
        std::array<char, 8192> buffer{};
        LineSplitter lines;
        bool open = true;
    };

    template <typename Action>
    void after(asio::steady_timer& timer, milliseconds time, Action action) {
        timer.expires_after(time);
        timer.async_wait([self = shared_from_this(), action](const error_code& cancelled) {
            if (!cancelled) {
                action(*self);
            }
        });
    }

    void read(Stream& stream) {
        stream.pipe.async_read_some(
            asio::buffer(stream.buffer),
            [self = shared_from_this(), &stream](const error_code& failure, std::size_t count) {
                self->take(stream, {stream.buffer.data(), count});
                if (failure) {
                    self->closed(stream);
                } else if (stream.open) {
                    self->read(stream);
                }
            });
    }

    void take(Stream& stream, std::string_view bytes) {
        if (bytes.empty() || finished_) {
            return;
        }
        watch_silence();
        if (listener_.on_bytes) {
            listener_.on_bytes(bytes);
        }
        const auto& on_line = &stream == &output_ ? listener_.on_line : listener_.on_error_line;
        stream.lines.take(bytes, [&on_line](std::string_view line) {
            if (on_line) {
                on_line(line);
            }
        });
        if (listener_.on_taken) {
            listener_.on_taken();
        }
    }

    void watch_silence() {
        if (silence_.count() != 0 && running_ && !ending_) {
            after(silence_limit_, silence_,
                  [](Process& self) { self.end_by(FlashEnd::How::too_silent); });
        }
    }

    /// Ends the process: asks it first, so that it gives its port back, and forces it later.
    void end_by(FlashEnd::How how) {
        if (ending_ || !running_) {
            return;
        }
        ending_ = true;
        end_.how = how;
        system::ask_to_end(child_->id());
        after(patience_, patience, [](Process& self) {
            if (self.running_) {
                system::end_group(self.child_->id());
            }
        });
    }

    void exited() {
        running_ = false;
        if (end_.how == FlashEnd::How::exited) {
            const system::ExitStatus status = system::exit_status(child_->native_exit_code());
            end_.how = status.by_signal ? FlashEnd::How::signalled : FlashEnd::How::exited;
            end_.status = status.number;
        }
        time_limit_.cancel();
        silence_limit_.cancel();
        patience_.cancel();
        if (ending_) {
            system::end_group(child_->id());  // and whatever it had started
        }
        if (output_.open || errors_.open) {
            after(last_words_, last_words, [](Process& self) { self.finish(); });
        } else {
            finish();
        }
    }

    void closed(Stream& stream) {
        stream.open = false;
        if (!running_ && !output_.open && !errors_.open) {
            finish();
        }
    }

    void finish() {
        if (finished_) {
            return;
        }
        finished_ = true;
        if (child_ && (output_.open || errors_.open)) {
            system::end_group(child_->id());  // somebody it started still holds the pipes
        }
        last_words_.cancel();
        for (Stream* stream : {&output_, &errors_}) {
            stream->open = false;
            error_code ignored;
            stream->pipe.close(ignored);
        }
        end_.unfinished = output_.lines.unfinished();
        if (listener_.on_error_line && !errors_.lines.unfinished().empty()) {
            listener_.on_error_line(errors_.lines.unfinished());
        }
        // The listener may destroy the run in which it stands.
        const auto on_end = std::exchange(listener_, {}).on_end;
        if (on_end) {
            on_end(end_);
        }
    }

    asio::io_context& context_;
    FlashListener listener_;
    Stream output_;
    Stream errors_;
    asio::steady_timer time_limit_;
    asio::steady_timer silence_limit_;
    asio::steady_timer patience_;
    asio::steady_timer last_words_;
    milliseconds silence_{};
    process::group group_;
    std::optional<process::child> child_;
    FlashEnd end_;
    bool running_ = false;
    bool ending_ = false;
    bool finished_ = false;
};

FlashRun::FlashRun(asio::io_context& context, const FlashCommand& command, FlashListener listener)
    : process_(std::make_shared<Process>(context, std::move(listener))) {
    process_->start(command);
}

FlashRun::~FlashRun() {
    process_->forget();
}

void FlashRun::stop() {
    process_->stop();
}

}  // namespace orbix::station
