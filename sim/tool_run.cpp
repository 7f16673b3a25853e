#include "tool_run.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"

namespace orbix::sim {

namespace {

/// Gathers what the tool writes while the object lives.
class LogCapture {
  public:
    LogCapture() : stream_(open_memstream(&text_, &size_)) { set_log_stream(stream_); }
    ~LogCapture() {
        set_log_stream(nullptr);
        std::fclose(stream_);
        std::free(text_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    [[nodiscard]] std::string text() {
        std::fflush(stream_);
        return {text_, size_};
    }

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_;
};

std::string without_stamp(const std::string& line) {
    const std::size_t end = line.find(']');
    const bool stamped = line.size() > 8 && line[0] == '[' && line.find('.') < end &&
                         end != std::string::npos && line[1] >= '0' && line[1] <= '9';
    return stamped ? line.substr(end + 1) : line;
}

bool is_progress(const std::string& line) {
    return line.starts_with("[PROGRESS]") || line.starts_with("[SPEED]");
}

}  // namespace

Conditions unplugged_after_ms(std::uint64_t time) {
    Conditions conditions;
    conditions.faults.push_back(
        {.kind = FaultKind::unplug, .byte = std::nullopt, .time = milliseconds(time)});
    return conditions;
}

ToolRun::ToolRun(Model& module, const std::vector<std::string>& arguments, Conditions conditions) {
    std::vector<std::string> words{"orbix_flash"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    std::transform(words.begin(), words.end(), std::back_inserter(argv),
                   [](std::string& word) { return word.data(); });
    argv.push_back(nullptr);

    Line line(module, std::move(conditions.faults),
              {.paced = true,
               .packet = conditions.packet,
               .traced = conditions.traced,
               .seed = conditions.seed},
              VirtualPort::start);
    VirtualPort port(line, conditions.port);
    LogCapture log;
    try {
        status = flash_tool_main(static_cast<int>(words.size()), argv.data());
    } catch (const TimeLimitReached&) {
        hit_time_limit = true;
    }
    output = log.text();
    duration_ms = (port.now - VirtualPort::start) / 1000;
    line_busy = line.busy();
    module_busy = line.delayed();
    trace = line.trace();
    strikes = line.strikes();
    for (const auto& byte : trace) {
        (byte.direction == Direction::to_module ? sent : received).push_back(byte.byte);
    }
    opens = port.opens;
    closes = port.closes;
    discards = port.discards;
    left_open = port.open;
    modem_events = port.modem_events;
    for (const auto& settings : port.settings_written) {
        if (rates.empty() || rates.back() != settings.baud) {
            rates.push_back(settings.baud);
        }
    }
}

std::vector<std::string> ToolRun::lines() const {
    std::vector<std::string> result;
    std::size_t begin = 0;
    while (begin < output.size()) {
        const std::size_t end = std::min(output.find('\n', begin), output.size());
        result.push_back(without_stamp(output.substr(begin, end - begin)));
        begin = end + 1;
    }
    return result;
}

std::vector<std::string> ToolRun::family_lines(bool with_progress) const {
    std::vector<std::string> all = lines();
    const auto last_argument = std::find_if(all.rbegin(), all.rend(), [](const std::string& line) {
        return line.starts_with("new_argv[");
    });
    all.erase(all.begin(), last_argument.base());
    if (!hit_time_limit && !all.empty()) {
        all.pop_back();
    }
    if (!with_progress) {
        std::erase_if(all, is_progress);
    }
    return all;
}

std::vector<std::string> ToolRun::progress_lines() const {
    std::vector<std::string> all = lines();
    std::erase_if(all, [](const std::string& line) { return !is_progress(line); });
    return all;
}

std::string ToolRun::result() const {
    const auto all = lines();
    return all.empty() ? "" : all.back();
}

std::size_t ToolRun::count(const std::string& text) const {
    std::size_t found = 0;
    for (std::size_t at = output.find(text); at != std::string::npos;
         at = output.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

std::vector<Micros> ToolRun::pauses() const {
    std::vector<Micros> found;
    std::optional<Micros> before;
    for (const auto& byte : trace) {
        if (byte.direction != Direction::to_module) {
            continue;
        }
        if (before && byte.time - *before > milliseconds(1)) {
            found.push_back(byte.time - *before);
        }
        before = byte.time;
    }
    return found;
}

}  // namespace orbix::sim
