// RX7040, the monitors, the evaluation board and ZPX710P.
#include "evaluation_board.h"
#include "monitor_module.h"
#include "rx7040_module.h"
#include "scenario.h"
#include "zpx710p.h"

namespace orbix::campaign {

namespace {

/// An image at an address, the only part of the flash besides what is erased with it.
void hold(Rig& rig, sim::Flash& flash, std::uint32_t begin, std::uint32_t end, Bytes image,
          std::size_t block) {
    rig.bytes_to_module = image.size() + 150 + image.size() / block * 14;
    rig.bytes_to_host = 100 + image.size() / block * 14;
    rig.held.push_back({&flash, begin, std::move(image)});
    rig.regions.push_back({&flash, begin, end});
}

std::uint32_t end_of(const sim::Flash& flash) {
    return flash.base() + static_cast<std::uint32_t>(flash.cells().size());
}

unsigned draw_rate(Draw& draw) {
    return draw.pick({115200U, 115200U, 230400U, 460800U});
}

// --- RX7040 --------------------------------------------------------------------------------------

Rig rx7040_upgrade(Draw& draw) {
    Rig rig;
    rig.module = std::make_unique<sim::Rx7040Module>();
    const unsigned rate = draw_rate(draw);
    rig.module->start_baud = rate;
    begin_arguments(rig, draw, draw.pick({"MX290A", "MX291B", "MX295A"}), rate);
    Bytes image = draw.image(5120, 30'000);
    rig.option("-f", put_file("fw.pkg", image));
    rig.option("-t", draw.pick({"UPG", "upgrade"}));
    sim::Flash& flash = rig.module->flash();
    hold(rig, flash, sim::Rx7040Module::application_address, end_of(flash), std::move(image), 5120);
    return rig;
}

Rig rx7040_download(Draw& draw) {
    Rig rig;
    sim::Rx7040Module::Behaviour behaviour;
    behaviour.loader_has_words = !draw.chance(30);
    const Bytes loader = draw.image(1024, 6000);
    // A header stands in front of the code and is not sent, unless there is nothing else.
    constexpr std::size_t header = 36;
    const auto code = std::span(loader).subspan(loader.size() > header ? header : 0);
    behaviour.loader_code.assign(code.begin(), code.end());
    rig.module = std::make_unique<sim::Rx7040Module>(behaviour);
    rig.option("-m", draw.pick({"MX290A", "MX291B", "MX295A"}));
    rig.option("-p", "COM6");
    Bytes image = draw.image(1024, 20'000);
    rig.option("-L", put_file("loader.pkg", loader));
    rig.option("-f", put_file("fw.pkg", image));
    rig.option("-t", draw.pick({"DL", "download"}));
    sim::Flash& flash = rig.module->flash();
    hold(rig, flash, flash.base(), end_of(flash), std::move(image), 1024);
    rig.bytes_to_module += loader.size() + 1200;
    return rig;
}

// --- the monitors and the board ------------------------------------------------------------------

Rig monitor(Draw& draw, bool first) {
    Rig rig;
    sim::MonitorModule::Behaviour behaviour;
    behaviour.reset_header =
        first ? sim::MonitorModule::first_variant : sim::MonitorModule::second_variant;
    const bool automatic = draw.chance(70);
    behaviour.needs_reset = automatic;
    behaviour.loader_baud = 115200;
    rig.module = std::make_unique<sim::MonitorModule>(behaviour);
    rig.module->start_baud = automatic ? draw.pick({115200U, 230400U, 460800U}) : 115200U;
    begin_arguments(rig, draw,
                    first ? draw.pick({"MN10A", "MN10B"}) : draw.pick({"MN20A", "MN20B"}), 115200);
    const bool application = draw.chance(60);
    Bytes image = draw.image(5120, 30'000);
    rig.option("-f", put_file("fw.bin", image));
    rig.option("-t", application ? "APP" : "BOOT");
    rig.option("-r", automatic ? "AUTO" : "MANUAL");
    sim::Flash& flash = rig.module->flash();
    const std::uint32_t border = sim::MonitorModule::application_address;
    hold(rig, flash, application ? border : flash.base(), application ? end_of(flash) : border,
         std::move(image), 5120);
    return rig;
}

Rig evaluation_board(Draw& draw) {
    Rig rig;
    rig.module = std::make_unique<sim::EvaluationBoard>();
    const unsigned rate = draw_rate(draw);
    rig.module->start_baud = rate;
    begin_arguments(rig, draw, "GNSS-MODULE-EVB", rate);
    Bytes image = draw.image(5120, 30'000);
    rig.option("-f", put_file("fw.bin", image));
    sim::Flash& flash = rig.module->flash();
    hold(rig, flash, sim::EvaluationBoard::application_address, end_of(flash), std::move(image),
         5120);
    return rig;
}

// --- ZPX710P -------------------------------------------------------------------------------------

Rig zpx710p_upgrade(Draw& draw, const char* mode, sim::AppLoader sim::Zpx710pModule::*processor,
                    std::size_t block) {
    Rig rig;
    auto module = std::make_unique<sim::Zpx710pModule>();
    begin_arguments(rig, draw, draw.pick({"ZPX710P", "ZPX710P-EVB"}), 115200);
    Bytes image = draw.image(block, 15'000);
    rig.option("-f", put_file("fw.bin", image));
    rig.option("-t", mode);
    sim::Flash& flash = ((*module).*processor).flash();
    hold(rig, flash, flash.base(), end_of(flash), std::move(image), block);
    rig.flashes = {&module->mcu.flash(), &module->gnss.flash(), &module->lora.flash()};
    rig.module = std::move(module);
    return rig;
}

Rig zpx710p_download(Draw& draw) {
    Rig rig;
    auto module = std::make_unique<sim::Zpx710pRomLoader>();
    module->start_time = draw.chance(20) ? sim::milliseconds(draw.number(1, 3000)) : 0;
    begin_arguments(rig, draw, "ZPX710P", 115200);
    Bytes image = draw.image(240, 15'000);
    rig.option("-f", put_file("fw.bin", image));
    rig.option("-t", draw.pick({"DL", "download"}));
    hold(rig, module->flash(), module->flash().base(), end_of(module->flash()), std::move(image),
         240);
    rig.module = std::move(module);
    return rig;
}

}  // namespace

std::vector<Scenario> board_scenarios() {
    using sim::Zpx710pModule;
    const std::vector<int> zpx_codes{-1, 258, 259, 260, 263, 264, 512, 1024, 1025, 1026, 1027};
    return {
        {"RX7040", "upgrade", rx7040_upgrade, {-1}},
        {"RX7040", "download", rx7040_download, {-1}},
        {"monitor1", "upgrade", [](Draw& draw) { return monitor(draw, true); }, {-1}},
        {"monitor2", "upgrade", [](Draw& draw) { return monitor(draw, false); }, {-1}},
        {"EVB", "upgrade", evaluation_board, {-1}},
        {"ZPX710P", "MCU_UPG",
         [](Draw& draw) { return zpx710p_upgrade(draw, "MCU_UPG", &Zpx710pModule::mcu, 5120); },
         zpx_codes},
        {"ZPX710P", "GNSS_UPG",
         [](Draw& draw) { return zpx710p_upgrade(draw, "GNSS_UPG", &Zpx710pModule::gnss, 1024); },
         zpx_codes},
        {"ZPX710P", "LORA_UPG",
         [](Draw& draw) { return zpx710p_upgrade(draw, "LORA_UPG", &Zpx710pModule::lora, 1024); },
         zpx_codes},
        {"ZPX710P", "DL", zpx710p_download, zpx_codes},
    };
}

}  // namespace orbix::campaign
