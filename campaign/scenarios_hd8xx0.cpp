// HD8xx0: boot loader, running firmware, and the two processors of a dual-processor module.
#include "cyfm_package.h"
#include "hd8xx0_module.h"
#include "scenario.h"

namespace orbix::campaign {

namespace {

using sim::Hd8xx0Module;

constexpr std::uint32_t processor_size = Hd8xx0Module::processor_flash_size;

/// The boot procedure ends with the image's first block: it wants two of them at least.
constexpr std::size_t least_boot_image = 2048;

Rig begin(Draw& draw, bool strapped, const char* mode) {
    Rig rig;
    const char* name = draw.pick({"MX210A00", "MX240A00", "MX260C00", "MX280A00"});
    Hd8xx0Module::Settings settings;
    settings.variant = sim::hd8xx0_variant(name);
    settings.strapped = strapped;
    settings.talker.period = draw.pick({0U, 1000U}) * sim::milliseconds(1);
    rig.module = std::make_unique<Hd8xx0Module>(settings);
    begin_arguments(rig, draw, name, 115200);
    rig.option("-t", mode);
    return rig;
}

/// An image that belongs at the start of one processor's part of the flash.
void hold(Rig& rig, const Bytes& image, std::uint32_t processor) {
    sim::Flash& flash = rig.module->flash();
    const std::uint32_t begin = flash.base() + processor * processor_size;
    rig.held.push_back({&flash, begin, image});
    rig.regions.push_back({&flash, begin, begin + processor_size});
    rig.bytes_to_module += image.size() + image.size() / 1024 * 16;
    rig.bytes_to_host += image.size() / 1024 * 14;
}

Rig one_package(Draw& draw, bool strapped, const char* mode, std::uint32_t processor) {
    Rig rig = begin(draw, strapped, mode);
    Bytes image = draw.image(1024, 20'000);
    if (image.size() < least_boot_image) {
        rig.success_expected.reset();
    }
    rig.option("-f", put_file("fw.cyfm", sim::make_cyfm(image)));
    hold(rig, image, processor);
    return rig;
}

Rig both_processors(Draw& draw) {
    Rig rig = begin(draw, false, "all_user");
    const Bytes master = draw.image(1024, 10'000);
    const Bytes slave = draw.image(1024, 10'000);
    if (master.size() < least_boot_image || slave.size() < least_boot_image) {
        rig.success_expected.reset();
    }
    rig.option("-f", put_file("master.cyfm", sim::make_master_cyfm(master)));
    rig.option("-s", put_file("slave.cyfm", sim::make_cyfm(slave)));
    hold(rig, master, 0);
    hold(rig, slave, 1);
    return rig;
}

}  // namespace

std::vector<Scenario> hd8xx0_scenarios() {
    const std::vector<int> codes{-1, 258, 259, 260, 262, 263, 264, 512, 770, 771, 772, 1024, 1025};
    return {
        {"HD8xx0", "boot", [](Draw& draw) { return one_package(draw, true, "boot", 0); }, codes},
        {"HD8xx0", "user", [](Draw& draw) { return one_package(draw, false, "user", 0); }, codes},
        {"HD8xx0", "master_user",
         [](Draw& draw) { return one_package(draw, false, "master_user", 0); }, codes},
        {"HD8xx0", "slave_user",
         [](Draw& draw) { return one_package(draw, false, "slave_user", 1); }, codes},
        {"HD8xx0", "all_user", both_processors, codes},
    };
}

}  // namespace orbix::campaign
