// The STA8089 family: an upgrade through the boot loader in the module's flash, or through the
// chip's boot ROM (mode "boot").
#pragma once

namespace orbix::sta8089 {

/// The family's entry. Returns 0 (also after the usage text), 258 for missing parameters, 259 for a
/// firmware file that cannot be read, 260 when the port cannot be opened, -1 on other failures.
int sta8089_upgrade(int argc, char** argv);

}  // namespace orbix::sta8089
