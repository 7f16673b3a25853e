// An STA8100 module: a Teseo chip with its boot loader and boot ROM, a running firmware whose
// upgrade agent writes the flash areas, and an application processor with a boot loader of its own.
// Which of them is meant it tells by what it hears first; the others are deaf until power comes
// back.
#pragma once

#include <memory>
#include <string_view>

#include "app_processor.h"
#include "teseo_chip.h"
#include "upgrade_agent.h"

namespace orbix::sim {

class Sta8100Module : public Model {
  public:
    struct Settings {
        TeseoChip::Settings chip;
        UpgradeAgent::Settings agent;
        AppProcessor::Settings app;
        bool app_waits = false;  ///< the processor is strapped to its boot loader: even parity
    };

    /// The settings of a model by its name.
    static Settings of_model(std::string_view name);

    explicit Sta8100Module(const Settings& settings);
    explicit Sta8100Module(std::string_view name) : Sta8100Module(of_model(name)) {}

    void power_on(Micros now, Wire& wire) override;
    void receive(std::uint8_t byte, Micros now, Wire& wire) override;
    [[nodiscard]] std::optional<Micros> wake_time() const override;
    void wake(Micros now, Wire& wire) override;

    /// The flash of the part that was spoken to last; the chip's before any.
    [[nodiscard]] Flash& flash() override { return written_->flash(); }

    [[nodiscard]] TeseoChip& chip() { return chip_; }
    [[nodiscard]] UpgradeAgent& agent() { return agent_; }
    [[nodiscard]] AppProcessor& app() { return app_; }

  private:
    void feed(Model& part, std::uint8_t byte, Micros now, Wire& wire);

    TeseoChip chip_;
    UpgradeAgent agent_;
    AppProcessor app_;
    Model* active_ = nullptr;  ///< the part that has been caught
    Model* written_;
};

}  // namespace orbix::sim
