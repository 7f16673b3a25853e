// The synchronisation words by which a boot loader is caught: a 4-byte probe with a 4-byte answer,
// twice. This is the kind that judges by the last four bytes received, so that noise and sentences
// of a starting receiver in front of an answer do no harm.
#pragma once

#include <array>
#include <cstdint>

#include "core/kv_uart.h"

namespace orbix::upgrade {

/// The probes, and their answers, in the order of the line.
inline constexpr std::array<std::uint8_t, 4> first_probe{0x09, 0x13, 0x56, 0x4B};
inline constexpr std::array<std::uint8_t, 4> first_answer{0x4D, 0x3A, 0xFC, 0xAA};
inline constexpr std::array<std::uint8_t, 4> second_probe{0x04, 0xA5, 0x03, 0x12};
inline constexpr std::array<std::uint8_t, 4> second_answer{0xA0, 0x5B, 0xFD, 0x55};

/// The answers as the register of the last four bytes shows them: the newest byte on top.
inline constexpr std::uint32_t first_answer_word = 0xAAFC3A4D;
inline constexpr std::uint32_t second_answer_word = 0x55FD5BA0;

inline constexpr int sync_timed_out = 1024;
inline constexpr int sync_answer_wrong = 1025;

/// How long a family waits, in ms: the pause between a probe and the first read, and the read of
/// each byte of the answer.
struct SyncTiming {
    unsigned pause;
    unsigned byte;
};

/// The dialogue's limit, in ms, counted from its start and tested before each probe: an answer
/// that comes after it, to a probe sent before it, still counts.
inline constexpr unsigned sync_deadline = 20000;

/// Sends the first probe until its answer is seen. Returns 0, or `sync_timed_out` after
/// `sync_deadline`. The register of the last four bytes is kept from one attempt to the next: an
/// answer may come in two pieces. `last_attempt` receives the monotonic time, in ms, at which the
/// last probe was sent.
int catch_boot_loader(SerialHandle handle, SyncTiming timing,
                      std::uint64_t* last_attempt = nullptr);

/// Sends the second probe once and returns the last four bytes of what came back as a register,
/// newest byte on top (`second_answer_word` is the good one).
std::uint32_t second_sync_answer(SerialHandle handle, SyncTiming timing);

/// Both phases, the second asked once. Returns 0, `sync_timed_out` or `sync_answer_wrong`.
int sync_boot_loader(SerialHandle handle, SyncTiming first, SyncTiming second);

}  // namespace orbix::upgrade
