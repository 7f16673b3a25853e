// The ZPX710P family through the built programs.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "cli/process.h"

namespace orbix::test {
namespace {

std::string content_of(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// An image and a place for the dump, removed at the end.
class Zpx710pProgram : public ::testing::Test {
  protected:
    Zpx710pProgram() {
        for (int index = 0; index < 5121; ++index) {
            image_ += static_cast<char>(index * 31 + index / 256);
        }
        std::filesystem::create_directories(folder_);
        std::ofstream(folder_ / "app.bin", std::ios::binary) << image_;
    }
    ~Zpx710pProgram() override {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }

    [[nodiscard]] Finished flash(const std::string& port, const std::string& mode) const {
        return run_program("orbix_flash", {"-m", "ZPX710P", "-p", port, "-b", "115200", "-f",
                                           folder_ / "app.bin", "-t", mode});
    }

    /// A run against a fresh module, and the image in its flash.
    void expect_flashed(const std::string& model, const std::string& mode) const {
        SimulatedModule module(model, {"--dump", folder_ / "dump.bin"});
        const Finished run = flash(module.port(), mode);
        module.stop();
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.output.find("[SUCCESS] orbix_flash upgrade success\n"), std::string::npos)
            << run.output;
        EXPECT_EQ(content_of(folder_ / "dump.bin").substr(0, image_.size()), image_);
    }

    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() /
        ("orbix-zpx710p-" + std::to_string(std::random_device{}()));
    std::string image_;
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
    SimulatedModule module("ZPX710P", {"--dump", folder_ / "dump.bin"});
    const Finished run = run_program(
        programmer, {"-m", "8n1", "-b", "115200", "-w", folder_ / "app.bin", module.port()});
    module.stop();
    EXPECT_EQ(run.status, 0) << run.output << run.errors;
    EXPECT_EQ(content_of(folder_ / "dump.bin").substr(0, image_.size()), image_);
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
