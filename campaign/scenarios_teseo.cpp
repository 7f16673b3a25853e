// STA8100, STA9100, STA8089 and RTA500C.
#include "scenario.h"
#include "sta8100_module.h"
#include "teseo_chip.h"
#include "upgrade_agent.h"

namespace orbix::campaign {

namespace {

constexpr std::size_t piece = 16384;
constexpr std::size_t packet = 5120;

/// The size of the loader that goes in front of an image in the boot ROM's dialogue.
constexpr std::uint64_t ram_loader_size = 10'912;

/// The talkative module: a running receiver says a sentence a second and is asked for its loader.
void draw_talker(Draw& draw, sim::NmeaTalker::Settings& talker) {
    talker.period = draw.pick({0U, 1000U, 200U}) * sim::milliseconds(1);
    talker.answer = draw.pick({sim::UpgradeAnswer::none, sim::UpgradeAnswer::accepted});
}

/// An image in the chip's flash, of which the code and NVM areas may be erased.
void put_chip_image(Rig& rig, Draw& draw, sim::Flash& flash) {
    const Bytes image = draw.image(piece, 40'000);
    rig.option("-f", put_file("app.bin", image));
    rig.held.push_back({&flash, sim::teseo_flash_base, image});
    rig.regions.push_back(
        {&flash, sim::teseo_flash_base,
         sim::teseo_flash_base + static_cast<std::uint32_t>(flash.cells().size())});
    rig.bytes_to_module = image.size() + 200;
    rig.bytes_to_host = 40 + image.size() / piece;
}

/// An image for one of the areas that the agent of a running firmware serves.
void put_area_image(Rig& rig, Draw& draw, sim::UpgradeAgent& agent) {
    struct Area {
        const char* word;
        std::uint32_t number;
    };
    const Area area = draw.pick<Area>(
        {{"gnss", 0}, {"app", 1}, {"slave_gnss", 2}, {"slave_app", 3}, {"slave_boot", 4}});
    const Bytes image = draw.image(packet, 40'000);
    const std::uint32_t begin = area.number * 0x100000;
    rig.option("-f", put_file("app.bin", image));
    rig.option("-c", area.word);
    rig.held.push_back({&agent.flash(), begin, image});
    rig.regions.push_back({&agent.flash(), begin, begin + 0x100000});
    rig.bytes_to_module = image.size() + 150 + image.size() / packet * 14;
    rig.bytes_to_host = 90 + image.size() / packet * 14;
}

const char* draw_sta8100(Draw& draw) {
    return draw.pick({"TS50A", "TS52A-L", "TS60A", "TS62B"});
}

// --- STA8100 -------------------------------------------------------------------------------------

Rig sta8100_area(Draw& draw) {
    Rig rig;
    const char* name = draw_sta8100(draw);
    auto module = std::make_unique<sim::Sta8100Module>(name);
    begin_arguments(rig, draw, name, 115200);
    put_area_image(rig, draw, module->agent());
    rig.flashes = {&module->chip().flash(), &module->app().flash()};
    rig.module = std::move(module);
    return rig;
}

Rig sta8100_loader(Draw& draw, const char* mode) {
    Rig rig;
    const char* name = draw_sta8100(draw);
    auto settings = sim::Sta8100Module::of_model(name);
    draw_talker(draw, settings.chip.talker);
    settings.chip.loader.ready_time = sim::milliseconds(draw.number(0, 1500));
    auto module = std::make_unique<sim::Sta8100Module>(settings);
    begin_arguments(rig, draw, name, 115200);
    if (*mode != '\0') {
        rig.option("-t", mode);
    }
    put_chip_image(rig, draw, module->chip().flash());
    rig.flashes = {&module->agent().flash(), &module->app().flash()};
    rig.module = std::move(module);
    return rig;
}

Rig sta8100_boot(Draw& draw) {
    Rig rig = sta8100_loader(draw, "boot");
    rig.bytes_to_module += ram_loader_size;
    return rig;
}

Rig sta8100_app_boot(Draw& draw) {
    Rig rig;
    const char* name = draw_sta8100(draw);
    auto settings = sim::Sta8100Module::of_model(name);
    settings.chip.talker.period = 0;
    settings.app_waits = true;
    settings.app.write_protected = draw.chance(30);
    settings.app.read_protected = draw.chance(10);
    auto module = std::make_unique<sim::Sta8100Module>(settings);
    begin_arguments(rig, draw, name, 115200);
    const Bytes image = draw.image(256, 20'000);
    rig.option("-f", put_file("app.bin", image));
    rig.option("-c", "app_boot");
    sim::Flash& flash = module->app().flash();
    rig.held.push_back({&flash, flash.base(), image});
    rig.regions.push_back(
        {&flash, flash.base(), flash.base() + static_cast<std::uint32_t>(flash.cells().size())});
    rig.flashes = {&module->chip().flash(), &module->agent().flash()};
    rig.success_expected.reset();
    rig.bytes_to_module = image.size() + 100 + image.size() / 256 * 10;
    rig.bytes_to_host = 60 + image.size() / 256 * 3;
    rig.module = std::move(module);
    return rig;
}

// --- STA9100 and STA8089 -------------------------------------------------------------------------

Rig chip_rig(Draw& draw, sim::TeseoChip::Settings settings, const char* name, const char* mode) {
    Rig rig;
    auto module = std::make_unique<sim::TeseoChip>(settings);
    begin_arguments(rig, draw, name, 115200);
    if (*mode != '\0') {
        rig.option("-t", mode);
    }
    put_chip_image(rig, draw, module->flash());
    rig.module = std::move(module);
    return rig;
}

Rig sta9100(Draw& draw) {
    auto settings = sim::TeseoChip::sta9100();
    settings.talker.period = draw.pick({0U, 1000U}) * sim::milliseconds(1);
    Rig rig = chip_rig(draw, settings, "TS90B", "");
    rig.bytes_to_module += ram_loader_size;
    return rig;
}

Rig sta8089_loader(Draw& draw, const char* mode) {
    auto settings = sim::TeseoChip::sta8089();
    draw_talker(draw, settings.talker);
    return chip_rig(draw, settings, draw.pick({"TS30A", "TS31B", "TS35B"}), mode);
}

Rig sta8089_boot(Draw& draw) {
    Rig rig = sta8089_loader(draw, "boot");
    rig.bytes_to_module += ram_loader_size;
    return rig;
}

// --- RTA500C -------------------------------------------------------------------------------------

Rig rta500c(Draw& draw) {
    Rig rig;
    sim::UpgradeAgent::Settings settings;
    settings.talker.period = draw.pick({0U, 1000U}) * sim::milliseconds(1);
    settings.start_time = draw.chance(20) ? sim::milliseconds(draw.number(1, 5000)) : 0;
    auto module = std::make_unique<sim::UpgradeAgent>(settings);
    const unsigned rate = draw.pick({115200U, 460800U});
    module->start_baud = rate;
    begin_arguments(rig, draw, "RTA500C_EVB_NXP", rate);
    put_area_image(rig, draw, *module);
    rig.module = std::move(module);
    return rig;
}

}  // namespace

std::vector<Scenario> teseo_scenarios() {
    const std::vector<int> codes{-1};
    return {
        {"STA8100", "area", sta8100_area, codes},
        {"STA8100", "loader", [](Draw& draw) { return sta8100_loader(draw, ""); }, codes},
        {"STA8100", "recovery", [](Draw& draw) { return sta8100_loader(draw, "recovery"); }, codes},
        {"STA8100", "boot", sta8100_boot, codes},
        {"STA8100", "app_boot", sta8100_app_boot, codes},
        {"STA9100", "boot", sta9100, codes},
        {"STA8089", "loader", [](Draw& draw) { return sta8089_loader(draw, ""); }, codes},
        {"STA8089", "recovery", [](Draw& draw) { return sta8089_loader(draw, "recovery"); }, codes},
        {"STA8089", "boot", sta8089_boot, codes},
        {"RTA500C", "area", rta500c, codes},
    };
}

}  // namespace orbix::campaign
