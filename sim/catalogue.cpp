#include "catalogue.h"

#include <algorithm>
#include <array>

#include "app_loader.h"
#include "core/support_table.h"
#include "hd8xx0_module.h"
#include "sta8100_module.h"
#include "teseo_chip.h"
#include "upgrade_agent.h"

namespace orbix::sim {

namespace {

template <typename Simulated>
std::unique_ptr<Model> make(std::string_view /*name*/) {
    return std::make_unique<Simulated>();
}

std::unique_ptr<Model> make_hd8xx0(std::string_view name) {
    return std::make_unique<Hd8xx0Module>(Hd8xx0Module::Settings{.variant = hd8xx0_variant(name)});
}

std::unique_ptr<Model> make_sta8100(std::string_view name) {
    return std::make_unique<Sta8100Module>(name);
}

std::unique_ptr<Model> make_sta8089(std::string_view /*name*/) {
    return std::make_unique<TeseoChip>(TeseoChip::sta8089());
}

std::unique_ptr<Model> make_sta9100(std::string_view /*name*/) {
    return std::make_unique<TeseoChip>(TeseoChip::sta9100());
}

/// One maker per row of the table of models, in its order; null where nothing is simulated yet.
using Maker = std::unique_ptr<Model> (*)(std::string_view name);
constexpr std::array<Maker, 12> makers{
    nullptr,             // AG3335
    make<AppLoader>,     // AG3352
    make_hd8xx0,         // HD8xx0
    nullptr,             // GNSS module evaluation board
    nullptr,             // monitor, first variant
    nullptr,             // monitor, second variant
    nullptr,             // RX7040
    make_sta8100,        // STA8100
    make_sta9100,        // STA9100
    make_sta8089,        // STA8089
    nullptr,             // ZPX710P
    make<UpgradeAgent>,  // RTA500C
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
