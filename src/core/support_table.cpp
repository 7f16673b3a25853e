#include "core/support_table.h"

#include "ag3335/ag3335.h"
#include "families/gnss_module_evb.h"
#include "families/hd8xx0.h"
#include "families/monitor.h"
#include "families/rx7040.h"
#include "teseo/rta500c.h"
#include "teseo/sta8089.h"
#include "teseo/sta8100.h"
#include "teseo/sta9100.h"
#include "upgrade/ag3352.h"
#include "upgrade/zpx710p.h"

namespace orbix {

const std::array<SupportRow, 12> support_table = {{
    // AG3335
    {{"TR40XBA", "TR40XBB", "TR40XCA",      "TR40XDA",      "TR41XBA", "TR41XCA", "TR42XAA",
      "TR42XBA", "TR45XBA", "TR45XCA",      "TR50XBA",      "TR50XDA", "TR60XBA", "TR60XCA",
      "TR71KXM", "TR71LXM", "TR75XBA-SR01", "TR75XBA-SR02", "TR80XBA", "TR80XCA"},
     ag3335::ag3335_upgrade,
     ag3335::ag3335_readback,
     "ag3335",
     "-b 115200 -d fw -s da_uart.bin"},
    // AG3352
    {{"TR52G", "TR52GA", "TR52GB", "TR52GC", "TR52D", "TR52L", "TR53G", "TR53GA", "TR53D", "TR54G",
      "TR54D", "TR55G", "TR55GA", "TR56G", "TR57G", "TR58G"},
     ag3352::ag3352_entry,
     ag3352::ag3352_readback,
     "ag3352",
     "-b 115200 -f app.bin -t UPG"},
    // HD8xx0
    {{"MX210A00", "MX210B00", "MX211A00", "MX211B00", "MX220A00", "MX220B00",
      "MX221A00", "MX230A00", "MX230B00", "MX240A00", "MX240B00", "MX241A00",
      "MX250A00", "MX250B00", "MX260A00", "MX260B00", "MX260C00", "MX260C01",
      "MX270A00", "MX270B00", "MX280A00", "MX280B00", "MX285A00"},
     hd8xx0::hd8xx0_upgrade,
     nullptr,
     "hd8xx0",
     "-b 115200 -f app.cyfm -t user"},
    // GNSS module evaluation board
    {{"GNSS-MODULE-EVB"},
     evb::GNSS_MODULE_EVB_Upgrade,
     nullptr,
     "evaluation-board",
     "-b 115200 -f app.bin"},
    // Monitor, first variant
    {{"MN10A", "MN10B"},
     monitor::monitor1_entry,
     nullptr,
     "monitor",
     "-b 115200 -f app.bin -t APP -r AUTO"},
    // Monitor, second variant
    {{"MN20A", "MN20B"},
     monitor::monitor2_entry,
     nullptr,
     "monitor",
     "-b 115200 -f app.bin -t APP -r AUTO"},
    // RX7040
    {{"MX290A", "MX290B", "MX291A", "MX291B", "MX295A", "MX295B"},
     rx7040::rx7040_entry,
     nullptr,
     "rx7040",
     "-b 115200 -f app.pkg -t UPG"},
    // ST Teseo STA8100
    {{"TS50A", "TS50A-EXT", "TS50B", "TS50C", "TS51A", "TS51B", "TS52A", "TS52A-L", "TS52B",
      "TS60A", "TS60A-H", "TS60B", "TS61A", "TS61B", "TS62A", "TS62B", "TS65A", "TS65B"},
     sta8100::sta8100_upgrade,
     nullptr,
     "sta8100",
     "-b 115200 -f app.bin -t normal"},
    // ST Teseo STA9100
    {{"TS90B"}, sta9100::sta9100_upgrade, nullptr, "sta9100", "-b 115200 -f app.bin"},
    // ST Teseo STA8089
    {{"TS30A", "TS30B", "TS30C", "TS30D", "TS31A", "TS31B", "TS32A", "TS32B", "TS33A", "TS35A",
      "TS35B"},
     sta8089::sta8089_upgrade,
     nullptr,
     "sta8089",
     "-b 115200 -f app.bin -t normal"},
    // ZPX710P
    {{"ZPX710P", "ZPX710P-EVB"},
     zpx710p::zpx710p_entry,
     nullptr,
     "zpx710p",
     "-b 115200 -f app.bin -t MCU_UPG"},
    // RTA500C
    {{"RTA500C_EVB_NXP"},
     rta500c::rta500c_upgrade,
     nullptr,
     "rta500c",
     "-b 115200 -f app.bin -c app"},
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
