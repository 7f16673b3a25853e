// The options that both modes of the ZPX710P family take in the same way.
#pragma once

#include <string>

namespace orbix::zpx710p {

struct Options {
    std::string port;
    std::string firmware;
    int baud = 0;
};

/// Takes the option `letter` if it is one of -p, -b, -f, -m and -D, with its line. Port and path
/// are taken as they stand, at any length.
void take_common_option(int letter, const char* value, Options& options);

}  // namespace orbix::zpx710p
