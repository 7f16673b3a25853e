#pragma once

namespace orbix::sim {

/// The rate, in bits a second, that is set on the terminal behind a descriptor; 0 when unknown.
unsigned terminal_rate(int descriptor);

}  // namespace orbix::sim
