#include "ag3335/readback_request.h"

#include "ag3335/access.h"
#include "core/kv_log.h"
#include "core/kv_uart.h"
#include "core/options.h"

namespace orbix::readback {

namespace {

constexpr std::uint32_t lowest_address = 0x08000000;
constexpr std::size_t longest_path = 255;

bool parse_addresses(const std::vector<const char*>& words, const Rules& rules, Request& request) {
    for (const char* word : words) {
        if (request.addresses.size() >= rules.most_regions) {
            log_error("readback_num_addr overthan MAX.20\n");
            return false;
        }
        const std::uint32_t address = to_hex(word);
        if (address < lowest_address) {
            log_error("readback_addr error 0x%08x\n", address);
            return false;
        }
        request.addresses.push_back(address);
    }
    log_plain(" readback_addr_num: %d\n", static_cast<int>(request.addresses.size()));
    return true;
}

bool parse_sizes(const std::vector<const char*>& words, const Rules& rules, Request& request) {
    for (const char* word : words) {
        const std::size_t taken =
            rules.addresses_limit_sizes ? request.addresses.size() : request.sizes.size();
        if (taken >= rules.most_regions) {
            log_error("%s", rules.too_many_sizes);
            return false;
        }
        const std::uint32_t size = to_hex(word);
        if (size > rules.largest_size) {
            log_error("readback_size error 0x%08x\n", size);
            return false;
        }
        request.sizes.push_back(size);
    }
    const int count = static_cast<int>(request.sizes.size());
    if (rules.tags_size_count) {
        log_info("readback_size_num: %d\n", count);
    } else {
        log_plain(" readback_size_num: %d\n", count);
    }
    return true;
}

bool parse_paths(const std::vector<const char*>& words, const Rules& rules, Request& request) {
    for (const char* word : words) {
        if (request.paths.size() >= rules.most_regions) {
            log_error("readback_num overthan MAX.20\n");
            return false;
        }
        request.paths.push_back(clipped(word, longest_path));
    }
    log_plain(" readback_num: %d\n", static_cast<int>(request.paths.size()));
    return true;
}

void take_model(const char* model, const Rules& rules, Request& request) {
    if (rules.needs_soft_reset != nullptr && rules.needs_soft_reset(model)) {
        log_info("Need soft reset\n");
        request.soft_reset = true;
    }
    log_plain(" will read back mode: %s\n", model);
}

}  // namespace

bool parse(int argc, char** argv, const Rules& rules, Request& request) {
    OptionScan scan(argc, argv, "a:m:p:b:s:l:r:t:o:D");
    for (int letter = scan.next(); letter != -1; letter = scan.next()) {
        switch (letter) {
            case 'a':
                if (!parse_addresses(scan.values(), rules, request)) {
                    return false;
                }
                break;
            case 't':
                if (!parse_sizes(scan.values(), rules, request)) {
                    return false;
                }
                break;
            case 'o':
                if (!parse_paths(scan.values(), rules, request)) {
                    return false;
                }
                break;
            case 's':
                request.agent = clipped(scan.value(), longest_path);
                break;
            case 'p':
                request.device = device_of_port(scan.value());
                if (request.device.empty()) {
                    return false;
                }
                log_plain(" will use device: %s\n", request.device.c_str());
                break;
            case 'm':
                take_model(scan.value(), rules, request);
                break;
            case 'l':
                request.download_baud = to_int(scan.value());
                break;
            case 'b':
                request.baud = to_int(scan.value());
                log_plain(" baud_rate:%d\n", request.baud);
                break;
            case 'D':
                serial_enable_debug();
                log_plain(" debug mode\n");
                break;
            default:
                break;  // -r has no meaning for a readback
        }
    }
    return true;
}

bool check(const Request& request) {
    const auto count = [](const auto& list) { return static_cast<int>(list.size()); };
    const int paths = count(request.paths);
    const int sizes = count(request.sizes);
    const int addresses = count(request.addresses);
    if (paths != sizes || paths != addresses) {
        log_error("Please input corresponding number of readback_addr and readback_size\n");
        log_error(
            "input readback path num %d\ninput readback_size num %d\n"
            "input readback_addr num %d\n",
            paths, sizes, addresses);
        return false;
    }
    return check_access(request.agent.c_str());
}

}  // namespace orbix::readback
