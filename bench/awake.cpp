#include "awake.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>

namespace orbix::bench {

AwakeProcessors::AwakeProcessors()
    : descriptor_(open("/dev/cpu_dma_latency", O_WRONLY | O_CLOEXEC)) {
    const std::int32_t most_microseconds = 0;
    if (descriptor_ >= 0 && write(descriptor_, &most_microseconds, sizeof most_microseconds) !=
                                sizeof most_microseconds) {
        close(descriptor_);
        descriptor_ = -1;
    }
}

AwakeProcessors::~AwakeProcessors() {
    if (descriptor_ >= 0) {
        close(descriptor_);
    }
}

}  // namespace orbix::bench
