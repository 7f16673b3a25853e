// One step of a dialogue with the mask-ROM loader or a download agent: the port, and the name under
// which the step reports what went wrong. The module answers every item before it takes the next,
// and needs about 1 ms between two.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <span>

#include "core/kv_uart.h"

namespace orbix::loader {

/// Bytes that lie in memory one behind the other.
template <typename Row>
concept ByteRow = std::constructible_from < std::span<const std::uint8_t>,
const Row& > ;

/// The bytes of an item: a list such as {0x5A, 0x69}, or a row of them.
/// It only refers to them: use it as an argument, not to keep them.
class Item {
  public:
    Item(std::initializer_list<std::uint8_t> bytes) : bytes_(bytes.begin(), bytes.size()) {}
    template <ByteRow Row>
    Item(const Row& bytes) : bytes_(bytes) {}

    [[nodiscard]] std::span<const std::uint8_t> bytes() const { return bytes_; }

  private:
    std::span<const std::uint8_t> bytes_;
};

/// A 16 or 32-bit value as it goes over the wire, most significant byte first.
std::array<std::uint8_t, 2> be16(std::uint16_t value);
std::array<std::uint8_t, 4> be32(std::uint32_t value);

/// The pause after an item, in ms, and how long the module may take to answer one.
inline constexpr unsigned item_pause = 1;
inline constexpr unsigned answer_timeout = 500;

/// A status word of the mask-ROM loader: the value that means "accepted", and the digits that stand
/// for it in the ERROR line.
struct Status {
    std::uint16_t accepted;
    unsigned shown;
};

struct Step {
    SerialHandle handle;

    /// The function that the ERROR lines name. Without one the step fails without a line, for
    /// families whose driver alone says what failed.
    const char* function = nullptr;

    /// How long an answer may take, in ms.
    unsigned timeout = answer_timeout;

    /// Whether the step has ERROR lines.
    [[nodiscard]] bool speaks() const { return function != nullptr; }

    /// Prints an ERROR line, unless the step is silent. The text may have a "%s", for the function,
    /// and behind it one conversion for an unsigned number. Returns -1.
    int failed(const char* text, unsigned number = 0) const;

    /// Sends an item and pauses. False, after the ERROR line, when nothing could be written.
    [[nodiscard]] bool send(Item item, const char* write_failure, unsigned number = 0) const;

    /// Takes as many bytes as the answer has and pauses. False, after the ERROR line, when others
    /// came or too few.
    [[nodiscard]] bool expect(Item answer, const char* read_failure, unsigned number = 0) const;

    /// `send`, then `expect`.
    [[nodiscard]] bool exchange(Item item, Item answer, const char* write_failure,
                                const char* read_failure, unsigned number = 0) const;

    /// Sends an item that comes back followed by a status word. False after an ERROR line, or
    /// without one when fewer bytes came.
    [[nodiscard]] bool exchange_with_status(Item item, Status status, const char* write_failure,
                                            const char* read_failure) const;
};

}  // namespace orbix::loader
