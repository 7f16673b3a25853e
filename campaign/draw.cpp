#include "draw.h"

#include <algorithm>

namespace orbix::campaign {

std::uint64_t Draw::magnitude(std::uint64_t least, std::uint64_t most) {
    std::uint64_t top = most;
    for (std::uint64_t halvings = number(0, 63); halvings > 0 && top / 2 > least; --halvings) {
        top /= 2;
    }
    return number(least, std::max(least, top));
}

sim::Bytes Draw::bytes(std::size_t size) {
    sim::Bytes result(size);
    for (auto& byte : result) {
        byte = static_cast<std::uint8_t>(random_() >> 32);
    }
    return result;
}

std::size_t Draw::image_size(std::size_t block, std::size_t most) {
    most = std::min(most, largest_image_);
    if (chance(40)) {
        const std::size_t edge = number(1, std::max<std::size_t>(1, most / block)) * block;
        return std::min(edge + number(0, 2) - 1, largest_image_);
    }
    return chance(50) ? magnitude(1, most) : number(1, most);
}

sim::Fault Draw::fault(std::span<const FaultOdds> table) {
    std::vector<const FaultOdds*> tickets;
    for (const FaultOdds& odds : table) {
        tickets.insert(tickets.end(), odds.weight, &odds);
    }
    const FaultOdds& odds = *tickets[number(0, tickets.size() - 1)];
    sim::Fault fault;
    fault.kind = odds.kind;
    fault.direction = chance(50) ? sim::Direction::to_module : sim::Direction::to_host;
    if (odds.most == 0) {
        fault.amount = 0;
    } else if (odds.special_percent != 0 && chance(odds.special_percent)) {
        fault.amount = odds.special;
    } else {
        fault.amount = magnitude(1, odds.most);
    }
    return fault;
}

}  // namespace orbix::campaign
