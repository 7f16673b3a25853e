#include "core/support_table.h"

#include "families/hd8xx0.h"
#include "families/not_built.h"
#include "teseo/rta500c.h"
#include "teseo/sta8089.h"
#include "teseo/sta8100.h"
#include "teseo/sta9100.h"
#include "upgrade/ag3352.h"

namespace orbix {

const std::array<SupportRow, 12> support_table = {{
    // AG3335
    {{"TR40XBA", "TR40XBB", "TR40XCA",      "TR40XDA",      "TR41XBA", "TR41XCA", "TR42XAA",
      "TR42XBA", "TR45XBA", "TR45XCA",      "TR50XBA",      "TR50XDA", "TR60XBA", "TR60XCA",
      "TR71KXM", "TR71LXM", "TR75XBA-SR01", "TR75XBA-SR02", "TR80XBA", "TR80XCA"},
     ag3335::ag3335_upgrade,
     ag3335::ag3335_readback},
    // AG3352
    {{"TR52G", "TR52GA", "TR52GB", "TR52GC", "TR52D", "TR52L", "TR53G", "TR53GA", "TR53D", "TR54G",
      "TR54D", "TR55G", "TR55GA", "TR56G", "TR57G", "TR58G"},
     ag3352::ag3352_entry,
     ag3352::ag3352_readback},
    // HD8xx0
    {{"MX210A00", "MX210B00", "MX211A00", "MX211B00", "MX220A00", "MX220B00",
      "MX221A00", "MX230A00", "MX230B00", "MX240A00", "MX240B00", "MX241A00",
      "MX250A00", "MX250B00", "MX260A00", "MX260B00", "MX260C00", "MX260C01",
      "MX270A00", "MX270B00", "MX280A00", "MX280B00", "MX285A00"},
     hd8xx0::hd8xx0_upgrade,
     nullptr},
    // GNSS module evaluation board
    {{"GNSS-MODULE-EVB"}, evb::GNSS_MODULE_EVB_Upgrade, nullptr},
    // Monitor, first variant
    {{"MN10A", "MN10B"}, monitor::monitor1_entry, nullptr},
    // Monitor, second variant
    {{"MN20A", "MN20B"}, monitor::monitor2_entry, nullptr},
    // RX7040
    {{"MX290A", "MX290B", "MX291A", "MX291B", "MX295A", "MX295B"}, rx7040::rx7040_entry, nullptr},
    // ST Teseo STA8100
    {{"TS50A", "TS50A-EXT", "TS50B", "TS50C", "TS51A", "TS51B", "TS52A", "TS52A-L", "TS52B",
      "TS60A", "TS60A-H", "TS60B", "TS61A", "TS61B", "TS62A", "TS62B", "TS65A", "TS65B"},
     sta8100::sta8100_upgrade,
     nullptr},
    // ST Teseo STA9100
    {{"TS90B"}, sta9100::sta9100_upgrade, nullptr},
    // ST Teseo STA8089
    {{"TS30A", "TS30B", "TS30C", "TS30D", "TS31A", "TS31B", "TS32A", "TS32B", "TS33A", "TS35A",
      "TS35B"},
     sta8089::sta8089_upgrade,
     nullptr},
    // ZPX710P
    {{"ZPX710P", "ZPX710P-EVB"}, zpx710p::zpx710p_entry, nullptr},
    // RTA500C
    {{"RTA500C_EVB_NXP"}, rta500c::rta500c_upgrade, nullptr},
}};

const SupportRow* find_model(std::string_view name) {
    if (name.empty()) {
        return nullptr;
    }
    for (const SupportRow& row : support_table) {
        for (const ModelName& model : row.names) {
            if (name == model) {
                return &row;
            }
        }
    }
    return nullptr;
}

}  // namespace orbix
