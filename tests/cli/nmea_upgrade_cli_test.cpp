// STA8100 and RTA500C through the built programs: the exit status of -v, and runs over a
// pseudo-terminal, even parity included.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "cli/process.h"

namespace orbix::test {
namespace {

class NmeaUpgradePrograms : public ::testing::Test {
  protected:
    NmeaUpgradePrograms() {
        std::string pattern = std::filesystem::temp_directory_path() / "orbix-cli-XXXXXX";
        folder_ = mkdtemp(pattern.data());
        for (std::size_t at = 0; at < image_.size(); ++at) {
            image_[at] = static_cast<char>(at * 7 + at / 251);
        }
        std::ofstream(folder_ / "app.bin", std::ios::binary) << image_;
    }
    ~NmeaUpgradePrograms() override { std::filesystem::remove_all(folder_); }

    /// Writes the image into an area of a simulated module, and expects it in its flash.
    void expect_upgrade(const std::string& model, const std::string& area, std::size_t offset) {
        SimulatedModule module(model, {"--rate", "921600", "--dump", folder_ / "flash.bin"});
        const Finished run =
            run_program("orbix_flash", {"-m", model, "-p", module.port(), "-b", "921600", "-f",
                                        folder_ / "app.bin", "-c", area});
        EXPECT_EQ(run.status, 0);
        EXPECT_NE(run.output.find("[SUCCESS] orbix_flash upgrade success\n"), std::string::npos)
            << run.output;
        module.stop();
        std::ifstream dump(folder_ / "flash.bin", std::ios::binary);
        const std::string flash{std::istreambuf_iterator<char>(dump),
                                std::istreambuf_iterator<char>()};
        ASSERT_GT(flash.size(), offset + image_.size());
        EXPECT_EQ(flash.compare(offset, image_.size(), image_), 0) << model << " " << area;
    }

  private:
    std::filesystem::path folder_;
    std::string image_ = std::string(20'000, '\0');
};

TEST_F(NmeaUpgradePrograms, VersionOptionEndsWithStatus255) {
    for (const std::string model : {"TS50A", "RTA500C_EVB_NXP"}) {
        const Finished run = run_program("orbix_flash", {"-m", model, "-v"});
        EXPECT_EQ(run.status, 255);
        EXPECT_NE(run.output.find("_Flash_Tool_V1.0\n"), std::string::npos);
        EXPECT_EQ(run.output.find("[FAIL]"), std::string::npos);
    }
}

TEST_F(NmeaUpgradePrograms, RunningFirmwareTakesTheImage) {
    expect_upgrade("RTA500C_EVB_NXP", "app", 0x100000);
    expect_upgrade("TS60B", "gnss", 0);
}

TEST_F(NmeaUpgradePrograms, ApplicationProcessorTakesTheImageWithEvenParity) {
    expect_upgrade("TS50A-EXT", "app_boot", 0);
}

}  // namespace
}  // namespace orbix::test
