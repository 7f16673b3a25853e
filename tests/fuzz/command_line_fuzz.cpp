// Arbitrary command lines: arguments separated by line feeds. No module is there; the device
// vanishes after a few seconds. Whatever is typed, the tool ends in order.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/fuzzed.h"
#include "tool_run.h"

namespace {

using namespace orbix;

class Silence : public sim::Model {
  public:
    void power_on(sim::Micros /*now*/, sim::Wire& /*wire*/) override {}
    void receive(std::uint8_t /*byte*/, sim::Micros /*now*/, sim::Wire& /*wire*/) override {}
    [[nodiscard]] sim::Flash& flash() override { return flash_; }

  private:
    sim::Flash flash_{0, 0};
};

/// The arguments of an input. Paths that lead out of the working folder are not for a fuzzer.
std::vector<std::string> arguments_of(const std::string& text) {
    std::vector<std::string> arguments;
    std::string argument;
    for (const char letter : text) {
        if (letter == '\n') {
            arguments.push_back(argument);
            argument.clear();
        } else if (letter != '\0') {
            argument += letter == '/' ? '_' : letter;
        }
    }
    arguments.push_back(argument);
    return arguments;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::prepare();
    Silence module;
    sim::Conditions conditions = sim::unplugged_after_ms(5000);
    conditions.port.limit = sim::milliseconds(200'000);
    conditions.traced = false;
    const auto arguments = arguments_of({reinterpret_cast<const char*>(data), size});
    const sim::ToolRun run(module, arguments, conditions);
    fuzz::require(!run.hit_time_limit, "the run ends once the device is gone");
    // ZPX710P calls a port that does not open a success, STA9100 an option that it does not know.
    const bool stated =
        run.count("Open & config the serial failed") > 0 || run.count(" Usage: ") > 0;
    fuzz::require(!run.result().starts_with("[SUCCESS] ") || stated, "no success without a module");
    return 0;
}
