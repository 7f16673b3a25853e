// The boot loaders that the boot ROM takes into RAM: code of the chip's vendor, sent as it is. It
// is not part of this source; the build is told where the two files are (cmake/ram_loaders.cmake).
// Without them the arrays hold a text that says so, over and over.
#pragma once

#include <array>
#include <cstdint>

namespace orbix::sta9100 {

extern const std::array<std::uint8_t, 10912> sta9100_bootloader_Bx_buffer;
extern const bool sta9100_bootloader_is_placeholder;

extern const std::array<std::uint8_t, 10596> sta8089_bootloader_Bx_buffer;
extern const bool sta8089_bootloader_is_placeholder;

}  // namespace orbix::sta9100
