// A module that answers wrongly: any family and mode runs against its simulated module, and the
// input says what becomes of each answer on its way. Whatever arrives, the tool stays inside its
// buffers, prints one result line, and ends once the device is gone.
//
//   byte 0   the family and mode
//   byte 1   what the run is drawn from
//   then     one instruction after the other, each for one answer or more, see `Spoiler`
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "campaign/scenario.h"
#include "fuzz/fuzzed.h"
#include "tool_run.h"

namespace {

using orbix::campaign::Draw;
using orbix::fuzz::Input;
using orbix::sim::Micros;
using orbix::sim::milliseconds;
using orbix::sim::Model;
using orbix::sim::Wire;

/// Two blocks of any protocol but those with the largest ones: more is the same over again.
constexpr std::size_t largest_image = 6000;

/// Stands between the line and a module, and changes what the module says.
class Spoiler : public Model {
  public:
    Spoiler(Model& module, Input& input) : module_(module), input_(input) {
        start_baud = module.start_baud;
        even_parity = module.even_parity;
    }

    void power_on(Micros now, Wire& wire) override {
        module_.baud = baud;
        carry(wire, [&](Wire& inner) { module_.power_on(now, inner); });
    }
    void receive(std::uint8_t byte, Micros now, Wire& wire) override {
        carry(wire, [&](Wire& inner) { module_.receive(byte, now, inner); });
    }
    [[nodiscard]] std::optional<Micros> wake_time() const override { return module_.wake_time(); }
    void wake(Micros now, Wire& wire) override {
        carry(wire, [&](Wire& inner) { module_.wake(now, inner); });
    }
    [[nodiscard]] orbix::sim::Flash& flash() override { return module_.flash(); }

  private:
    template <typename Act>
    void carry(Wire& wire, Act act) {
        Wire inner(module_.baud);
        act(inner);
        for (auto& utterance : inner.utterances) {
            spoil(utterance.bytes);
            wire.utterances.push_back(std::move(utterance));
        }
        baud = module_.baud;
        even_parity = module_.even_parity;
    }

    /// The low three bits of an instruction say what is done, the others how much.
    void spoil(std::vector<std::uint8_t>& bytes) {
        if (untouched_ > 0) {
            --untouched_;
            return;
        }
        const std::uint8_t instruction = input_.byte();
        const std::size_t amount = instruction >> 3;
        switch (instruction & 7) {
            case 0:
                untouched_ = amount;
                break;
            case 1:
                bytes.clear();
                break;
            case 2:
                bytes.resize(std::min(bytes.size(), amount));
                break;
            case 3:
                if (!bytes.empty()) {
                    bytes[amount % bytes.size()] ^= input_.byte();
                }
                break;
            case 4:
                bytes = input_.bytes(amount);
                break;
            case 5: {
                const auto more = input_.bytes(amount);
                bytes.insert(bytes.begin(), more.begin(), more.end());
                break;
            }
            case 6: {
                const auto more = input_.bytes(amount);
                bytes.insert(bytes.end(), more.begin(), more.end());
                break;
            }
            default: {
                const auto once = bytes;
                for (std::size_t count = 0; count < amount; ++count) {
                    bytes.insert(bytes.end(), once.begin(), once.end());
                }
                break;
            }
        }
    }

    Model& module_;
    Input& input_;
    std::size_t untouched_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    orbix::fuzz::prepare();
    Input input({data, size});
    const auto& table = orbix::campaign::scenarios();
    const auto& scenario = table[input.byte() % table.size()];
    Draw draw(input.byte());
    draw.limit_images(largest_image);
    const auto rig = scenario.make(draw);
    Spoiler module(*rig.module, input);

    orbix::sim::Conditions conditions;
    conditions.faults.push_back({.kind = orbix::sim::FaultKind::unplug,
                                 .byte = std::nullopt,
                                 .time = milliseconds(300'000)});
    conditions.port.limit = milliseconds(400'000);
    conditions.traced = false;
    const orbix::sim::ToolRun run(module, rig.arguments, conditions);
    orbix::fuzz::require(!run.hit_time_limit, "the run ends once the device is gone");
    orbix::fuzz::require(run.status == 0, "exit status 0");
    const std::string result = run.result();
    orbix::fuzz::require(result.starts_with("[SUCCESS] ") || result.starts_with("[FAIL] "),
                         "the last line is the result");
    return 0;
}
