#include "core/kv_log.h"
#include "core/options.h"
#include "upgrade/ag3352.h"

namespace orbix::ag3352 {

int ag3352_entry(int argc, char** argv) {
    log_info("entry function\n");
    const std::string mode = mode_word(argc, argv);
    if (contains_either(mode, "UPG", "upgrade")) {
        return ag3352_upgrade(argc, argv);
    }
    if (!contains_either(mode, "DL", "download")) {
        log_info("No upgrade mode specified, use default download mode\n");
    }
    return ag3352_download(argc, argv);
}

}  // namespace orbix::ag3352
