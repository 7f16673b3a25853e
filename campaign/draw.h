// Everything random of a run, drawn from one seed: the same seed draws the same on every machine.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <random>
#include <span>
#include <vector>

#include "faults.h"
#include "temp_dir.h"

namespace orbix::campaign {

/// How often a kind of fault is drawn among others, and how strong.
struct FaultOdds {
    sim::FaultKind kind;
    unsigned weight;
    std::uint64_t most;        ///< the largest amount; 0: the kind has none
    unsigned special_percent;  ///< how often the special amount is taken instead
    std::uint64_t special;
};

class Draw {
  public:
    explicit Draw(std::uint64_t seed) : random_(seed) {}

    /// A number from `least` to `most`, both included.
    std::uint64_t number(std::uint64_t least, std::uint64_t most) {
        return least + random_() % (most - least + 1);
    }

    /// The same, each order of magnitude as likely as the next: small numbers are not rare.
    std::uint64_t magnitude(std::uint64_t least, std::uint64_t most);

    /// True in `percent` of all cases.
    bool chance(unsigned percent) { return random_() % 100 < percent; }

    template <typename Value>
    Value pick(std::initializer_list<Value> values) {
        return *std::next(values.begin(), static_cast<std::ptrdiff_t>(random_() % values.size()));
    }

    sim::Bytes bytes(std::size_t size);

    /// From here on no image is larger than this.
    void limit_images(std::size_t size) { largest_image_ = size; }

    /// The size of an image for blocks of `block` bytes: any, but often at a block's edge.
    std::size_t image_size(std::size_t block, std::size_t most);

    /// An image of such a size.
    sim::Bytes image(std::size_t block, std::size_t most) { return bytes(image_size(block, most)); }

    /// A fault in any direction, without its place.
    sim::Fault fault(std::span<const FaultOdds> table);

  private:
    std::mt19937_64 random_;
    std::size_t largest_image_ = SIZE_MAX;
};

}  // namespace orbix::campaign
