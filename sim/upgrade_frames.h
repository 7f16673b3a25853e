// The module's side of the upgrade frames (0xAA ... CRC-32 ... 0x55) and of the words by which a
// boot loader is caught.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orbix::sim {

struct UpgradeFrame {
    std::uint8_t address = 0;
    std::uint8_t command = 0;
    std::vector<std::uint8_t> payload;
    bool intact = false;  ///< CRC and tail are right

    /// A 32-bit field of the payload, most significant byte first.
    [[nodiscard]] std::uint32_t word(std::size_t offset) const;
};

/// Gathers a command frame byte by byte.
class UpgradeFrameReader {
  public:
    /// Returns a frame when `byte` completes one, whether it is intact or not.
    std::optional<UpgradeFrame> push(std::uint8_t byte);

    /// Whether a frame has begun and is not complete.
    [[nodiscard]] bool in_frame() const { return !bytes_.empty(); }
    void reset() { bytes_.clear(); }

  private:
    std::vector<std::uint8_t> bytes_;
};

std::vector<std::uint8_t> make_upgrade_frame(std::uint8_t address, std::uint8_t command,
                                             std::span<const std::uint8_t> payload);

/// What a boot loader hears while it waits to be caught.
enum class SyncEvent : std::uint8_t { none, first_probe, second_probe };

/// Finds the two probes in whatever arrives.
class SyncListener {
  public:
    SyncEvent push(std::uint8_t byte);

  private:
    std::array<std::uint8_t, 4> last_{};
};

inline constexpr std::array<std::uint8_t, 4> sync_first_answer{0x4D, 0x3A, 0xFC, 0xAA};
inline constexpr std::array<std::uint8_t, 4> sync_second_answer{0xA0, 0x5B, 0xFD, 0x55};

}  // namespace orbix::sim
