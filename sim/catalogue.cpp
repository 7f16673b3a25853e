#include "catalogue.h"

#include <algorithm>
#include <array>

#include "ag33xx_modules.h"
#include "core/support_table.h"

namespace orbix::sim {

namespace {

template <typename Simulated>
std::unique_ptr<Model> make(std::string_view /*name*/) {
    return std::make_unique<Simulated>();
}

std::unique_ptr<Model> make_ag3335(std::string_view name) {
    Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {115200, 921600, 460800, 230400, 1'500'000, 3'000'000};
    settings.runs_firmware = name == "TR75XBA-SR01" || name == "TR75XBA-SR02";
    return std::make_unique<Ag3335Module>(settings);
}

/// One maker per row of the table of models, in its order; null where nothing is simulated yet.
using Maker = std::unique_ptr<Model> (*)(std::string_view name);
constexpr std::array<Maker, 12> makers{
    make_ag3335,         // AG3335
    make<Ag3352Module>,  // AG3352
    nullptr,             // HD8xx0
    nullptr,             // GNSS module evaluation board
    nullptr,             // monitor, first variant
    nullptr,             // monitor, second variant
    nullptr,             // RX7040
    nullptr,             // STA8100
    nullptr,             // STA9100
    nullptr,             // STA8089
    nullptr,             // ZPX710P
    nullptr,             // RTA500C
};

}  // namespace

std::unique_ptr<Model> make_model(std::string_view name) {
    const SupportRow* row = find_model(name);
    if (row == nullptr) {
        return nullptr;
    }
    const Maker maker = makers[static_cast<std::size_t>(row - support_table.data())];
    return maker != nullptr ? maker(name) : nullptr;
}

}  // namespace orbix::sim
