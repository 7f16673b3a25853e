// What the board holds, as JSON: for the page, and for every record that tells of a port.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "board.h"

namespace orbix::station {

/// One row. "seconds" is the time of the attempt: up to now, or, once it is over, all of it.
nlohmann::json row_json(const Row& row, Clock::time_point now);

/// What is new on the board, with the version of this schema; the whole state when the changes were
/// asked for since version 0.
nlohmann::json changes_json(const Changes& changes, Clock::time_point now);

/// As one line. Bytes that are no UTF-8 are replaced: modules send what they like.
std::string json_line(const nlohmann::json& json);

}  // namespace orbix::station
