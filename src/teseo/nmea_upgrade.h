// The upgrade dialogue with the agent in a module's running firmware: synchronise, firmware
// address, firmware information, start, firmware packets. It writes one flash area, that of the
// GNSS chip, of the application processor, or of a second ("slave") chip.
//
// The commands are upgrade frames (upgrade/kv_upgrade_protocol.h) whose second byte is the flash
// area; each is answered by a frame of 14 bytes with a status code in byte 8. No step is retried.
// The port is opened, and closed, by the caller; its rate is never changed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "core/kv_uart.h"

namespace orbix::teseo {

/// Flash area codes, as `-c` names them and as the frames carry them.
enum FlashArea : std::int32_t {
    no_area = 0,
    area_gnss = 1,
    area_app = 2,
    area_slave_gnss = 3,
    area_slave_app = 4,
    area_slave_boot = 5,
};

/// The area of a `-c` word ("gnss", "app", "slave_gnss", "slave_app", "slave_boot"), or `no_area`.
FlashArea flash_area_of(const char* word);

/// How the agent is sought: probe after probe until one is answered.
struct SyncRules {
    const char* prompt;  ///< asks the operator to power the module up

    /// After so many probes the search ends without a line of its own. 0: it ends after 10 s, with
    /// an ERROR line.
    unsigned passes;

    unsigned read_timeout_ms;   ///< for the answer to a probe
    unsigned pause_ms;          ///< after a read that brought something else
    bool pauses_after_silence;  ///< also after one that brought nothing
};

/// The steps behind the synchronisation.
enum class UpgradeStep : std::uint8_t { address, information, start, firmware, restart };

/// What differs between the modules and areas that are upgraded in this way.
struct NmeaUpgrade {
    std::uint8_t area;      ///< second byte of every frame
    std::uint32_t address;  ///< payload of the firmware address command

    /// The fixed words that follow size and CRC in the firmware information.
    std::span<const std::uint8_t> information;

    std::uint8_t start_command;
    std::size_t packet_size;  ///< image bytes in a packet
    std::span<const UpgradeStep> steps;
    SyncRules sync;
};

/// The most image bytes that a packet may hold.
inline constexpr std::size_t largest_packet = 5120;

/// How the areas of the STA8100 and RTA500C modules are upgraded.
NmeaUpgrade upgrade_of_area(std::int32_t flash_area);

/// The image: a file, which each step that needs it opens anew, or memory.
class UpgradeImage {
  public:
    /// `path` must outlive the object.
    static UpgradeImage of_file(const char* path) { return {path, {}}; }
    static UpgradeImage in_memory(std::span<const std::uint8_t> bytes) { return {nullptr, bytes}; }

    [[nodiscard]] bool is_file() const { return path_ != nullptr; }
    [[nodiscard]] const char* path() const { return path_; }
    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return bytes_; }

  private:
    UpgradeImage(const char* path, std::span<const std::uint8_t> bytes)
        : path_(path), bytes_(bytes) {}

    const char* path_;
    std::span<const std::uint8_t> bytes_;
};

/// The whole dialogue. A step that fails ends it with that step's ERROR line
/// ("... Upgrade failed."). `file_len` takes the image's size. Returns 0, or -1.
int run_nmea_upgrade(SerialHandle handle, const NmeaUpgrade& upgrade, const UpgradeImage& image,
                     std::int32_t& file_len);

/// The steps alone. Each prints what it does, and an ERROR line when the module refuses or is
/// silent; a reply that is malformed fails without a line. They return 0 or -1.

/// Reads one reply, which must come in one burst of 14 bytes, and judges its status.
int upgrade_RecvAndParseRspFormat(SerialHandle handle, unsigned timeout_ms);

/// Catches the agent: a running module answers, or one that is powered up meanwhile.
int Kv_Nmea_Sync_Module(SerialHandle handle, const SyncRules& rules);

int Kv_Nmea_Send_Firmware_Address(SerialHandle handle, const NmeaUpgrade& upgrade);

/// Computes size and CRC, and sends them. A file that cannot be read is announced with a CRC of 0,
/// which no module accepts, and the `file_len` of before.
int Kv_Nmea_Send_Firmware_Info(SerialHandle handle, const NmeaUpgrade& upgrade,
                               const UpgradeImage& image, std::int32_t& file_len);

/// The module erases its area before it answers, which may take 3 minutes.
int Kv_Nmea_Send_Start_Upgrade(SerialHandle handle, const NmeaUpgrade& upgrade);

/// Sends the image in numbered packets with PROGRESS and SPEED lines. An image that does not bring
/// the announced `file_len` bytes, because its file has changed meanwhile, is a failure.
int Kv_Nmea_Send_Firmware(SerialHandle handle, const NmeaUpgrade& upgrade,
                          const UpgradeImage& image, std::int32_t file_len);

/// Restarts a slave module. The STA8100 and RTA500C modules need none.
int Kv_Nmea_Send_Restart(SerialHandle handle, const NmeaUpgrade& upgrade);

}  // namespace orbix::teseo
