// What the upgrades of RX7040, the monitors and the evaluation board have in common: the options,
// the synchronisation, and the commands in upgrade frames. The three differ in the values of a
// `Dialect` and in the order of the steps, which stands in each family's own file.
#pragma once

#include <cstdint>
#include <string>

#include "core/kv_uart.h"
#include "upgrade/sync_words.h"

namespace orbix::command_frames {

/// How much of an option's value counts.
inline constexpr std::size_t longest_option = 255;

/// The options that all procedures of these families know.
struct Options {
    std::string port;
    std::string firmware;
    int baud = 0;
};

/// Logs one of `-p`, `-b`, `-f`, `-m` and `-D` and takes its value over. Other letters do nothing.
void take_option(int letter, const char* value, Options& options);

/// Reads the command line of an upgrade that knows these five options alone. `-t` is let pass.
Options parse_options(int argc, char** argv);

/// The values in which the modules differ. Times are in ms.
struct Dialect {
    upgrade::SyncTiming first_sync;
    upgrade::SyncTiming second_sync;
    unsigned response_byte_timeout;
    bool checks_length_and_status;  ///< of a response; otherwise its class and id decide alone
    int firmware_attempts;          ///< how often a firmware frame is sent before it has failed
};

/// How a module is asked for the version of its boot loader.
struct VersionQuery {
    std::uint8_t command_class;
    std::uint8_t id;
    unsigned silence_limit;  ///< ms without a byte after which no answer is expected, 0: none
};

/// The last two words of the firmware information; size and CRC of the image come before them.
struct ImageWords {
    std::uint32_t third;
    std::uint32_t fourth;
};

inline constexpr int firmware_not_accessible = 259;
/// The firmware file cannot be opened or read to its end, or has changed its length.
inline constexpr int firmware_not_opened = 263;
/// A response that is whole but not the one expected; also what a reception that failed returns.
inline constexpr int response_unexpected = 263;
inline constexpr int attempts_exhausted = 264;

/// The steps return 0 or an error code: `sync_timed_out`, `sync_answer_wrong`,
/// `response_unexpected`, the code of a reception that failed, or what is named below. Each command
/// is written, given 20 ms, and its response awaited without a limit unless one is named.

int synchronise(SerialHandle handle, const Dialect& dialect);

/// `version` becomes "V<major>.<minor>.<patch>", or stays empty on a failure.
int get_boot_version(SerialHandle handle, const Dialect& dialect, const VersionQuery& query,
                     std::string& version);

/// Announces size and CRC of the image. `announced` becomes the size, in bytes. Also returns
/// `firmware_not_accessible` or `firmware_not_opened`.
int send_firmware_info(SerialHandle handle, const Dialect& dialect, const char* path,
                       ImageWords words, int& announced);

int erase(SerialHandle handle, const Dialect& dialect);

/// Sends the image in frames of 5120 bytes, numbered from 0, with PROGRESS and SPEED lines. Also
/// returns `firmware_not_opened`, with a hint where the file is not, or does not stay, `announced`
/// bytes long; or `attempts_exhausted` where a frame is sent more than once.
int send_firmware(SerialHandle handle, const Dialect& dialect, const char* path, int announced);

int reset(SerialHandle handle, const Dialect& dialect);

}  // namespace orbix::command_frames
