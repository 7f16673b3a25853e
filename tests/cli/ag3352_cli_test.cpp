// An AG3352 module on a pseudo-terminal: a package goes in, and comes out again.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "cli/process.h"
#include "run/harness.h"

namespace orbix::test {
namespace {

TEST(Ag3352Cli, PackageGoesInAndComesOut) {
    const TempDir folder;
    const std::string agent = folder.write("da.bin", random_image(43956));
    const Bytes image = random_image(9000, 2);
    folder.write("app.bin", image);
    folder.write("flash_download.cfg",
                 std::string("rom:\n  file: app.bin\n  begin_address: 0x08009000\n"));
    SimulatedModule module("TR52G", {"--dump", folder.path("flash.bin")});

    const Finished download =
        run_program("orbix_flash", {"-m", "TR52G", "-p", module.port(), "-b", "921600", "-d",
                                    folder.path(), "-s", agent, "-t", "DL"});
    EXPECT_EQ(download.status, 0);
    EXPECT_TRUE(download.output.ends_with(upgrade_success + "\n"));
    EXPECT_EQ(download.errors, "");

    const Finished readback =
        run_program("orbix_flash", {"-m", "TR52G", "-p", module.port(), "-b", "921600", "-s", agent,
                                    "-a", "0x08009000", "0x08008000", "-t", "0x3000", "1000", "-o",
                                    folder.path("app.out"), folder.path("before.out")});
    EXPECT_EQ(readback.status, 0);
    EXPECT_TRUE(readback.output.ends_with(readback_success + "\n"));
    EXPECT_EQ(readback.errors, "");
    Bytes read = image;
    read.resize(0x3000, 0xFF);
    EXPECT_TRUE(read_file(folder.path("app.out")) == read);
    EXPECT_TRUE(read_file(folder.path("before.out")) == Bytes(0x1000, 0xFF));

    module.stop();
    Bytes flash(0x200000, 0xFF);
    std::copy(image.begin(), image.end(), flash.begin() + 0x9000);
    EXPECT_TRUE(read_file(folder.path("flash.bin")) == flash);
}

}  // namespace
}  // namespace orbix::test
