#include "line.h"

#include <algorithm>

namespace orbix::sim {

namespace {

constexpr Micros for_ever = UINT64_MAX;

/// Two UARTs understand each other up to a few per cent.
bool rates_match(unsigned one, unsigned other) {
    const std::uint64_t off = one > other ? one - other : other - one;
    return off * 100 <= std::uint64_t{other} * 4;
}

Micros line_time(std::size_t bytes, unsigned bits_per_byte, unsigned baud) {
    return std::uint64_t{bytes} * bits_per_byte * 1'000'000U / baud;
}

bool ends_the_line(FaultKind kind) {
    return kind == FaultKind::unplug || kind == FaultKind::power_cycle;
}

/// When an unplug or a power cycle strikes, counted from the start; never, while it still waits for
/// its byte.
Micros strike_time(const Fault& fault) {
    return ends_the_line(fault.kind) && !fault.byte ? fault.time : for_ever;
}

}  // namespace

Line::Line(Model& model, std::vector<Fault> faults, Settings settings, Micros start)
    : model_(model),
      faults_(std::move(faults)),
      settings_(settings),
      start_(start),
      random_(settings.seed) {
    power_cycle(start);
}

void Line::set_host_rate(unsigned baud, bool even_parity) {
    host_baud_ = baud;
    host_even_parity_ = even_parity;
}

std::uint8_t Line::garbled() {
    return static_cast<std::uint8_t>(random_());
}

Micros Line::send(std::span<const std::uint8_t> bytes, Micros now) {
    Micros at = std::max(now, to_module_.free_at);
    // Counted over the whole piece: a rounded byte time would add up.
    const Micros begun = at;
    for (std::size_t index = 0; index < bytes.size(); ++index) {
        if (!settings_.instant && host_baud_ != 0) {
            at = begun + line_time(index + 1, model_.byte_bits(), host_baud_);
        }
        enqueue(Direction::to_module, {at, bytes[index], host_baud_, host_even_parity_});
    }
    to_module_.free_at = std::max(to_module_.free_at, at);
    busy_ += at - begun;
    return at;
}

/// Puts a byte on the way, with what its number brings upon it.
void Line::enqueue(Direction direction, Transit transit) {
    Lane& lane = this->lane(direction);
    const std::uint64_t number = lane.count++;
    int copies = 1;
    for (auto& fault : faults_) {
        if (fault.direction != direction) {
            continue;
        }
        if (!fault.byte && !ends_the_line(fault.kind) && transit.arrival >= start_ + fault.time) {
            fault.byte = number;  // a timed fault strikes the first byte after its time
        }
        if (!fault.byte || number < *fault.byte) {
            continue;
        }
        const std::uint64_t behind = number - *fault.byte;
        const std::uint8_t was = transit.byte;
        const Micros arrives = std::max(transit.arrival, lane.free_at);
        switch (fault.kind) {
            case FaultKind::drop:
                if (behind < fault.amount) {
                    copies = 0;
                    note_strike(fault, arrives, was, 0);
                }
                break;
            case FaultKind::flip:
                if (behind < fault.amount) {
                    transit.byte = static_cast<std::uint8_t>(was ^ 1U << (random_() % 8));
                    note_strike(fault, arrives, was, transit.byte);
                }
                break;
            case FaultKind::duplicate:
                if (behind < fault.amount && copies != 0) {
                    copies = 2;
                    note_strike(fault, arrives, was, was);
                }
                break;
            case FaultKind::noise:
                for (std::uint64_t count = 0; behind == 0 && count < fault.amount; ++count) {
                    Transit noise = transit;
                    noise.byte = garbled();
                    lane.transit.push_back(noise);
                    note_strike(fault, arrives, 0, noise.byte);
                }
                break;
            case FaultKind::delay:
                if (behind == 0) {
                    lane.free_at = transit.arrival + milliseconds(fault.amount);
                    note_strike(fault, arrives, was, was);
                }
                break;
            case FaultKind::silence:
                if (behind == 0) {
                    lane.silent_until =
                        fault.amount == 0 ? for_ever : transit.arrival + milliseconds(fault.amount);
                    note_strike(fault, arrives, was, 0);
                }
                break;
            case FaultKind::unplug:
            case FaultKind::power_cycle:
                break;  // they strike at the moment of arrival
        }
    }
    transit.arrival = std::max(transit.arrival, lane.free_at);
    if (transit.arrival < lane.silent_until) {
        copies = 0;
    }
    for (; copies > 0; --copies) {
        lane.transit.push_back(transit);
    }
    for (auto& fault : faults_) {
        if (fault.direction == direction && fault.byte == number && ends_the_line(fault.kind)) {
            fault.byte.reset();
            fault.time = transit.arrival - start_;
        }
    }
}

void Line::note_strike(const Fault& fault, Micros time, std::uint8_t was, std::uint8_t became) {
    strikes_.push_back({time, fault.kind, fault.direction, was, became});
}

void Line::happen(const Fault& fault, Micros now) {
    note_strike(fault, now, 0, 0);
    if (fault.kind == FaultKind::unplug) {
        unplugged_ = true;
        return;
    }
    power_cycle(now);
}

void Line::power_cycle(Micros now) {
    to_host_.transit.clear();
    model_.baud = model_.start_baud;
    Wire wire(model_.baud);
    model_.power_on(now, wire);
    carry(wire, now);
}

/// Puts on the line what the model has said.
void Line::carry(Wire& wire, Micros now) {
    for (const auto& utterance : wire.utterances) {
        Micros at = std::max(now + utterance.delay, to_host_.free_at);
        const Micros begun = at;
        const std::size_t size = utterance.bytes.size();
        const std::size_t packet = settings_.packet;
        for (std::size_t index = 0; index < size; ++index) {
            if (settings_.paced && utterance.baud != 0) {
                const std::size_t packet_end = std::min(size, (index / packet + 1) * packet);
                at = begun + line_time(packet_end, model_.byte_bits(), utterance.baud);
            }
            enqueue(Direction::to_host,
                    {at, utterance.bytes[index], utterance.baud, model_.even_parity});
        }
        to_host_.free_at = std::max(to_host_.free_at, at);
        busy_ += at - begun;
        delayed_ += utterance.delay;
    }
    wire.utterances.clear();
}

void Line::deliver_to_module(const Transit& transit) {
    std::uint8_t byte = transit.byte;
    if (!rates_match(transit.baud, model_.baud) || transit.even_parity != model_.even_parity) {
        byte = garbled();
    }
    if (settings_.traced) {
        trace_.push_back({transit.arrival, Direction::to_module, transit.byte});
    }
    Wire wire(model_.baud);
    model_.receive(byte, transit.arrival, wire);
    carry(wire, transit.arrival);
}

void Line::run_until(Micros until) {
    while (!unplugged_) {
        const Micros byte_at =
            to_module_.transit.empty() ? for_ever : to_module_.transit.front().arrival;
        const Micros wake_at = model_.wake_time().value_or(for_ever);
        const auto fault = std::min_element(
            faults_.begin(), faults_.end(),
            [](const Fault& a, const Fault& b) { return strike_time(a) < strike_time(b); });
        const Micros strike = fault != faults_.end() ? strike_time(*fault) : for_ever;
        const Micros fault_at = strike != for_ever ? start_ + strike : for_ever;
        const Micros next = std::min({byte_at, wake_at, fault_at});
        if (next > until || next == for_ever) {
            return;
        }
        if (byte_at == next) {
            const Transit transit = to_module_.transit.front();
            to_module_.transit.pop_front();
            deliver_to_module(transit);
        } else if (wake_at == next) {
            Wire wire(model_.baud);
            model_.wake(wake_at, wire);
            carry(wire, wake_at);
        } else {
            const Fault struck = *fault;
            faults_.erase(fault);
            happen(struck, fault_at);
        }
    }
}

std::optional<Micros> Line::next_arrival() const {
    if (unplugged_ || to_host_.transit.empty()) {
        return std::nullopt;
    }
    return to_host_.transit.front().arrival;
}

std::optional<Micros> Line::next_event() const {
    Micros next = next_arrival().value_or(for_ever);
    next = std::min(next, model_.wake_time().value_or(for_ever));
    if (!to_module_.transit.empty()) {
        next = std::min(next, to_module_.transit.front().arrival);
    }
    for (const Fault& fault : faults_) {
        if (strike_time(fault) != for_ever) {
            next = std::min(next, start_ + fault.time);
        }
    }
    return next == for_ever ? std::nullopt : std::optional(next);
}

std::vector<std::uint8_t> Line::take_arrived(Micros now) {
    std::vector<std::uint8_t> arrived;
    while (!unplugged_ && !to_host_.transit.empty() && to_host_.transit.front().arrival <= now) {
        const Transit& transit = to_host_.transit.front();
        const bool understood =
            rates_match(transit.baud, host_baud_) && transit.even_parity == host_even_parity_;
        const std::uint8_t byte = understood ? transit.byte : garbled();
        if (settings_.traced) {
            trace_.push_back({transit.arrival, Direction::to_host, byte});
        }
        arrived.push_back(byte);
        to_host_.transit.pop_front();
    }
    return arrived;
}

}  // namespace orbix::sim
