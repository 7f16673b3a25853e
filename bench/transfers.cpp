#include "transfers.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>

#include "cyfm_package.h"

namespace orbix::bench {

namespace {

using sim::TempDir;

constexpr std::size_t ag3352_agent_size = 43956;
constexpr std::size_t last_kilobyte = 1000;
constexpr std::size_t rx7040_loader_size = 36 + 3 * 1024 + last_kilobyte;

const std::vector<unsigned> any_rate{115200, 460800, 921600};

std::string image_file(const TempDir& folder, std::size_t size) {
    return folder.write("image.bin", sim::random_image(size));
}

/// A package of one image, and an agent.
void write_package(const TempDir& folder, std::size_t size, std::size_t agent_size) {
    std::filesystem::create_directory(folder.path("fw"));
    folder.write("fw/app.bin", sim::random_image(size));
    folder.write("fw/flash_download.cfg",
                 std::string("rom:\n    file: app.bin\n    begin_address: 0x08013000\n"));
    folder.write("agent.bin", sim::random_image(agent_size));
}

Arguments ag3335_package(const TempDir& folder, unsigned rate, std::size_t size) {
    write_package(folder, size, 30000);
    return {"-b", "115200",          "-l", std::to_string(rate),
            "-d", folder.path("fw"), "-s", folder.path("agent.bin")};
}

Arguments ag3352_download(const TempDir& folder, unsigned rate, std::size_t size) {
    write_package(folder, size, ag3352_agent_size);
    return {"-b", std::to_string(rate),     "-d", folder.path("fw"),
            "-s", folder.path("agent.bin"), "-t", "DL"};
}

Arguments ag3352_readback(const TempDir& folder, unsigned rate, std::size_t size) {
    std::array<char, 32> whole_pages{};
    std::snprintf(whole_pages.data(), whole_pages.size(), "0x%zX", size / 0x1000 * 0x1000);
    return {"-b", std::to_string(rate),
            "-s", folder.write("agent.bin", sim::random_image(ag3352_agent_size)),
            "-a", "0x08000000",
            "-t", whole_pages.data(),
            "-o", "/dev/null"};
}

Arguments hd8xx0(const TempDir& folder, unsigned rate, std::size_t size, const char* way) {
    const auto package = sim::make_cyfm(sim::random_image(size));
    return {"-b", std::to_string(rate), "-f", folder.write("fw.cyfm", package), "-t", way};
}

Arguments rx7040_download(const TempDir& folder, unsigned /*rate*/, std::size_t size) {
    return {"-L", folder.write("loader.pkg", sim::random_image(rx7040_loader_size)),
            "-f", image_file(folder, size),
            "-t", "DL"};
}

/// Rate, image, and the word that stands behind an option.
template <const auto& option, const auto& word>
Arguments one_image(const TempDir& folder, unsigned rate, std::size_t size) {
    return {"-b", std::to_string(rate), "-f", image_file(folder, size), option.data(), word.data()};
}

constexpr std::string_view mode_option = "-t";
constexpr std::string_view area_option = "-c";
constexpr std::string_view upgrade_word = "UPG";
constexpr std::string_view recovery_word = "recovery";
constexpr std::string_view app_word = "app";
constexpr std::string_view download_word = "DL";
constexpr std::string_view mcu_word = "MCU_UPG";

}  // namespace

const std::vector<Transfer>& transfers() {
    static const std::vector<Transfer> all{
        {"AG3335 package", "TR40XBA", any_rate, false, ag3335_package},
        {"AG3352 upgrade", "TR52G", any_rate, true, one_image<mode_option, upgrade_word>},
        {"AG3352 download", "TR52G", {115200, 921600}, false, ag3352_download},
        {"AG3352 readback", "TR52G", {115200, 921600}, false, ag3352_readback},
        {"HD8xx0 boot",
         "MX240A00",
         {460800},
         false,
         [](const TempDir& folder, unsigned /*rate*/, std::size_t size) {
             return hd8xx0(folder, 115200, size, "boot");
         }},
        {"HD8xx0 user",
         "MX240A00",
         {460800},
         false,
         [](const TempDir& folder, unsigned /*rate*/, std::size_t size) {
             return hd8xx0(folder, 115200, size, "user");
         }},
        {"HD8xx0 master_user", "MX270A00", any_rate, true,
         [](const TempDir& folder, unsigned rate, std::size_t size) {
             return hd8xx0(folder, rate, size, "master_user");
         }},
        {"Evaluation board", "GNSS-MODULE-EVB", any_rate, true,
         [](const TempDir& folder, unsigned rate, std::size_t size) -> Arguments {
             return {"-b", std::to_string(rate), "-f", image_file(folder, size)};
         }},
        {"Monitor", "MN10A", any_rate, true,
         [](const TempDir& folder, unsigned rate, std::size_t size) -> Arguments {
             return {
                 "-b",    std::to_string(rate), "-f", image_file(folder, size), "-t", "APP", "-r",
                 "MANUAL"};
         }},
        {"RX7040 upgrade", "MX290B", any_rate, true, one_image<mode_option, upgrade_word>},
        {"RX7040 download", "MX290B", {460800}, false, rx7040_download},
        {"STA8089 recovery", "TS30D", {115200}, false, one_image<mode_option, recovery_word>},
        {"STA8100 recovery",
         "TS50A",
         {230400},
         false,
         [](const TempDir& folder, unsigned /*rate*/, std::size_t size) {
             return one_image<mode_option, recovery_word>(folder, 115200, size);
         }},
        {"STA8100 area", "TS50A", any_rate, true, one_image<area_option, app_word>},
        {"STA9100",
         "TS90B",
         {115200},
         false,
         [](const TempDir& folder, unsigned rate, std::size_t size) -> Arguments {
             return {"-b", std::to_string(rate), "-f", image_file(folder, size)};
         }},
        {"RTA500C area", "RTA500C_EVB_NXP", any_rate, true, one_image<area_option, app_word>},
        {"ZPX710P download", "ZPX710P", any_rate, true, one_image<mode_option, download_word>, true,
         true},
        {"ZPX710P upgrade", "ZPX710P", any_rate, true, one_image<mode_option, mcu_word>},
    };
    return all;
}

const Transfer& transfer_named(const std::string& name) {
    return *std::ranges::find(transfers(), name, &Transfer::name);
}

std::size_t image_size(const Transfer& transfer, unsigned rate) {
    const bool small = rate <= 115200 || transfer.slow_module;
    const std::size_t line_bytes = small ? 115200 / 10 * 8 : std::size_t{rate} / 10 * 4;
    return line_bytes / 1024 * 1024 + last_kilobyte;
}

}  // namespace orbix::bench
