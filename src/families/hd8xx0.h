// The HD8xx0 family: firmware packages that are unpacked in memory and written through the boot
// loader, through the running firmware, or to the processors of a dual-processor module.
#pragma once

namespace orbix::hd8xx0 {

/// The family's entry. Returns 0 or the update procedure's result; 258: parameters missing;
/// 259: a package cannot be accessed; 260: the port cannot be opened; 262: a package cannot be
/// unpacked (the port then stays open).
int hd8xx0_upgrade(int argc, char** argv);

}  // namespace orbix::hd8xx0
