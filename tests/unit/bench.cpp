#include "unit/bench.h"

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "core/kv_log.h"

namespace orbix::test {

LogText::LogText() : stream_(open_memstream(&text_, &size_)) {
    set_log_stream(stream_);
}

LogText::~LogText() {
    set_log_stream(nullptr);
    std::fclose(stream_);
    std::free(text_);
}

std::vector<std::string> LogText::lines() const {
    std::fflush(stream_);
    std::istringstream whole(std::string(text_, size_));
    std::vector<std::string> result;
    for (std::string line; std::getline(whole, line);) {
        result.push_back(line.substr(line.find(']') + 1));
    }
    return result;
}

void TalkingModule::power_on(sim::Micros /*now*/, sim::Wire& wire) {
    for (const auto& [at_ms, bytes] : script_) {
        wire.send(bytes, sim::milliseconds(at_ms));
    }
}

void TalkingModule::receive(std::uint8_t byte, sim::Micros /*now*/, sim::Wire& /*wire*/) {
    heard.push_back(byte);
}

Bench::Bench(TalkingModule::Script script)
    : module_(std::move(script)),
      line_(module_, unplugged_after_ms(life_ms).faults, {}, sim::VirtualPort::start),
      port_(line_, {}),
      handle_(serial_open("COM6", 115200)) {}

std::uint64_t Bench::elapsed_ms() const {
    return (port_.now - sim::VirtualPort::start) / 1000;
}

}  // namespace orbix::test
