#include <cerrno>
#include <cstring>

#include "ag3335/new_agent.h"
#include "ag3335/readback_request.h"
#include "core/kv_log.h"
#include "upgrade/ag3352.h"
#include "upgrade/ag3352_loader.h"

namespace orbix::ag3352 {

namespace {

/// Kept as it has always been: a 21st region is taken, and the addresses that are there bound the
/// sizes, so that 21 sizes have to stand before 21 addresses.
constexpr readback::Rules rules{
    .largest_size = 0x200000,
    .most_regions = 21,
    .addresses_limit_sizes = true,
    .too_many_sizes = "readback_num overthan MAX.20\n",
    .tags_size_count = true,
    .needs_soft_reset = nullptr,
};

constexpr agent::ReadBounds bounds{.largest_size = 0x200000, .highest_address = 0x08200000};

bool read_back(int argc, char** argv) {
    static constexpr const char* entry = "ag3352_readback";
    readback::Request request;
    if (!readback::parse(argc, argv, rules, request) || !readback::check(request)) {
        return false;
    }
    const SerialPort port(request.device.c_str(), loader_baud);
    if (!port.is_open()) {
        log_error("Error opening %s: %s\n", request.device.c_str(), std::strerror(errno));
        return false;
    }
    if (!start_agent(port.handle(), entry, request.agent.c_str(), request.baud)) {
        return false;
    }
    for (std::size_t index = 0; index < request.paths.size(); ++index) {
        if (readback_flash_data(port.handle(), request.addresses[index], request.sizes[index],
                                request.paths[index].c_str()) < 0) {
            log_error("%s readback_flash_data error\n", entry);
            return false;
        }
    }
    return true;
}

}  // namespace

int readback_flash_data(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                        const char* path) {
    return agent::read_region(handle, {.address = address, .size = size}, path, bounds);
}

int ag3352_readback(int argc, char** argv) {
    if (!read_back(argc, argv)) {
        log_plain(" Flash upgrade failed\n");
        return -1;
    }
    return 0;
}

}  // namespace orbix::ag3352
