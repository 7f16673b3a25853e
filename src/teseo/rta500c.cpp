#include "teseo/rta500c.h"

#include "core/kv_flash_tool.h"
#include "core/kv_log.h"
#include "core/options.h"
#include "teseo/entry.h"
#include "teseo/nmea_upgrade.h"

namespace orbix::rta500c {

namespace {

constexpr const char* version = "1.0";

constexpr const char* missing_parameters =
    "Upgrade failed.Please input parameters correctly, such as ./orbix_flash -m RTA500C_EVB_NXP -p "
    "/dev/ttyUSB0 -f ../RTA500C_EVB_NXP.bin -b 115200 -c app, FAIL\n";

void log_version() {
    log_info("Version: RTA500C_EVB_NXP_Flash_Tool_V%s\n", version);
}

struct Options : teseo::CommonOptions {
    teseo::FlashArea flash_area = teseo::no_area;
};

/// What the run does once the options are read.
enum class After : unsigned char { upgrade, fail, end };

After parse_options(int argc, char** argv, Options& options) {
    OptionScan scan(argc, argv, "m:p:f:b:t:c:v::D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        if (teseo::take_common_option(letter, scan.value(), options)) {
            continue;
        }
        switch (letter) {
            case 'c':
                log_info("Flash area: %s\n", scan.value());
                options.flash_area = teseo::flash_area_of(scan.value());
                if (options.flash_area == teseo::no_area) {
                    log_error("unknow flash area %s, FAIL\n", scan.value());
                    return After::fail;
                }
                break;
            case 'v':
                log_version();
                return After::end;
            default:  // -t too: this family has no modes
                usage(argv[0]);
                return After::fail;
        }
    }
    return After::upgrade;
}

int upgrade(const Options& options, SerialHandle& handle) {
    const int result = teseo::open_module(options, missing_parameters, handle);
    if (result != 0) {
        return result;
    }
    if (options.flash_area == teseo::no_area) {
        log_error("Parameter call error.\n");
        return -1;
    }
    std::int32_t file_len = -1;
    return teseo::run_nmea_upgrade(handle, teseo::upgrade_of_area(options.flash_area),
                                   teseo::UpgradeImage::of_file(options.firmware.c_str()),
                                   file_len);
}

}  // namespace

int rta500c_upgrade(int argc, char** argv) {
    Options options;
    switch (parse_options(argc, argv, options)) {
        case After::end:
            return end_run(-1);
        case After::fail:
            return -1;
        case After::upgrade:
            break;
    }
    log_version();
    SerialHandle handle = no_port;
    const int result = upgrade(options, handle);
    serial_close(handle);
    return result;
}

}  // namespace orbix::rta500c
