// STA8089 and STA9100 through the built programs.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "cli/process.h"

namespace orbix::test {
namespace {

/// Files of one test, removed at its end.
class Files {
  public:
    Files() : folder_(std::filesystem::temp_directory_path() / "orbix-cli-XXXXXX") {
        std::string pattern = folder_;
        folder_ = mkdtemp(pattern.data());
    }
    ~Files() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

    [[nodiscard]] std::string path(const std::string& name) const { return folder_ / name; }

    [[nodiscard]] std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }

    [[nodiscard]] std::string read(const std::string& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

  private:
    std::filesystem::path folder_;
};

bool ends_with_success(const Finished& run) {
    const std::string wanted = "[SUCCESS] orbix_flash upgrade success\n";
    return run.output.size() > wanted.size() &&
           run.output.compare(run.output.size() - wanted.size(), wanted.size(), wanted) == 0;
}

struct Way {
    const char* model;
    const char* mode;  ///< of -t; null for none
};

class TeseoLoaderProgram : public ::testing::TestWithParam<Way> {};

TEST_P(TeseoLoaderProgram, FlashesASimulatedModule) {
    const Way way = GetParam();
    const Files files;
    const std::string image(600, 'i');
    SimulatedModule module(way.model, {"--dump", files.path("dump")});
    std::vector<std::string> arguments{"-m", way.model, "-p", module.port(),
                                       "-b", "115200",  "-f", files.write("app.bin", image)};
    if (way.mode != nullptr) {
        arguments.insert(arguments.end(), {"-t", way.mode});
    }
    const Finished run = run_program("orbix_flash", arguments);

    EXPECT_TRUE(ends_with_success(run)) << run.output;
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(module.stop().status, 0);
    EXPECT_EQ(files.read("dump").substr(0, 601), image + '\xFF');
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
