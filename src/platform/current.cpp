#include "platform/platform.h"

namespace orbix::platform {

namespace {
const Backend* chosen = nullptr;
}

const Backend& current() {
    return chosen != nullptr ? *chosen : native();
}

void use(const Backend& backend) {
    chosen = &backend;
}

}  // namespace orbix::platform
