// The flash memory of a simulated module, with the manners of a real one: erasing sets bytes to
// 0xFF, programming only clears bits.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace orbix::sim {

class Flash {
  public:
    /// A memory of `size` bytes that answers from address `base`, erased.
    Flash(std::uint32_t base, std::uint32_t size) : base_(base), cells_(size, 0xFF) {}

    [[nodiscard]] std::uint32_t base() const { return base_; }
    [[nodiscard]] std::span<const std::uint8_t> cells() const { return cells_; }
    [[nodiscard]] bool contains(std::uint32_t address, std::size_t length) const;

    /// Both return false, and change nothing, when the range is not inside the memory.
    bool erase(std::uint32_t address, std::size_t length);
    bool program(std::uint32_t address, std::span<const std::uint8_t> bytes);

    /// A range that must lie inside the memory.
    [[nodiscard]] std::span<const std::uint8_t> read(std::uint32_t address,
                                                     std::size_t length) const;

    /// Whether this content stands at the address; it does not where it would reach past the
    /// memory.
    [[nodiscard]] bool holds(std::uint32_t address, std::span<const std::uint8_t> content) const;

    /// Sets every byte, as a test's starting point.
    void fill(std::uint8_t value);

    /// A part of the memory, from `begin` to before `end`.
    struct Range {
        std::uint32_t begin;
        std::uint32_t end;
    };

    /// What was erased or programmed since the start, in order; neighbours are joined.
    [[nodiscard]] const std::vector<Range>& touched() const { return touched_; }
    void forget_touched() { touched_.clear(); }

  private:
    void note(std::uint32_t address, std::size_t length);

    std::uint32_t base_;
    std::vector<std::uint8_t> cells_;
    std::vector<Range> touched_;
};

}  // namespace orbix::sim
