#include "records.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "system.h"

namespace orbix::station {

namespace {

using Json = nlohmann::ordered_json;

constexpr int schema = 1;

struct TimeOfDay {
    std::tm utc{};
    int milliseconds = 0;
};

TimeOfDay time_of_day() {
    const auto now = std::chrono::system_clock::now();
    const auto whole = std::chrono::floor<std::chrono::seconds>(now);
    const std::time_t seconds = std::chrono::system_clock::to_time_t(whole);
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(now - whole);
    return {.utc = *std::gmtime(&seconds), .milliseconds = static_cast<int>(rest.count())};
}

std::string formatted(const char* format) {
    std::array<char, 32> text{};
    const TimeOfDay now = time_of_day();
    const std::size_t length = std::strftime(text.data(), text.size(), format, &now.utc);
    return {text.data(), length};
}

double rounded(double value, double steps) {
    return std::round(value * steps) / steps;
}

Json event(const char* name) {
    return {{"schema", schema}, {"event", name}, {"time", record_time()}};
}

Json event_of(const char* name, const Row& row) {
    Json json = event(name);
    json["port"] = row.port;
    json["model"] = row.model;
    json["attempt"] = row.attempt;
    return json;
}

Json described(const std::vector<HashedFile>& files) {
    Json list = Json::array();
    for (const HashedFile& file : files) {
        const bool readable = !file.sha256.empty();
        list.push_back({{"path", file.path},
                        {"bytes", readable ? Json(file.size) : Json(nullptr)},
                        {"sha256", readable ? Json(file.sha256) : Json(nullptr)}});
    }
    return list;
}

void add_transfer(Json& json, const Row& row) {
    json["phase"] = phase_name(row.phase);
    json["percent"] = rounded(row.percent, 100);
    json["bytes"] = row.bytes_done;
    json["bytes_total"] = row.bytes_total;
    json["kbytes_per_second"] = rounded(row.kbytes_per_second, 10);
}

/// The names of files may hold bytes that are no UTF-8; they are replaced.
std::string text_of(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

void add_outcome(Json& json, const Row& row, const RunFacts& facts) {
    json["firmware"] = described(facts.firmware);
    json["bytes"] = facts.bytes;
    json["seconds"] = rounded(row.seconds, 1000);
    json["result"] = row.cause == Cause::none ? "success" : "fail";
    json["code"] = facts.has_code ? Json(row.code) : Json(nullptr);
    json["cause"] = cause_name(row.cause);
    json["message"] = row.message;
    json["hint"] = facts.hint;
    json["log"] = facts.log_file.empty() ? Json(nullptr) : Json(facts.log_file);
}

}  // namespace

std::string record_time() {
    const TimeOfDay now = time_of_day();
    std::array<char, 32> day{};
    std::strftime(day.data(), day.size(), "%Y-%m-%dT%H:%M:%S", &now.utc);
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%s.%03dZ", day.data(), now.milliseconds);
    return text.data();
}

std::string file_time() {
    return formatted("%Y%m%dT%H%M%SZ");
}

Records::Records(const std::string& path) : path_(path == "-" ? "standard output" : path) {
    if (path.empty()) {
        return;
    }
    file_ = path == "-" ? stdout : system::append_to_file(path);
    if (file_ == nullptr) {
        throw std::runtime_error("cannot write the records to " + path_ + ": " +
                                 std::strerror(errno));
    }
}

Records::~Records() {
    if (file_ != nullptr && file_ != stdout) {
        std::fclose(file_);
    }
}

void Records::write(const std::string& line) {
    if (failed_) {
        return;
    }
    if (std::fwrite(line.data(), 1, line.size(), file_) != line.size() || std::fflush(file_) != 0) {
        failed_ = true;
        throw std::runtime_error("cannot write the records to " + path_ + ": " +
                                 std::strerror(errno));
    }
}

void Records::start(const Row& row, const RunFacts& facts,
                    const std::vector<std::string>& command) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("start", row);
    json["command"] = command;
    json["firmware"] = described(facts.firmware);
    write(text_of(json));
}

void Records::phase(const Row& row) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("phase", row);
    json["phase"] = phase_name(row.phase);
    write(text_of(json));
}

void Records::progress(const Row& row) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("progress", row);
    add_transfer(json, row);
    write(text_of(json));
}

void Records::waiting(const Row& row) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("waiting", row);
    json["phase"] = phase_name(row.phase);
    json["for"] = row.waiting_for;
    write(text_of(json));
}

void Records::attempt_failed(const Row& row, const RunFacts& facts) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("attempt_failed", row);
    add_outcome(json, row, facts);
    write(text_of(json));
}

void Records::result(const Row& row, const RunFacts& facts) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event_of("result", row);
    json.erase("attempt");
    add_outcome(json, row, facts);
    json["attempts"] = row.attempt;
    write(text_of(json));
}

void Records::summary(const Counters& counters, double seconds, Cause worst) {
    if (file_ == nullptr) {
        return;
    }
    Json json = event("summary");
    json["good"] = counters.good;
    json["bad"] = counters.bad;
    json["seconds"] = rounded(seconds, 1000);
    json["cause"] = cause_name(worst);
    json["exit_status"] = static_cast<int>(worst);
    write(text_of(json));
}

}  // namespace orbix::station
