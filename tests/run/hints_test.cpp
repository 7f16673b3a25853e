// Hints on standard error: what arrived instead of an answer, and why a port did not open.
#include "core/hints.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "app_loader.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// Says the same thing ten times a second.
class Talker : public SilentModule {
  public:
    explicit Talker(Bytes words) : words_(std::move(words)) {}
    [[nodiscard]] std::optional<sim::Micros> wake_time() const override { return next_; }
    void wake(sim::Micros now, sim::Wire& wire) override {
        wire.send(words_);
        next_ = now + sim::milliseconds(100);
    }

  private:
    Bytes words_;
    std::optional<sim::Micros> next_ = sim::VirtualPort::start;
};

Bytes text(const std::string& words) {
    return {words.begin(), words.end()};
}

struct Told {
    std::string output;
    std::string errors;
};

Told run_against(sim::Model& module, const Conditions& conditions = {}) {
    const TempDir folder;
    ::testing::internal::CaptureStderr();
    const ToolRun run(module,
                      {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-f",
                       folder.write("app.bin", random_image(100)), "-t", "UPG"},
                      conditions);
    return {run.output, ::testing::internal::GetCapturedStderr()};
}

TEST(Hints, NothingArrived) {
    SilentModule module;
    EXPECT_EQ(
        run_against(module).errors,
        "hint: nothing arrived; is the module powered, wired (TX to RX), and was it reset?\n");
}

TEST(Hints, SentencesOfARunningReceiver) {
    Talker module(text("$GNGGA,092725.00,4717.11399,N*5B\r\n"));
    EXPECT_EQ(run_against(module).errors,
              "hint: the module sends text (\"$GNGGA,092725.00,4717.11399,N*5B\"): its firmware "
              "runs; reset it, or try another mode\n");
}

TEST(Hints, GarbageAsOfAnotherRate) {
    Talker module(hex("F8 00 7E E0 06 80"));
    module.start_baud = 115200;
    const std::string errors = run_against(module).errors;
    EXPECT_NE(errors.find("bytes arrived (F8 00 7E E0 06 80 F8 00 ...) as if at another rate"),
              std::string::npos)
        << errors;
}

TEST(Hints, BytesThatDoNotFit) {
    Talker module(hex("01 02 03 04"));
    const std::string errors = run_against(module).errors;
    EXPECT_NE(errors.find("(01 02 03 04 01 02 03 04 ...) that are no answer"), std::string::npos)
        << errors;
}

TEST(Hints, WhyThePortDidNotOpen) {
    SilentModule module;
    const auto hint = [&module](int error) {
        Conditions conditions;
        conditions.port.open_error = error;
        return run_against(module, conditions).errors;
    };
    EXPECT_NE(hint(ENOENT).find("no such port"), std::string::npos);
    EXPECT_NE(hint(EBUSY).find("another program holds the port"), std::string::npos);
    EXPECT_NE(hint(EACCES).find("dialout"), std::string::npos);
    EXPECT_NE(hint(ENOTTY).find("no serial port"), std::string::npos);
    EXPECT_EQ(hint(EIO), "hint: the port could not be opened: Input/output error\n");
}

TEST(Hints, NoneOnceTheModuleWasUnderstood) {
    sim::AppLoader module;
    module.tamper = [](const sim::UpgradeFrame& /*frame*/, Bytes& response) {
        response.back() = 0;
    };
    const Told told = run_against(module);
    EXPECT_NE(told.output.find("[FAIL]"), std::string::npos);
    EXPECT_EQ(told.errors, "");
}

TEST(Hints, NoneOnARunThatGoesWell) {
    sim::AppLoader module;
    EXPECT_EQ(run_against(module).errors, "");
}

TEST(Hints, StandardOutputHasNone) {
    SilentModule module;
    EXPECT_EQ(run_against(module).output.find("hint"), std::string::npos);
    Conditions conditions;
    conditions.port.open_error = ENOENT;
    EXPECT_EQ(run_against(module, conditions).output.find("hint"), std::string::npos);
}

}  // namespace
}  // namespace orbix::test
