#include "ag3335/access.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/kv_log.h"

namespace orbix {

bool check_access(const char* path) {
    if (access(path, R_OK) == 0) {
        return true;
    }
    const int reason = errno;
    log_error("fail to access %s, errno: %d (%s)\n", path, reason, std::strerror(reason));
    return false;
}

}  // namespace orbix
