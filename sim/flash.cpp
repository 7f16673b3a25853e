#include "flash.h"

#include <algorithm>

namespace orbix::sim {

bool Flash::contains(std::uint32_t address, std::size_t length) const {
    return address >= base_ && address - base_ <= cells_.size() &&
           length <= cells_.size() - (address - base_);
}

bool Flash::erase(std::uint32_t address, std::size_t length) {
    if (!contains(address, length)) {
        return false;
    }
    std::fill_n(cells_.begin() + (address - base_), length, std::uint8_t{0xFF});
    note(address, length);
    return true;
}

bool Flash::program(std::uint32_t address, std::span<const std::uint8_t> bytes) {
    if (!contains(address, bytes.size())) {
        return false;
    }
    const auto cell = cells_.begin() + (address - base_);
    std::transform(bytes.begin(), bytes.end(), cell, cell,
                   [](std::uint8_t written, std::uint8_t held) { return written & held; });
    note(address, bytes.size());
    return true;
}

std::span<const std::uint8_t> Flash::read(std::uint32_t address, std::size_t length) const {
    return std::span(cells_).subspan(address - base_, length);
}

bool Flash::holds(std::uint32_t address, std::span<const std::uint8_t> content) const {
    return contains(address, content.size()) &&
           std::ranges::equal(read(address, content.size()), content);
}

void Flash::note(std::uint32_t address, std::size_t length) {
    const std::uint32_t end = address + static_cast<std::uint32_t>(length);
    if (!touched_.empty() && touched_.back().end == address) {
        touched_.back().end = end;
    } else {
        touched_.push_back({address, end});
    }
}

void Flash::fill(std::uint8_t value) {
    std::fill(cells_.begin(), cells_.end(), value);
}

}  // namespace orbix::sim
