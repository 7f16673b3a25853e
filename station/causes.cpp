#include "causes.h"

#include <algorithm>
#include <array>

namespace orbix::station {

namespace {

struct Words {
    std::string_view name;
    std::string_view words;
};

constexpr std::array<Words, 11> causes = {{
    {"none", "flashed"},
    {"internal", "the station itself failed"},
    {"usage", "wrong arguments"},
    {"port", "the port could not be opened"},
    {"file", "a firmware file could not be used"},
    {"no_sync", "the module did not answer"},
    {"refused", "the module refused"},
    {"transfer", "the transfer broke off"},
    {"time_limit", "over the time limit"},
    {"no_result", "orbix_flash ended without a result"},
    {"stopped", "stopped by the operator"},
}};

}  // namespace

std::string_view cause_name(Cause cause) {
    return causes.at(static_cast<std::size_t>(cause)).name;
}

std::string_view cause_words(Cause cause) {
    return causes.at(static_cast<std::size_t>(cause)).words;
}

Cause worse(Cause one, Cause other) {
    return std::max(one, other);
}

}  // namespace orbix::station
