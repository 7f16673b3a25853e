// The module's side of the HD8xx0 frames: 0xF1 0xD9, class, id, length (little-endian), payload,
// two checksum bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace orbix::sim {

struct KorvaneFrame {
    std::uint8_t frame_class = 0;
    std::uint8_t id = 0;
    std::vector<std::uint8_t> payload;
    bool intact = false;  ///< the checksum is right

    [[nodiscard]] bool is(std::uint8_t wanted_class, std::uint8_t wanted_id) const {
        return frame_class == wanted_class && id == wanted_id;
    }
    [[nodiscard]] std::uint16_t half(std::size_t offset) const;  ///< a 16-bit field
    [[nodiscard]] std::uint32_t word(std::size_t offset) const;  ///< a 32-bit field
};

/// Gathers a frame byte by byte.
class KorvaneReader {
  public:
    /// Returns a frame when `byte` completes one, whether it is intact or not.
    std::optional<KorvaneFrame> push(std::uint8_t byte);

    void reset() { bytes_.clear(); }

  private:
    std::vector<std::uint8_t> bytes_;
};

std::vector<std::uint8_t> make_korvane_frame(std::uint8_t frame_class, std::uint8_t id,
                                             std::span<const std::uint8_t> payload);

}  // namespace orbix::sim
