// The two lines that follow each piece of a transfer.
#pragma once

#include "core/kv_log.h"

namespace orbix {

/// PROGRESS and SPEED after `done` of `total` bytes; `total` is not 0.
inline void log_transfer(int done, int total) {
    log_progress(100.0F * static_cast<float>(done) / static_cast<float>(total), LineEnd::crlf);
    log_speed(done, total, rounded_kbytes(done), flash_tool_secs());
}

}  // namespace orbix
