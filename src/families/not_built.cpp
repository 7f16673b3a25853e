#include "families/not_built.h"

#include "core/kv_log.h"
#include "upgrade/ag3352.h"

namespace orbix {

namespace {

int not_built(const char* entry) {
    log_error("%s is not built yet\n", entry);
    return -1;
}

}  // namespace

namespace ag3335 {
int ag3335_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("ag3335_upgrade");
}
int ag3335_readback(int /*argc*/, char** /*argv*/) {
    return not_built("ag3335_readback");
}
}  // namespace ag3335

namespace ag3352 {
int ag3352_download(int /*argc*/, char** /*argv*/) {
    return not_built("ag3352_download");
}
int ag3352_readback(int /*argc*/, char** /*argv*/) {
    return not_built("ag3352_readback");
}
}  // namespace ag3352

namespace evb {
int GNSS_MODULE_EVB_Upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("GNSS_MODULE_EVB_Upgrade");
}
}  // namespace evb

namespace monitor {
int monitor1_entry(int /*argc*/, char** /*argv*/) {
    return not_built("monitor1_entry");
}
int monitor2_entry(int /*argc*/, char** /*argv*/) {
    return not_built("monitor2_entry");
}
}  // namespace monitor

namespace rx7040 {
int rx7040_entry(int /*argc*/, char** /*argv*/) {
    return not_built("rx7040_entry");
}
}  // namespace rx7040

namespace zpx710p {
int zpx710p_entry(int /*argc*/, char** /*argv*/) {
    return not_built("zpx710p_entry");
}
}  // namespace zpx710p

}  // namespace orbix
