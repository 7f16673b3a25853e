// The GNSS module evaluation board: a boot loader that has its own version query and starts the new
// application by itself.
#pragma once

#include "app_loader.h"

namespace orbix::sim {

class EvaluationBoard : public AppLoader {
  public:
    static constexpr std::uint32_t application_address = 0x08010000;

    EvaluationBoard() : AppLoader(boot_loader()) {}

  private:
    static Settings boot_loader() {
        constexpr std::uint32_t flash_base = 0x08000000;
        Settings settings;
        settings.flash_base = flash_base;
        settings.flash_size = 1024 * 1024;
        settings.areas = {{.announced = 0,
                           .address = application_address,
                           .size = flash_base + settings.flash_size - application_address}};
        settings.fourth_word = 0x01000000;
        settings.largest_block = 5120;
        settings.start = Start::by_itself;
        settings.version_address = 0xF0;
        settings.version_command = 0x01;
        return settings;
    }
};

}  // namespace orbix::sim
