// The RTA500C family: one way of writing firmware, the upgrade dialogue with the module's running
// firmware, into the flash area named with -c.
#pragma once

namespace orbix::rta500c {

/// Returns 0; 258 for missing parameters, 259 for firmware that cannot be read, 260 for a port that
/// cannot be opened; -1 for an unknown option or area, no area, or a step that failed.
int rta500c_upgrade(int argc, char** argv);

}  // namespace orbix::rta500c
