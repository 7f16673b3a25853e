// Hints for a person, on standard error: one short line where the lines of the standard output
// leave one guessing. Hints change nothing in a run, and a run that goes well has none.
#pragma once

#include <cstdint>
#include <span>

namespace orbix::hints {

/// "hint: " and the text, on standard error. The text ends with a line feed.
[[gnu::format(printf, 1, 2)]] void give(const char* format, ...);

/// Forgets the last run.
void reset();

/// A port could not be opened; `error` is the system's error number.
void port_not_opened(int error);

/// A port is open: what arrives from now on is remembered until the module is understood.
void port_opened();
void received(std::span<const std::uint8_t> bytes);

/// The module has answered its first synchronisation: what arrives is understood.
void synchronised();

/// The run has failed. When the module was never understood, tells what came instead of an answer.
void explain_failure();

}  // namespace orbix::hints
