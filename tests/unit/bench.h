// A bench for single routines: what they write to the log, and a port with a module that talks on
// its own, in virtual time.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/kv_uart.h"
#include "line.h"
#include "run/harness.h"
#include "virtual_port.h"

namespace orbix::test {

/// Gathers the log while the object lives.
class LogText {
  public:
    LogText();
    ~LogText();
    LogText(const LogText&) = delete;
    LogText& operator=(const LogText&) = delete;

    /// What was written so far, without time stamps; a "\r" stays.
    [[nodiscard]] std::vector<std::string> lines() const;

  private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* stream_;
};

/// A module that says the given bytes at the given times, in ms after the start.
class TalkingModule : public sim::Model {
  public:
    using Script = std::vector<std::pair<std::uint64_t, Bytes>>;
    explicit TalkingModule(Script script) : script_(std::move(script)) {}

    void power_on(sim::Micros now, sim::Wire& wire) override;
    void receive(std::uint8_t byte, sim::Micros now, sim::Wire& wire) override;
    [[nodiscard]] sim::Flash& flash() override { return flash_; }

    Bytes heard;

  private:
    Script script_;
    sim::Flash flash_{0, 0};
};

/// An open port with a talking module at its other end. The device vanishes after a time, so that
/// an endless wait shows as one that lasted until then.
class Bench {
  public:
    static constexpr std::uint64_t life_ms = 100'000;

    explicit Bench(TalkingModule::Script script);

    [[nodiscard]] SerialHandle handle() const { return handle_; }
    [[nodiscard]] std::uint64_t elapsed_ms() const;
    [[nodiscard]] const Bytes& heard() const { return module_.heard; }

  private:
    TalkingModule module_;
    sim::Line line_;
    sim::VirtualPort port_;
    SerialHandle handle_;
};

}  // namespace orbix::test
