#include "families/not_built.h"

#include "core/kv_log.h"

namespace orbix {

namespace {

int not_built(const char* entry) {
    log_error("%s is not built yet\n", entry);
    return -1;
}

}  // namespace

namespace hd8xx0 {
int hd8xx0_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("hd8xx0_upgrade");
}
}  // namespace hd8xx0

namespace sta8100 {
int sta8100_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("sta8100_upgrade");
}
}  // namespace sta8100

namespace sta9100 {
int sta9100_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("sta9100_upgrade");
}
}  // namespace sta9100

namespace sta8089 {
int sta8089_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("sta8089_upgrade");
}
}  // namespace sta8089

namespace rta500c {
int rta500c_upgrade(int /*argc*/, char** /*argv*/) {
    return not_built("rta500c_upgrade");
}
}  // namespace rta500c

}  // namespace orbix
