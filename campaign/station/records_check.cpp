#include "campaign/station/records_check.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <set>
#include <utility>

#include "campaign/checks.h"

namespace orbix::campaign {

namespace {

constexpr std::string_view causes[] = {"none",       "internal",  "usage",   "port",
                                       "file",       "no_sync",   "refused", "transfer",
                                       "time_limit", "no_result", "stopped"};

constexpr std::string_view phases[] = {"queued", "connect", "sync", "erase",
                                       "write",  "verify",  "done"};

/// Lines of orbix_flash that stand for a phase, whatever the family.
struct PhaseMark {
    std::string_view begin;
    std::string_view phase;
};
constexpr PhaseMark phase_marks[] = {
    {"[INFO] Waiting for Sync...", "sync"},
    {"[INFO] Start to EraseAPP...", "erase"},
    {"[INFO] Erase Flash...", "erase"},
    {"[INFO] Upgrade success!", "verify"},
};

std::ptrdiff_t place_of(std::span<const std::string_view> names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) - names.begin();
}

/// What the records say of one attempt.
struct Attempt {
    const Json* start = nullptr;
    const Json* end = nullptr;  ///< "attempt_failed", or "result"
    std::vector<const Json*> between;
};

/// A port's records, attempt by attempt.
std::vector<Attempt> attempts_of(const std::vector<Json>& records, const std::string& port) {
    std::vector<Attempt> attempts;
    for (const Json& record : records) {
        if (record.value("port", "") != port) {
            continue;
        }
        const std::string event = record["event"];
        if (event == "start") {
            attempts.push_back({.start = &record, .end = nullptr, .between = {}});
        } else if (attempts.empty()) {
            continue;
        } else if (event == "attempt_failed" || event == "result") {
            attempts.back().end = &record;
        } else {
            attempts.back().between.push_back(&record);
        }
    }
    return attempts;
}

void check_port_order(const std::vector<Json>& records, const std::string& port,
                      Findings& findings) {
    const auto add = [&](const std::string& what) { findings.push_back(port + ": " + what); };
    int attempt = 0;
    bool running = false;
    std::size_t results = 0;
    std::ptrdiff_t phase = 0;
    for (const Json& record : records) {
        if (record.value("port", "") != port) {
            continue;
        }
        const std::string event = record["event"];
        if (results != 0) {
            add("\"" + event + "\" behind the result");
        }
        if (event == "start") {
            if (running || record["attempt"] != ++attempt) {
                add("a start out of turn: " + record.dump());
            }
            running = true;
            phase = 0;
        } else if (event == "result") {
            ++results;
            if (!running || record["attempts"] != attempt) {
                add("a result out of turn: " + record.dump());
            }
            running = false;
        } else if (!running || record["attempt"] != attempt) {
            add("out of turn: " + record.dump());
        } else if (event == "attempt_failed") {
            running = false;
        } else if (event == "phase") {
            const auto next = place_of(phases, record["phase"].get<std::string>());
            if (next <= phase || next >= place_of(phases, "done")) {
                add("a phase out of order: " + record.dump());
            }
            phase = next;
        } else if (record.contains("phase") &&
                   place_of(phases, record["phase"].get<std::string>()) != phase) {
            add("of another phase: " + record.dump());
        }
    }
    if (results != 1) {
        add(std::to_string(results) + " results");
    }
}

/// The SPEED lines of an output: bytes done, and bytes in all.
using Speed = std::pair<std::uint64_t, std::uint64_t>;

std::vector<Speed> speeds_in(const std::vector<LogLine>& lines) {
    std::vector<Speed> speeds;
    for (const LogLine& line : lines) {
        const std::string text(line.text);
        unsigned long long done = 0;
        unsigned long long total = 0;
        if (std::sscanf(text.c_str(), "[SPEED] %llu Bytes/%llu Bytes", &done, &total) == 2) {
            speeds.emplace_back(done, total);
        }
    }
    return speeds;
}

void check_attempt(const Attempt& attempt, Findings& findings) {
    const Json& end = *attempt.end;
    const auto add = [&](const std::string& what) {
        findings.push_back(end["port"].get<std::string>() + ": " + what + ": " + end.dump());
    };
    if (!end["log"].is_string()) {
        add("no log");
        return;
    }
    const std::string output = sim::read_text(end["log"]);
    const auto word = last_word(output);
    const std::string cause = end["cause"];
    if ((end["result"] == "success") != (cause == "none")) {
        add("result and cause do not agree");
    }
    // A success of orbix_flash that could not begin is none: a few families say so.
    const bool could_not_begin = cause == "usage" || cause == "port" || cause == "file";
    const bool said_success = word && word->success;
    if (end["result"] == "success" ? !said_success : said_success && !could_not_begin) {
        add("orbix_flash says otherwise");
    }
    const bool ended_by_force = cause == "time_limit" || cause == "stopped";
    if (word && !ended_by_force && (cause == "no_result" || cause == "internal")) {
        add("there was a result line");
    }
    if (!word && !ended_by_force && cause != "no_result" && cause != "internal" &&
        cause != "usage") {
        add("there was no result line");
    }
    if (word && word->code && end["code"] != *word->code) {
        add("another code than that of the FAIL line");
    }

    const std::vector<LogLine> lines = split_lines(output);
    const std::vector<Speed> speeds = speeds_in(lines);
    std::set<std::string> told;
    for (const Json* record : attempt.between) {
        if ((*record)["event"] == "phase") {
            told.insert((*record)["phase"]);
        }
        if ((*record)["event"] == "progress" && (*record)["bytes"] != 0) {
            const Speed speed{(*record)["bytes"], (*record)["bytes_total"]};
            if (std::find(speeds.begin(), speeds.end(), speed) == speeds.end()) {
                add("progress that orbix_flash has not made: " + record->dump());
            }
        }
    }
    if (!speeds.empty() && !told.contains("write")) {
        add("the phase \"write\" is lost");
    }
    for (const PhaseMark& mark : phase_marks) {
        const bool reached = std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
            return line.stamp_ms && line.text.starts_with(mark.begin);
        });
        if (reached && !told.contains(std::string(mark.phase))) {
            add("the phase \"" + std::string(mark.phase) + "\" is lost");
        }
    }
    if (end["result"] == "success" && !speeds.empty() &&
        end["bytes"].get<std::uint64_t>() < speeds.back().first) {
        add("fewer bytes than the last SPEED line has");
    }
}

}  // namespace

std::optional<int> status_of(std::string_view cause) {
    const auto place = place_of(causes, cause);
    return place < std::ssize(causes) ? std::optional(static_cast<int>(place)) : std::nullopt;
}

std::vector<Json> read_records(const std::string& path, Findings& findings) {
    std::vector<Json> records;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        Json record = Json::parse(line, nullptr, false);
        if (!record.is_object() || record.value("schema", 0) != 1 || !record.contains("event")) {
            findings.push_back("no record: " + line);
        } else {
            records.push_back(std::move(record));
        }
    }
    return records;
}

const Json* result_of(const std::vector<Json>& records, const std::string& port) {
    const auto found = std::find_if(records.begin(), records.end(), [&](const Json& record) {
        return record["event"] == "result" && record["port"] == port;
    });
    return found != records.end() ? &*found : nullptr;
}

std::optional<LastWord> last_word(std::string_view output) {
    if (!output.ends_with('\n')) {
        return std::nullopt;
    }
    std::vector<LogLine> lines = split_lines(output);
    std::erase_if(lines, [](const LogLine& line) { return line.text.starts_with("hint: "); });
    if (lines.empty() || !lines.back().stamp_ms) {
        return std::nullopt;
    }
    std::string_view text = lines.back().text;
    for (const std::string_view what : {"upgrade", "readback"}) {
        const std::string begin = "[FAIL] orbix_flash " + std::string(what) + " fail,ret:[";
        if (text == "[SUCCESS] orbix_flash " + std::string(what) + " success") {
            return LastWord{.success = true, .code = std::nullopt};
        }
        int code = 0;
        if (text.starts_with(begin) && text.ends_with(']') &&
            std::from_chars(text.data() + begin.size(), text.data() + text.size(), code).ec ==
                std::errc()) {
            return LastWord{.success = false, .code = code};
        }
    }
    return std::nullopt;
}

void check_order(const std::vector<Json>& records, const std::vector<std::string>& ports,
                 int exit_status, Findings& findings) {
    for (const std::string& port : ports) {
        check_port_order(records, port, findings);
    }
    int good = 0;
    int bad = 0;
    int worst = 0;
    for (const Json& record : records) {
        const std::string port = record.value("port", "");
        if (!port.empty() && std::find(ports.begin(), ports.end(), port) == ports.end()) {
            findings.push_back("a record of a port that was not asked for: " + record.dump());
        }
        if (record["event"] == "result") {
            ++(record["result"] == "success" ? good : bad);
            worst = std::max(worst, status_of(record["cause"].get<std::string>()).value_or(99));
        }
    }
    if (exit_status != worst) {
        findings.push_back("exit status " + std::to_string(exit_status) + ", the worst cause is " +
                           std::to_string(worst));
    }
    if (records.empty() || records.back()["event"] != "summary" || records.back()["good"] != good ||
        records.back()["bad"] != bad || records.back()["exit_status"] != worst) {
        findings.push_back("no summary at the end, or one that does not fit: " +
                           (records.empty() ? "" : records.back().dump()));
    }
}

void check_against_logs(const std::vector<Json>& records, Findings& findings) {
    std::set<std::string> ports;
    for (const Json& record : records) {
        ports.insert(record.value("port", ""));
    }
    ports.erase("");
    for (const std::string& port : ports) {
        for (const Attempt& attempt : attempts_of(records, port)) {
            if (attempt.end != nullptr) {
                check_attempt(attempt, findings);
            }
        }
    }
}

// --- the page ------------------------------------------------------------------------------------

Json page_state(int port) {
    httplib::Client client("127.0.0.1", port);
    const auto answer = client.Get("/state");
    return answer ? Json::parse(answer->body) : Json();
}

void PageWatcher::follow(int port) {
    httplib::Client client("127.0.0.1", port);
    client.set_read_timeout(std::chrono::minutes(5));
    client.Get("/events", [this](const char* bytes, std::size_t size) {
        pending_.append(bytes, size);
        for (std::size_t end = pending_.find("\n\n"); end != std::string::npos;
             end = pending_.find("\n\n")) {
            const std::string block = pending_.substr(0, end);
            pending_.erase(0, end + 2);
            const std::size_t name = block.find("event: ");
            const std::size_t data = block.find("\ndata: ");
            if (name != std::string::npos && data != std::string::npos) {
                take(block.substr(name + 7, data - name - 7), Json::parse(block.substr(data + 7)));
            }
        }
        return true;
    });
}

void PageWatcher::take(const std::string& name, const Json& data) {
    ++events_;
    if (name == "ended") {
        ended_ = true;
        return;
    }
    good_ = data["good"];
    bad_ = data["bad"];
    for (const Json& row : data["rows"]) {
        Json& before = rows_[row["port"]];
        const bool same_attempt = before.is_object() && before["attempt"] == row["attempt"];
        const bool again = row["phase"] == "queued";  // it waits for its next attempt
        if (same_attempt && !again &&
            place_of(phases, row["phase"].get<std::string>()) <
                place_of(phases, before["phase"].get<std::string>())) {
            disorder_.push_back("the page steps back: " + row.dump());
        }
        before = row;
    }
}

void PageWatcher::check(const std::vector<Json>& records, const std::vector<std::string>& ports,
                        Findings& findings) const {
    findings.insert(findings.end(), disorder_.begin(), disorder_.end());
    if (!ended_) {
        findings.push_back("the page was not told of the end");
    }
    for (const std::string& port : ports) {
        const Json* const result = result_of(records, port);
        const auto row = rows_.find(port);
        if (result == nullptr || row == rows_.end()) {
            findings.push_back(port + ": the page has no such row, or there is no result");
            continue;
        }
        const Json& shown = row->second;
        if (shown["phase"] != "done" || shown["cause"] != (*result)["cause"] ||
            shown["message"] != (*result)["message"] || shown["attempt"] != (*result)["attempts"] ||
            shown["model"] != (*result)["model"]) {
            findings.push_back(port + ": the page ended with " + shown.dump());
        }
    }
    const auto good = std::count_if(records.begin(), records.end(), [](const Json& record) {
        return record["event"] == "result" && record["result"] == "success";
    });
    if (good_ != good || bad_ != std::ssize(ports) - good) {
        findings.push_back("the page counts " + std::to_string(good_) + " good and " +
                           std::to_string(bad_) + " bad");
    }
}

}  // namespace orbix::campaign
