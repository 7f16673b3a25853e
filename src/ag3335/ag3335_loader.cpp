// The steps up to the synchronised agent, as AG3335 takes them.
#include <cerrno>
#include <cstdio>

#include "ag3335/ag3335.h"
#include "ag3335/new_agent.h"
#include "ag3335/rom_loader.h"
#include "core/firmware_file.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::ag3335 {

namespace {

constexpr std::uint32_t watchdog_register = 0xA2080000;
constexpr std::uint16_t watchdog_off = 0x0010;

constexpr std::uint32_t old_agent_address = 0x04204000;
constexpr std::uint32_t new_agent_address = 0x04000000;

/// The RAM that the mask-ROM loader has for an agent, in bytes.
constexpr int largest_agent = 65536;

/// The sizes of the old agents that exist. Every other agent is a new one.
constexpr bool is_old_agent_size(int size) {
    return size == 27895 || size == 28107;
}

int Use_New_DA = 0;

std::uint32_t agent_address() {
    return Use_New_DA != 0 ? new_agent_address : old_agent_address;
}

}  // namespace

int get_file_size(const char* path) {
    const FirmwareFile file(path);
    if (!file.is_open()) {
        std::perror(errno == ESPIPE  ? "Error seeking file"
                    : errno == EFBIG ? "Error getting file size"
                                     : "Error opening file");
        return -1;
    }
    return file.size();
}

int ag3335_handshake(SerialHandle handle) {
    log_info("Handshake... (Press the module reset button!)\n");
    return rom_loader::handshake({handle, __func__});
}

int ag3335_disable_module_WDT(SerialHandle handle) {
    log_info("Disable WDT...\n");
    return rom_loader::write_register({handle, __func__}, watchdog_register, watchdog_off);
}

int ag3335_send_Da_file(SerialHandle handle, const char* da_path, unsigned /*baud*/) {
    log_info("Send Da file...\n");
    const int size = get_file_size(da_path);
    if (size > largest_agent) {
        log_error("Da file size error, %s has %d bytes, at most %d fit\n", da_path, size,
                  largest_agent);
        return -1;
    }
    if (size != -1 && !is_old_agent_size(size)) {
        Use_New_DA = 1;
    }
    return rom_loader::send_agent({handle, __func__},
                                  {.path = da_path,
                                   .size = size,
                                   .load_address = agent_address(),
                                   .announced_length = static_cast<std::uint32_t>(size)});
}

int ag3335_Get_Da_Type() {
    return Use_New_DA;
}

void ag3335_forget_Da_Type() {
    Use_New_DA = 0;
}

int ag3335_jump_to_Da(SerialHandle handle) {
    log_info("Jump to Da...\n");
    const auto greeting =
        Use_New_DA != 0 ? rom_loader::Greeting::none : rom_loader::Greeting::expected;
    return rom_loader::jump({handle, __func__}, agent_address(), greeting);
}

bool restart_into_loader(const char* driver, const std::string& port, unsigned baud) {
    if (soft_reset(port, baud) < 0) {
        log_error("%s soft_reset error\n", driver);
        return false;
    }
    log_info("soft reset success\n");
    return true;
}

bool start_agent(SerialHandle handle, const char* driver, const char* da_path, unsigned baud) {
    if (ag3335_handshake(handle) < 0) {
        log_error("%s handshake error\n", driver);
        return false;
    }
    if (ag3335_disable_module_WDT(handle) < 0) {
        log_error("%s disable_module_WDT error\n", driver);
        return false;
    }
    if (ag3335_send_Da_file(handle, da_path, baud) < 0) {
        log_error("%s send_Da_file error\n", driver);
        return false;
    }
    if (ag3335_jump_to_Da(handle) < 0) {
        log_error("%s jump_to_Da error\n", driver);
        return false;
    }
    return true;
}

int ag3335_sync_with_New_Da(SerialHandle handle, unsigned baud) {
    const loader::Step step{handle, __func__};
    log_info("Sync New Da...\n");
    std::array<std::uint8_t, 4> rate{};
    put_le32(rate, baud);
    if (serial_write(handle, agent::make_frame(agent::Command::baud_rate, rate)) == 0) {
        return step.failed("%s serial_write cmd 0x2115 fail\n");
    }
    sleep_ms(100);
    if (baud != loader_baud) {
        serial_change_br(handle, baud);
        sleep_ms(100);
    }
    std::array<std::uint8_t, 7> reply{};
    reply.fill(0xFF);
    serial_read_until(handle, reply, agent::reply_timeout);
    sleep_ms(loader::item_pause);
    if (reply[agent::status_offset] != 0) {
        return step.failed("Sync New Da Baud set fail\n");
    }
    return agent::query_flash(step);
}

int format_module_flash_New_Da(SerialHandle handle, std::uint32_t length) {
    log_info("Format flash...\n");
    return agent::erase_flash({handle, __func__}, length);
}

int send_fw_file_New_Da(SerialHandle handle, package::Package& package) {
    constexpr unsigned block_reply_ms = 500;
    return agent::write_package(handle, package, block_reply_ms);
}

}  // namespace orbix::ag3335
