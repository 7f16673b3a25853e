// The AG3352 application upgrade, end to end.
#include <gtest/gtest.h>

#include "app_loader.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

using sim::AppLoader;

constexpr std::uint32_t load_address = 0x08009000;

std::vector<std::string> upgrade_arguments(const std::string& image) {
    return {"-m", "TR52G", "-p", "COM6", "-b", "115200", "-f", image, "-t", "UPG"};
}

class Ag3352UpgradeSizes : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Ag3352UpgradeSizes, FlashHoldsTheImageAndNothingElse) {
    const TempDir folder;
    const Bytes image = random_image(GetParam());
    AppLoader module;
    module.flash().fill(0x00);
    const ToolRun run(module, upgrade_arguments(folder.write("app.bin", image)));

    EXPECT_EQ(run.result(), upgrade_success);
    EXPECT_EQ(run.status, 0);
    const auto held = module.flash().read(load_address, image.size());
    EXPECT_TRUE(std::equal(held.begin(), held.end(), image.begin(), image.end()));
    EXPECT_EQ(module.flash().cells()[0x8FFF], 0x00) << "the boot loader's own area was touched";
    EXPECT_TRUE(module.rebooted());
}

INSTANTIATE_TEST_SUITE_P(Images, Ag3352UpgradeSizes, ::testing::Values(0, 1, 4096, 4097, 400'123));

}  // namespace
}  // namespace orbix::test
