// The boot loader in the flash of a Teseo chip: the host catches it with a word that it repeats
// while the module starts, tells it how to write, and sends the image raw. STA8100 and STA8089
// speak the same dialogue with the differences below.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/kv_uart.h"
#include "teseo/loader_steps.h"

namespace orbix::teseo {

/// What the running firmware said to the request to enter the boot loader.
enum class Heard : std::uint8_t { nothing, sentence, accepted, refused };

/// Takes what one read brought and looks for the answer, with the family's own sentence decoder,
/// whose state lasts from one call to the next. Leaves the answer in `sentence`, without its line
/// end.
using SentenceScan = Heard (*)(std::span<const std::uint8_t> received, std::string& sentence);

/// The meaning of one sentence: `accepted`, `refused`, or `sentence` for any other.
Heard judge_sentence(std::string_view sentence);

/// What differs between the families. Times in ms.
struct BootLoaderFamily {
    // The switch from the running firmware ("normal" mode).
    bool flush_before_request;
    int request_passes;  ///< reads in which the answer may come
    SentenceScan scan;
    bool other_sentences_fail;  ///< sentences but no answer: a failure, not the fall-back

    // The sync.
    int words_per_pass;
    unsigned sync_read_ms;
    unsigned sync_reply_ms;
    bool reports_sync_failure;

    // The options.
    std::uint8_t baud_selector;  ///< of the record; 1 stays at 115200
    unsigned record_pause_ms;    ///< behind the record
    unsigned fast_baud;          ///< the rate behind the record, 0 when it stays
    int handshake_attempts;
    unsigned erase_ms;

    // The image.
    RawTransfer image;
    bool reports_completion;

    int rom_upgrade_mode;  ///< of `process_sta9100_upgrade`, in mode "boot"
};

/// The values of `LoaderState::flash_mode`.
enum FlashMode : int { mode_not_given = -1, mode_recovery = 0, mode_normal = 1, mode_boot = 2 };

/// A family's state of one run.
struct LoaderState {
    int flash_mode = mode_not_given;
    int file_len = -1;  ///< bytes, once the image's CRC has been computed
};

/// The two words at the end of the options record.
struct OptionWords {
    std::uint32_t a;
    std::uint32_t b;
};

/// Sets `mode` to that of a `-t` word. Returns false after an ERROR line for an unknown word.
bool parse_flash_mode(const char* word, int& mode);

/// The steps of the dialogue, each on an open port.

/// Asks the running firmware for its boot loader. A module that does not answer makes the run go on
/// in recovery mode (`flash_mode` becomes 0). Returns 0 or -1.
int Kv_Start_Upgrade(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state);

/// Repeats the sync word until the boot loader answers, for at most 5 s. Returns 0 or -1.
int Kv_Sync_Module(SerialHandle handle, const BootLoaderFamily& family, const LoaderState& state);

/// Writes the options record and waits until code and NVM area are erased. Returns 0 or -1.
int Kv_Write_Options(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state,
                     const char* path, OptionWords words);

/// Sends the image and waits until it has been checked. Returns 0 or -1.
int Kv_Send_Firmware(SerialHandle handle, const BootLoaderFamily& family, const LoaderState& state,
                     const char* path);

/// A whole upgrade on an open port by `state.flash_mode`: through the boot loader, or through the
/// boot ROM in mode "boot". Prints the failing step's line. Returns 0 or -1.
int upgrade_by_mode(SerialHandle handle, const BootLoaderFamily& family, LoaderState& state,
                    const char* path, OptionWords words);

}  // namespace orbix::teseo
