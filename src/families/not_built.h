// Entries of the families that are not built yet: each prints one ERROR line and fails.
#pragma once

namespace orbix::ag3335 {
int ag3335_upgrade(int argc, char** argv);
int ag3335_readback(int argc, char** argv);
}  // namespace orbix::ag3335

namespace orbix::evb {
int GNSS_MODULE_EVB_Upgrade(int argc, char** argv);
}  // namespace orbix::evb

namespace orbix::monitor {
int monitor1_entry(int argc, char** argv);
int monitor2_entry(int argc, char** argv);
}  // namespace orbix::monitor

namespace orbix::rx7040 {
int rx7040_entry(int argc, char** argv);
}  // namespace orbix::rx7040

namespace orbix::zpx710p {
int zpx710p_entry(int argc, char** argv);
}  // namespace orbix::zpx710p
