// STA8100 and RTA500C through the built programs: the exit status of -v, and runs over a
// pseudo-terminal, even parity included.
#include <gtest/gtest.h>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

/// Writes an image into an area of a simulated module, and expects it in its flash.
void expect_upgrade(const std::string& model, const std::string& area, std::size_t offset) {
    const TempDir folder;
    const Bytes image = random_image(20'000);
    const std::string dump = folder.path("flash.bin");
    SimulatedModule module(model, {"--rate", "921600", "--dump", dump});
    const Finished run =
        run_program("orbix_flash", {"-m", model, "-p", module.port(), "-b", "921600", "-f",
                                    folder.write("app.bin", image), "-c", area});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << run.output;
    module.stop();
    EXPECT_TRUE(dump_holds(dump, offset, image)) << model << " " << area;
}

TEST(NmeaUpgradePrograms, VersionOptionEndsWithStatus255) {
    for (const std::string model : {"TS50A", "RTA500C_EVB_NXP"}) {
        const Finished run = run_program("orbix_flash", {"-m", model, "-v"});
        EXPECT_EQ(run.status, 255);
        EXPECT_NE(run.output.find("_Flash_Tool_V1.0\n"), std::string::npos);
        EXPECT_EQ(run.output.find("[FAIL]"), std::string::npos);
    }
}

TEST(NmeaUpgradePrograms, RunningFirmwareTakesTheImage) {
    expect_upgrade("RTA500C_EVB_NXP", "app", 0x100000);
    expect_upgrade("TS60B", "gnss", 0);
}

TEST(NmeaUpgradePrograms, ApplicationProcessorTakesTheImageWithEvenParity) {
    expect_upgrade("TS50A-EXT", "app_boot", 0);
}

}  // namespace
}  // namespace orbix::test
