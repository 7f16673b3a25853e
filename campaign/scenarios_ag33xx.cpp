// AG3335 and AG3352: the ROM loader with its agents, readback, and the application upgrade.
#include <array>
#include <cstdio>
#include <filesystem>

#include "ag33xx_modules.h"
#include "app_loader.h"
#include "scenario.h"

namespace orbix::campaign {

namespace {

constexpr std::uint32_t flash_base = 0x08000000;

/// The kinds of download agent are told apart by the size of the file.
constexpr std::size_t old_agent_size = 27895;
constexpr std::size_t other_old_agent_size = 28107;
constexpr std::size_t ag3352_agent_size = 43956;

constexpr const char* folder = "package";

struct Image {
    std::string name;
    std::uint32_t address;
    Bytes content;
};

std::string hex_word(std::uint32_t value) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "0x%08X", value);
    return text.data();
}

/// One to three images at ascending addresses that do not touch each other.
std::vector<Image> draw_package(Draw& draw) {
    static constexpr std::array<const char*, 3> names{"bootloader.bin", "app.bin", "config.bin"};
    std::vector<Image> images;
    std::uint32_t address = flash_base + static_cast<std::uint32_t>(draw.number(0, 8)) * 0x1000;
    const std::size_t count = draw.pick({1U, 1U, 2U, 3U});
    for (std::size_t number = 0; number < count; ++number) {
        images.push_back({names.at(number), address, draw.image(4096, 12'000)});
        address += (static_cast<std::uint32_t>(images.back().content.size()) / 0x1000 + 2) * 0x1000;
    }
    return images;
}

/// Writes the package and its layout; what the flash must hold of it goes to the rig.
void put_package(Rig& rig, const std::vector<Image>& images) {
    std::filesystem::create_directory(folder);
    std::string layout = "main_region:\n";
    for (const Image& image : images) {
        put_file(std::string(folder) + "/" + image.name, image.content);
        layout += "  rom:\n    file: " + image.name +
                  "\n    begin_address: " + hex_word(image.address) + "\n";
        rig.held.push_back({&rig.module->flash(), image.address, image.content});
        rig.bytes_to_module += image.content.size() + 4200;
    }
    put_file(std::string(folder) + "/flash_download.cfg",
             std::span(reinterpret_cast<const std::uint8_t*>(layout.data()), layout.size()));
}

void put_agent(Rig& rig, Draw& draw, std::size_t size) {
    rig.option("-s", put_file("agent.bin", draw.bytes(size)));
    rig.bytes_to_module += size;
    rig.bytes_to_host += 300;
}

/// One or two regions of the flash, read into files.
void ask_for_regions(Rig& rig, Draw& draw, std::uint32_t flash_size) {
    sim::Flash& flash = rig.module->flash();
    flash.program(flash_base, draw.bytes(0x8000));
    flash.program(flash_base + flash_size - 0x2000, draw.bytes(0x2000));
    std::vector<std::string> addresses;
    std::vector<std::string> sizes;
    std::vector<std::string> paths;
    const std::size_t count = draw.pick({1U, 1U, 2U});
    for (std::size_t number = 0; number < count; ++number) {
        const auto size = static_cast<std::uint32_t>(draw.number(1, 3)) * 0x1000;
        const std::uint32_t page = static_cast<std::uint32_t>(draw.number(0, 7)) * 0x1000;
        const std::uint32_t offset = draw.chance(20) ? flash_size - size : page;
        const auto cells = flash.read(flash_base + offset, size);
        paths.push_back("part" + std::to_string(number) + ".bin");
        std::filesystem::remove(paths.back());
        addresses.push_back(hex_word(flash_base + offset));
        sizes.push_back(hex_word(size));
        rig.written.push_back({paths.back(), {cells.begin(), cells.end()}});
        rig.bytes_to_host += size + 20;
    }
    const auto append = [&rig](const char* letter, const std::vector<std::string>& values) {
        rig.arguments.emplace_back(letter);
        rig.arguments.insert(rig.arguments.end(), values.begin(), values.end());
    };
    append("-a", addresses);
    append("-t", sizes);
    append("-o", paths);
    flash.forget_touched();
    rig.flashes.push_back(&flash);
}

// --- AG3335 --------------------------------------------------------------------------------------

std::unique_ptr<sim::Ag3335Module> draw_ag3335(Draw& draw, bool soft_reset, unsigned agent_rate) {
    sim::Ag3335Module::Settings settings;
    settings.boot.old_agent.rates = {agent_rate};
    settings.runs_firmware = soft_reset;
    const bool late = draw.chance(20);
    if (late && !soft_reset) {
        settings.reset_pressed_after = sim::milliseconds(draw.number(1, 9000));
    }
    return std::make_unique<sim::Ag3335Module>(settings);
}

/// Module, line and agent.
Rig begin_ag3335(Draw& draw, bool old_agent) {
    Rig rig;
    const bool soft_reset = draw.chance(15);
    const unsigned rate = draw.pick({115200U, 230400U, 460800U, 921600U});
    rig.module = draw_ag3335(draw, soft_reset, rate);
    begin_arguments(rig, draw,
                    soft_reset ? draw.pick({"TR75XBA-SR01", "TR75XBA-SR02"})
                               : draw.pick({"TR40XBA", "TR50XDA", "TR71KXM", "TR80XCA"}),
                    115200);
    if (rate != 115200 || draw.chance(50)) {
        rig.option("-l", std::to_string(rate));
    }
    put_agent(rig, draw,
              old_agent ? draw.pick({old_agent_size, other_old_agent_size})
                        : static_cast<std::size_t>(draw.number(1, 3000)));
    return rig;
}

Rig ag3335_upgrade(Draw& draw, bool old_agent) {
    Rig rig = begin_ag3335(draw, old_agent);
    rig.option("-d", draw.chance(50) ? folder : std::string(folder) + "/");
    if (draw.chance(20)) {
        rig.option("-t", "1");
    }
    put_package(rig, draw_package(draw));
    rig.regions.push_back({&rig.module->flash(), flash_base, flash_base + 0x400000});
    rig.bytes_to_module += old_agent ? 100 : 1100;
    rig.bytes_to_host += old_agent ? 150 : 700;
    return rig;
}

Rig ag3335_readback(Draw& draw, bool old_agent) {
    Rig rig = begin_ag3335(draw, old_agent);
    ask_for_regions(rig, draw, 0x400000);
    return rig;
}

// --- AG3352 --------------------------------------------------------------------------------------

const char* draw_ag3352(Draw& draw) {
    return draw.pick({"TR52G", "TR52D", "TR54G", "TR58G"});
}

Rig begin_ag3352(Draw& draw, unsigned rate) {
    sim::Ag3352Module::Settings settings;
    settings.reset_pressed_after = draw.chance(20) ? sim::milliseconds(draw.number(1, 9000)) : 0;
    Rig rig;
    rig.module = std::make_unique<sim::Ag3352Module>(settings);
    begin_arguments(rig, draw, draw_ag3352(draw), rate);
    return rig;
}

Rig ag3352_upgrade(Draw& draw) {
    const unsigned rate = draw.pick({115200U, 115200U, 460800U, 921600U});
    Rig rig;
    sim::AppLoader::Settings settings;
    settings.start_time = draw.chance(20) ? sim::milliseconds(draw.number(1, 9000)) : 0;
    rig.module = std::make_unique<sim::AppLoader>(settings);
    rig.module->start_baud = rate;
    begin_arguments(rig, draw, draw_ag3352(draw), rate);
    const Bytes image = draw.image(4096, 30'000);
    rig.option("-f", put_file("app.bin", image));
    rig.option("-t", draw.pick({"UPG", "upgrade"}));
    constexpr std::uint32_t load_address = 0x08009000;
    rig.held.push_back({&rig.module->flash(), load_address, image});
    rig.regions.push_back({&rig.module->flash(), load_address, flash_base + 0x200000});
    rig.bytes_to_module = image.size() + 120 + image.size() / 4096 * 14;
    rig.bytes_to_host = 90 + image.size() / 4096 * 14;
    return rig;
}

Rig ag3352_download(Draw& draw) {
    Rig rig = begin_ag3352(draw, draw.pick({115200U, 921600U}));
    put_agent(rig, draw, ag3352_agent_size);
    rig.option("-d", draw.chance(50) ? folder : std::string(folder) + "/");
    rig.option("-t", draw.pick({"DL", "download"}));
    put_package(rig, draw_package(draw));
    rig.regions.push_back({&rig.module->flash(), flash_base, flash_base + 0x1F8000});
    rig.bytes_to_module += 800;
    rig.bytes_to_host += 600;
    return rig;
}

Rig ag3352_readback(Draw& draw) {
    Rig rig = begin_ag3352(draw, draw.pick({115200U, 921600U}));
    put_agent(rig, draw, ag3352_agent_size);
    ask_for_regions(rig, draw, 0x200000);
    return rig;
}

}  // namespace

std::vector<Scenario> ag33xx_scenarios() {
    return {
        {"AG3335", "old-agent", [](Draw& draw) { return ag3335_upgrade(draw, true); }, {-1}},
        {"AG3335", "new-agent", [](Draw& draw) { return ag3335_upgrade(draw, false); }, {-1}},
        {"AG3335", "old-readback", [](Draw& draw) { return ag3335_readback(draw, true); }, {-1}},
        {"AG3335", "new-readback", [](Draw& draw) { return ag3335_readback(draw, false); }, {-1}},
        {"AG3352", "upgrade", ag3352_upgrade, {-1}},
        {"AG3352", "download", ag3352_download, {-1}},
        {"AG3352", "readback", ag3352_readback, {-1}},
    };
}

}  // namespace orbix::campaign
