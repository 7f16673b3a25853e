// The options that all Teseo entries read in the same way.
#pragma once

#include <string>

namespace orbix::teseo {

struct CommonOptions {
    std::string port;
    std::string firmware;
    int baud = 0;

    [[nodiscard]] bool complete() const { return !firmware.empty() && !port.empty() && baud != 0; }
};

/// Takes -p (20 characters count), -f (255 count), -b and -D, each with its line. Returns whether
/// the letter was one of them.
bool take_common_option(int letter, const char* value, CommonOptions& options);

/// Whether the firmware can be opened for reading; a folder cannot. The reason is in `errno`.
bool firmware_readable(const std::string& path);

}  // namespace orbix::teseo
