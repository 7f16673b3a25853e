// HD8xx0 modules with the built programs: packages made from images, each way of being flashed.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

class Hd8xx0Programs : public ::testing::Test {
  protected:
    [[nodiscard]] std::string path(const std::string& name) const { return folder_.path(name); }

    /// An image, and its package. Returns the image.
    [[nodiscard]] Bytes make_package(const std::string& package, std::size_t size, unsigned seed,
                                     bool for_master = false) const {
        Bytes image = random_image(size, seed);
        std::vector<std::string> words{folder_.write("image", image), path(package)};
        if (for_master) {
            words.insert(words.begin(), "--master");
        }
        EXPECT_EQ(run_program("orbix_pack_cyfm", words).status, 0);
        return image;
    }

  private:
    TempDir folder_;
};

TEST_F(Hd8xx0Programs, ImageArrivesByEveryWay) {
    struct Way {
        const char* model;
        const char* mode;
        std::unique_ptr<SimulatedModule> module;
        std::unique_ptr<Background> tool;
    };
    const Bytes image = make_package("fw.cyfm", 5000, 1);
    std::vector<Way> ways;
    ways.push_back({"MX240A00", "boot", nullptr, nullptr});
    ways.push_back({"MX285A00", "s_boot", nullptr, nullptr});
    ways.push_back({"MX210A00", "user", nullptr, nullptr});
    ways.push_back({"MX260B00", "master_user", nullptr, nullptr});
    // Side by side: most of the time goes by in the boot loader's pauses.
    for (Way& way : ways) {
        way.module = std::make_unique<SimulatedModule>(
            way.model, std::vector<std::string>{"--dump", path(way.mode)});
        way.tool = std::make_unique<Background>(
            "orbix_flash",
            std::vector<std::string>{"-m", way.model, "-p", way.module->port(), "-b", "115200",
                                     "-f", path("fw.cyfm"), "-t", way.mode});
    }
    for (const Way& way : ways) {
        const Finished run = way.tool->finish();
        EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << way.mode << run.output;
        way.module->stop();
        EXPECT_TRUE(dump_holds(path(way.mode), 0, image)) << way.mode;
    }
}

TEST_F(Hd8xx0Programs, BothProcessorsAreUpdatedInOneRun) {
    constexpr std::size_t slave_offset = 2UL * 1024 * 1024;
    const Bytes master = make_package("master.cyfm", 1500, 1, true);
    const Bytes slave = make_package("slave.cyfm", 2500, 2);
    SimulatedModule module("MX270A00", {"--dump", path("dump")});
    const Finished run = run_program(
        "orbix_flash", {"-m", "MX270A00", "-p", module.port(), "-b", "115200", "-f",
                        path("master.cyfm"), "-s", path("slave.cyfm"), "-t", "all_user"});
    EXPECT_TRUE(run.output.ends_with(upgrade_success + "\n")) << run.output;
    module.stop();
    EXPECT_TRUE(dump_holds(path("dump"), 0, master));
    EXPECT_TRUE(dump_holds(path("dump"), slave_offset, slave));
}

TEST_F(Hd8xx0Programs, VersionIsStatus255) {
    const Finished run = run_program("orbix_flash", {"-m", "MX210A00", "-v"});
    EXPECT_EQ(run.status, 255);
    EXPECT_TRUE(run.output.ends_with("[INFO] Version: HD8xx0_Flash_Tool_V1.1\n")) << run.output;
}

TEST_F(Hd8xx0Programs, PackerRefusesWhatItCannotRead) {
    EXPECT_EQ(run_program("orbix_pack_cyfm", {path("absent"), path("out")}).status, 1);
    EXPECT_EQ(run_program("orbix_pack_cyfm", {path(""), path("out")}).status, 1);
    EXPECT_EQ(run_program("orbix_pack_cyfm", {path("absent")}).status, 2);
    EXPECT_EQ(run_program("orbix_pack_cyfm", {"--help"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(path("out")));
}

}  // namespace
}  // namespace orbix::test
