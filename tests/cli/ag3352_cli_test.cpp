// An AG3352 module on a pseudo-terminal: a package goes in, and comes out again.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

#include "cli/process.h"

namespace orbix::test {
namespace {

/// A folder that goes at the end of the test.
class Folder {
  public:
    Folder() {
        std::random_device random;
        path_ = std::filesystem::temp_directory_path() /
                ("orbix-cli-" + std::to_string(random()) + "-" + std::to_string(random()));
        std::filesystem::create_directory(path_);
    }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    [[nodiscard]] std::string path(const std::string& name) const { return path_ / name; }

    [[nodiscard]] std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

  private:
    std::filesystem::path path_;
};

std::string random_content(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string content(size, '\0');
    for (char& byte : content) {
        byte = static_cast<char>(random());
    }
    return content;
}

TEST(Ag3352Cli, PackageGoesInAndComesOut) {
    const Folder folder;
    const std::string agent = folder.write("da.bin", random_content(43956, 1));
    const std::string image = random_content(9000, 2);
    (void)folder.write("app.bin", image);
    (void)folder.write("flash_download.cfg",
                       "rom:\n  file: app.bin\n  begin_address: 0x08009000\n");
    SimulatedModule module("TR52G", {"--dump", folder.path("flash.bin")});

    const Finished download =
        run_program("orbix_flash", {"-m", "TR52G", "-p", module.port(), "-b", "921600", "-d",
                                    folder.path(""), "-s", agent, "-t", "DL"});
    EXPECT_EQ(download.status, 0);
    EXPECT_TRUE(download.output.ends_with("[SUCCESS] orbix_flash upgrade success\n"));
    EXPECT_EQ(download.errors, "");

    const Finished readback =
        run_program("orbix_flash", {"-m", "TR52G", "-p", module.port(), "-b", "921600", "-s", agent,
                                    "-a", "0x08009000", "0x08008000", "-t", "0x3000", "1000", "-o",
                                    folder.path("app.out"), folder.path("before.out")});
    EXPECT_EQ(readback.status, 0);
    EXPECT_TRUE(readback.output.ends_with("[SUCCESS] orbix_flash readback success\n"));
    EXPECT_EQ(readback.errors, "");
    EXPECT_EQ(folder.read("app.out"), image + std::string(0x3000 - image.size(), '\xFF'));
    EXPECT_EQ(folder.read("before.out"), std::string(0x1000, '\xFF'));

    module.stop();
    std::string flash(0x200000, '\xFF');
    flash.replace(0x9000, image.size(), image);
    EXPECT_TRUE(folder.read("flash.bin") == flash);
}

}  // namespace
}  // namespace orbix::test
