#include "core/kv_log.h"
#include "core/options.h"
#include "families/rx7040.h"

namespace orbix::rx7040 {

namespace {

constexpr int no_known_mode = 258;

}  // namespace

int rx7040_entry(int argc, char** argv) {
    log_info("rx7040 entry function\n");
    const std::string mode = mode_word(argc, argv);
    if (contains_either(mode, "UPG", "upgrade")) {
        return upgrade_entry(argc, argv);
    }
    if (contains_either(mode, "DL", "download")) {
        return download_entry(argc, argv);
    }
    log_info("Invalid upgrade mode:%s\n", mode.c_str());
    log_info("You must enter a upgrade mode(-t UPG or -t DL)!\n");
    log_info(
        "Upgrade Ex: .\\orbix_flash -m MX290B -p COM6 -f .\\MX290B03AANR01A02SV01.pkg -b 460800 -t "
        "UPG\n");
    log_info(
        "Download Ex: .\\orbix_flash -m MX290B -p COM6 -L .\\DA_V2.1.10.pkg -f "
        ".\\MX290B03AANR01A02S_BOOT.pkg -t DL\n");
    return no_known_mode;
}

}  // namespace orbix::rx7040
