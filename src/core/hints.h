// Hints for a person, on standard error: one short line where the lines of the standard output
// leave one guessing. Hints change nothing in a run, and a run that goes well has none.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace orbix {
struct SupportRow;
}

namespace orbix::hints {

/// "hint: " and the text, on standard error. The text ends with a line feed.
[[gnu::format(printf, 1, 2)]] void give(const char* format, ...);

/// That fewer or more bytes of an image could be read than were announced. The module has been told
/// another length, and nothing that it answers need show it.
void image_changed();

/// Forgets the last run.
void reset();

// --- what the serial layer and the families tell -------------------------------------------------

/// A port could not be opened; `error` is the system's error number.
void port_not_opened(const char* name, int error);

/// The port's rate was set, in bits a second; `taken` tells whether the port can do it.
void rate_set(unsigned baud, bool taken);

/// A port is open, or somebody else behind it is called from now on: what arrives is remembered
/// until the module is understood.
void answer_awaited();

/// Bytes were sent: the module is being called.
void called();

void received(std::span<const std::uint8_t> bytes);

/// The module has answered its first synchronisation: what arrives is understood.
void synchronised();

/// The device is gone.
void port_vanished();

// --- what the command line tells -----------------------------------------------------------------

/// There is nothing to do: no arguments, or no model.
void show_the_way();

/// There is no such model.
void model_unknown(std::string_view name);

/// The model's family has no readback.
void readback_unknown(std::string_view model);

/// The run has failed. When the module was never understood, tells what came instead of an answer;
/// when it was never called, how its family is flashed.
void explain_failure(std::string_view model, const SupportRow& family, bool readback);

/// The run has ended in SUCCESS: tells when nothing was sent to any module.
void explain_success();

}  // namespace orbix::hints
