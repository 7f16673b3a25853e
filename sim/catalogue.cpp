#include "catalogue.h"

#include <algorithm>
#include <array>

#include "ag33xx_modules.h"
#include "core/support_table.h"
#include "evaluation_board.h"
#include "hd8xx0_module.h"
#include "monitor_module.h"
#include "rx7040_module.h"
#include "sta8100_module.h"
#include "teseo_chip.h"
#include "upgrade_agent.h"
#include "zpx710p.h"

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

std::unique_ptr<Model> make_hd8xx0(std::string_view name) {
    return std::make_unique<Hd8xx0Module>(Hd8xx0Module::Settings{.variant = hd8xx0_variant(name)});
}

template <const auto& reset_header>
std::unique_ptr<Model> make_monitor(std::string_view /*name*/) {
    return std::make_unique<MonitorModule>(MonitorModule::Behaviour{.reset_header = reset_header});
}

std::unique_ptr<Model> make_sta8100(std::string_view name) {
    return std::make_unique<Sta8100Module>(name);
}

std::unique_ptr<Model> make_sta9100(std::string_view /*name*/) {
    return std::make_unique<TeseoChip>(TeseoChip::sta9100());
}

std::unique_ptr<Model> make_sta8089(std::string_view /*name*/) {
    return std::make_unique<TeseoChip>(TeseoChip::sta8089());
}

/// One maker per row of the table of models, in its order.
using Maker = std::unique_ptr<Model> (*)(std::string_view name);
constexpr std::array<Maker, 12> makers{
    make_ag3335,                                  // AG3335
    make<Ag3352Module>,                           // AG3352
    make_hd8xx0,                                  // HD8xx0
    make<EvaluationBoard>,                        // GNSS module evaluation board
    make_monitor<MonitorModule::first_variant>,   // monitor, first variant
    make_monitor<MonitorModule::second_variant>,  // monitor, second variant
    make<Rx7040Module>,                           // RX7040
    make_sta8100,                                 // STA8100
    make_sta9100,                                 // STA9100
    make_sta8089,                                 // STA8089
    make<Zpx710p>,                                // ZPX710P
    make<UpgradeAgent>,                           // RTA500C
};

}  // namespace

std::unique_ptr<Model> make_model(std::string_view name) {
    const SupportRow* row = find_model(name);
    if (row == nullptr) {
        return nullptr;
    }
    return makers[static_cast<std::size_t>(row - support_table.data())](name);
}

}  // namespace orbix::sim
