// The ZPX710P family through the built programs.
#include <gtest/gtest.h>

#include <filesystem>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

class Zpx710pProgram : public ::testing::Test {
  protected:
    [[nodiscard]] Finished flash(const std::string& port, const std::string& mode) const {
        return run_program("orbix_flash", {"-m", "ZPX710P", "-p", port, "-b", "115200", "-f",
                                           image_file_, "-t", mode});
    }

    /// A run against a fresh module, and the image in its flash.
    void expect_flashed(const std::string& model, const std::string& mode) const {
        SimulatedModule module(model, {"--dump", dump_});
        const Finished run = flash(module.port(), mode);
        module.stop();
        EXPECT_EQ(run.status, 0);
        EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << run.output;
        EXPECT_TRUE(dump_holds(dump_, 0, image_));
    }

    const TempDir folder_;
    const Bytes image_ = random_image(5121);
    const std::string image_file_ = folder_.write("app.bin", image_);
    const std::string dump_ = folder_.path("dump.bin");
};

TEST_F(Zpx710pProgram, Download) {
    expect_flashed("ZPX710P", "DL");
}

TEST_F(Zpx710pProgram, UpgradeOfTheMainController) {
    expect_flashed("ZPX710P-EVB", "MCU_UPG");
}

TEST_F(Zpx710pProgram, UpgradeThroughTheMainController) {
    expect_flashed("ZPX710P", "LORA_UPG");
}

TEST_F(Zpx710pProgram, AGeneralProgrammerFindsTheSameRomLoader) {
    // An outside witness for the simulated module. A pseudo-terminal takes no parity.
    const std::string programmer = "/usr/bin/stm32flash";
    if (!std::filesystem::exists(programmer)) {
        GTEST_SKIP() << "stm32flash is not installed";
    }
    SimulatedModule module("ZPX710P", {"--dump", dump_});
    const Finished run =
        run_program(programmer, {"-m", "8n1", "-b", "115200", "-w", image_file_, module.port()});
    module.stop();
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
    EXPECT_TRUE(dump_holds(dump_, 0, image_));
}

TEST_F(Zpx710pProgram, AnUnpluggedModuleEndsTheHandshake) {
    // The module never hears the synchronisation byte; after a while the port is gone.
    SimulatedModule module("ZPX710P", {"--faults", "silence=0@0,unplug@20"});
    const Finished run = flash(module.port(), "DL");
    EXPECT_NE(run.output.find("[ERROR] Handshake Time out!\n"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("fail,ret:[-1]\n"), std::string::npos) << run.output;
}

}  // namespace
}  // namespace orbix::test
