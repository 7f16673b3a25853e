// What the entries of the Teseo families have in common: the options that all of them take, and
// the checks before the dialogue.
#pragma once

#include <string>

#include "core/kv_uart.h"

namespace orbix::teseo {

/// Results of `open_module`.
inline constexpr int parameters_missing = 258;
inline constexpr int firmware_not_readable = 259;
inline constexpr int port_not_opened = 260;

/// What the shared options set.
struct CommonOptions {
    std::string firmware;  ///< at most 255 characters
    std::string port;      ///< at most 20 characters
    int baud = 0;          ///< bits a second
};

/// Takes -m, -p, -f, -b or -D and prints its line. -m is printed only. Returns false for every
/// other letter.
bool take_common_option(int letter, const char* value, CommonOptions& options);

/// Checks the parameters and opens the port. Returns 0 with the port in `handle`, or a code of
/// those above after an ERROR line; `missing` is the line for a missing parameter.
int open_module(const CommonOptions& options, const char* missing, SerialHandle& handle);

}  // namespace orbix::teseo
