// The STA8100 family: four ways of writing firmware. With -c a flash area is written, by the
// module's running firmware or, for "app_boot", by the application processor's serial boot loader.
// Without it the GNSS chip is written through the boot loader in its flash (-t recovery, -t normal)
// or through its boot ROM (-t boot).
#pragma once

namespace orbix::sta8100 {

/// Returns 0; 258 for missing parameters, 259 for firmware that cannot be read, 260 for a port that
/// cannot be opened; -1 for every other failure.
int sta8100_upgrade(int argc, char** argv);

}  // namespace orbix::sta8100
