// STA8089 and STA9100 through the built programs.
#include <gtest/gtest.h>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

struct Way {
    const char* model;
    const char* mode;  ///< of -t; null for none
};

class TeseoLoaderProgram : public ::testing::TestWithParam<Way> {};

TEST_P(TeseoLoaderProgram, FlashesASimulatedModule) {
    const Way way = GetParam();
    const TempDir folder;
    const Bytes image = random_image(600);
    const std::string dump = folder.path("dump");
    SimulatedModule module(way.model, {"--dump", dump});
    std::vector<std::string> arguments{"-m", way.model, "-p", module.port(),
                                       "-b", "115200",  "-f", folder.write("app.bin", image)};
    if (way.mode != nullptr) {
        arguments.insert(arguments.end(), {"-t", way.mode});
    }
    const Finished run = run_program("orbix_flash", arguments);

    EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << run.output;
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(module.stop().status, 0);
    EXPECT_TRUE(dump_holds(dump, 0, image));
    EXPECT_TRUE(dump_holds(dump, image.size(), {0xFF})) << "more than the image";
    EXPECT_EQ(run.output.find("hint:"), std::string::npos) << "hints are for people";
}

INSTANTIATE_TEST_SUITE_P(Ways, TeseoLoaderProgram,
                         ::testing::Values(Way{"TS30D", nullptr}, Way{"TS35B", "normal"},
                                           Way{"TS30A", "boot"}, Way{"TS90B", nullptr}));

TEST(TeseoLoaderProgram, VersionSetsTheExitStatus) {
    const Finished sta8089 = run_program("orbix_flash", {"-m", "TS30D", "-v"});
    EXPECT_EQ(sta8089.status, 255);
    EXPECT_NE(sta8089.output.find("Version: STA8089_Flash_Tool_V1.0\n"), std::string::npos);
    EXPECT_EQ(sta8089.output.find("[FAIL]"), std::string::npos);
    const Finished sta9100 = run_program("orbix_flash", {"-m", "TS90B", "-v"});
    EXPECT_EQ(sta9100.status, 1);
    EXPECT_EQ(sta9100.output.find("[FAIL]"), std::string::npos);
}

}  // namespace
}  // namespace orbix::test
