#include "upgrade/ag3352_loader.h"

#include "ag3335/new_agent.h"
#include "ag3335/rom_loader.h"
#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::ag3352 {

namespace {

using loader::be32;
using loader::Status;
using loader::Step;

struct Watchdog {
    std::uint32_t address;
    std::uint16_t off;
};
constexpr Watchdog first_watchdog{.address = 0xA2080000, .off = 0x0010};
constexpr Watchdog second_watchdog{.address = 0xA2080030, .off = 0x0040};

constexpr std::uint32_t agent_address = 0x04200000;
constexpr std::uint32_t agent_length = 43956;

constexpr unsigned fast_baud = 921600;
constexpr unsigned rate_answer_ms = 3000;

constexpr std::uint32_t format_length = 0x1F8000;
constexpr unsigned block_reply_ms = 3000;

/// A step whose failures are told by the driver alone.
Step silent_step(SerialHandle handle) {
    return {.handle = handle};
}

bool disable_watchdogs(SerialHandle handle) {
    return ag3352_disable_module_WDT(handle, first_watchdog.address, first_watchdog.off) >= 0 &&
           ag3352_disable_module_WDT(handle, second_watchdog.address, second_watchdog.off) >= 0;
}

bool change_to_fast_rate(SerialHandle handle, const char* entry) {
    log_info("Modify Baud Rate...\n");
    if (modify_baud_rate(handle, fast_baud) < 0) {
        log_error("%s modify_baud_rate error\n", entry);
        return false;
    }
    log_info("Change baudrate to 921600\n");
    serial_change_br(handle, fast_baud);
    return true;
}

bool send_agent(SerialHandle handle, const char* entry, const char* path, bool fast) {
    log_info("Send Da file...\n");
    const int result = ag3352_send_Da_file(handle, agent_address, path, agent_length);
    if (result >= 0) {
        return true;
    }
    if (fast) {
        log_error("%s send_Da_file error\n", entry);
    } else {
        log_error("%s send_Da_file error %d\n", entry, result);
    }
    return false;
}

}  // namespace

int ag3352_handshake(SerialHandle handle) {
    return rom_loader::handshake(silent_step(handle));
}

int ag3352_disable_module_WDT(SerialHandle handle, std::uint32_t address, std::uint16_t value) {
    return rom_loader::write_register(silent_step(handle), address, value);
}

int modify_baud_rate(SerialHandle handle, std::uint32_t baud) {
    constexpr Status rate_accepted{.accepted = 0x0000, .shown = 0x0000};
    const Step step{.handle = handle, .timeout = rate_answer_ms};
    const bool modified = step.exchange({0xDC}, {0xDC}, "", "") &&
                          step.exchange_with_status(be32(baud), rate_accepted, "", "");
    return modified ? 0 : -1;
}

int ag3352_send_Da_file(SerialHandle handle, std::uint32_t load_address, const char* path,
                        std::uint32_t length) {
    int size = -1;
    if (const FirmwareFile file(path); file.is_open()) {
        size = file.size();
    }
    if (size >= 0 && static_cast<std::uint32_t>(size) != length) {
        hints::give("%s has %d bytes, an agent of these modules has %u\n", path, size, length);
    }
    return rom_loader::send_agent(
        silent_step(handle),
        {.path = path, .size = size, .load_address = load_address, .announced_length = length});
}

int ag3352_jump_to_Da(SerialHandle handle, std::uint32_t load_address) {
    return rom_loader::jump(silent_step(handle), load_address, rom_loader::Greeting::none);
}

int ag3352_sync_with_Da(SerialHandle handle) {
    return agent::query_flash(silent_step(handle));
}

int format_module_flash(SerialHandle handle) {
    return agent::erase_flash(silent_step(handle), format_length);
}

int send_fw_file(SerialHandle handle, package::Package& package) {
    return agent::write_package(handle, package, block_reply_ms);
}

bool start_agent(SerialHandle handle, const char* entry, const char* agent_path, int baud) {
    const bool fast = baud == static_cast<int>(fast_baud);
    log_info("Handshake... (Press the module reset button!)\n");
    if (ag3352_handshake(handle) < 0) {
        log_error("%s handshake error\n", entry);
        return false;
    }
    log_info("Disable WDT...\n");
    if (!disable_watchdogs(handle)) {
        log_error("%s disable_module_WDT error\n", entry);
        return false;
    }
    if (!fast && baud != static_cast<int>(loader_baud)) {
        log_error("baud_rate error\n");
        return false;
    }
    if (fast && !change_to_fast_rate(handle, entry)) {
        return false;
    }
    if (!send_agent(handle, entry, agent_path, fast)) {
        return false;
    }
    log_info("Jump to Da...\n");
    if (ag3352_jump_to_Da(handle, agent_address) < 0) {
        log_error("%s jump_to_Da error\n", entry);
        return false;
    }
    log_info("Sync with Da...\n");
    if (ag3352_sync_with_Da(handle) < 0) {
        log_error("%s sync_with_Da error\n", entry);
        return false;
    }
    return true;
}

}  // namespace orbix::ag3352
