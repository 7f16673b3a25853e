// Entries of the families that are not built yet: each prints one ERROR line and fails.
#pragma once

namespace orbix::hd8xx0 {
int hd8xx0_upgrade(int argc, char** argv);
}  // namespace orbix::hd8xx0

namespace orbix::sta8100 {
int sta8100_upgrade(int argc, char** argv);
}  // namespace orbix::sta8100

namespace orbix::sta9100 {
int sta9100_upgrade(int argc, char** argv);
}  // namespace orbix::sta9100

namespace orbix::sta8089 {
int sta8089_upgrade(int argc, char** argv);
}  // namespace orbix::sta8089

namespace orbix::rta500c {
int rta500c_upgrade(int argc, char** argv);
}  // namespace orbix::rta500c
