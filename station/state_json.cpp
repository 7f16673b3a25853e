#include "state_json.h"

namespace orbix::station {

namespace {

constexpr int schema = 1;

double seconds_of(const Row& row, Clock::time_point now) {
    const bool running = row.phase != Phase::queued && row.phase != Phase::done;
    return running ? std::chrono::duration<double>(now - row.started).count() : row.seconds;
}

}  // namespace

nlohmann::json row_json(const Row& row, Clock::time_point now) {
    return {{"port", row.port},
            {"model", row.model},
            {"phase", phase_name(row.phase)},
            {"waiting_for", row.waiting_for},
            {"percent", row.percent},
            {"bytes_done", row.bytes_done},
            {"bytes_total", row.bytes_total},
            {"kbytes_per_second", row.kbytes_per_second},
            {"attempt", row.attempt},
            {"seconds", seconds_of(row, now)},
            {"cause", cause_name(row.cause)},
            {"cause_words", cause_words(row.cause)},
            {"code", row.code},
            {"message", row.message},
            {"last_lines", row.last_lines}};
}

nlohmann::json changes_json(const Changes& changes, Clock::time_point now) {
    nlohmann::json rows = nlohmann::json::array();
    for (const Row& row : changes.rows) {
        rows.push_back(row_json(row, now));
    }
    return {
        {"schema", schema},        {"good", changes.counters.good}, {"bad", changes.counters.bad},
        {"ended", changes.closed}, {"ports", changes.ports},        {"rows", std::move(rows)}};
}

std::string json_line(const nlohmann::json& json) {
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace orbix::station
