#include <array>
#include <cerrno>
#include <cstring>

#include "ag3335/ag3335.h"
#include "ag3335/byte_functions.h"
#include "ag3335/new_agent.h"
#include "ag3335/readback_request.h"
#include "ag3335/step.h"
#include "ag3335/transfer_log.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/output_file.h"

namespace orbix::ag3335 {

namespace {

using loader::be32;
using loader::Item;

constexpr std::uint32_t packet_size = 4096;
constexpr std::uint32_t flash_begin = 0x08000000;
constexpr std::uint32_t flash_end = 0x08400000;

constexpr unsigned packet_piece_ms = 1000;

constexpr readback::Rules rules{
    .largest_size = 0x400000,
    .most_regions = 20,
    .addresses_limit_sizes = false,
    .too_many_sizes = "readback_size_num overthan MAX.20\n",
    .tags_size_count = false,
    .needs_soft_reset = needs_soft_reset,
};

constexpr agent::ReadBounds new_agent_bounds{.largest_size = 0x400000,
                                             .highest_address = flash_end};

using Packet = std::array<std::uint8_t, packet_size>;

bool send(SerialHandle handle, Item item) {
    return serial_write(handle, item.bytes()) != 0;
}

/// Asks for a region. False when the port fails.
bool send_request(SerialHandle handle, std::uint32_t address, std::uint32_t size) {
    log_info("send readback command 0xD6\n");
    if (!send(handle, {0xD6})) {
        return false;
    }
    log_info("send readback addr 0x%08x\n", address);
    if (!send(handle, be32(address))) {
        return false;
    }
    log_info("send readback size 0x%08x\n", size);
    if (!send(handle, be32(size))) {
        return false;
    }
    log_info("send readback packet size 0x%08x\n", packet_size);
    return send(handle, be32(packet_size));
}

/// Takes the agent's consent. A refusal carries a code.
bool request_is_granted(SerialHandle handle) {
    sleep_ms(loader::item_pause);
    std::uint8_t consent = 0;
    if (serial_read_until(handle, {&consent, 1}, loader::answer_timeout) == 0) {
        return false;
    }
    if (consent != 0x5A) {
        std::array<std::uint8_t, 4> code{};
        serial_read_until(handle, code, loader::answer_timeout);
        log_plain(" readback error code:0x%x\n", get_be32(code));
        return false;
    }
    return true;
}

/// Gathers a packet, however slowly it comes. False when the device is gone.
bool take_packet(SerialHandle handle, Packet& packet) {
    auto missing = std::span<std::uint8_t>(packet);
    while (!missing.empty()) {
        missing = missing.subspan(serial_read_until(handle, missing, packet_piece_ms));
        if (serial_gone(handle)) {
            return false;
        }
    }
    return true;
}

/// Takes the byte sum behind a packet and compares it. False after the two lines when it differs,
/// or did not come whole.
bool packet_is_right(SerialHandle handle, const Packet& packet) {
    std::array<std::uint8_t, 4> bytes{};
    const unsigned count = serial_read_until(handle, bytes, loader::answer_timeout);
    const std::uint32_t local = CRC_compute_simple_checksum(packet);
    const std::uint32_t received = get_be32(bytes);
    if (count == bytes.size() && received == local) {
        return true;
    }
    log_plain(" local:0x%08x,from device 0x%08x\n", local, received);
    log_plain(" checksum error\n");
    return false;
}

bool read_regions(SerialHandle handle, const readback::Request& request) {
    const auto read_region =
        ag3335_Get_Da_Type() != 0 ? readback_flash_data_New_Da : readback_flash_data;
    for (std::size_t index = 0; index < request.paths.size(); ++index) {
        const int number = static_cast<int>(index);
        if (read_region(handle, request.addresses[index], request.sizes[index],
                        request.paths[index].c_str()) < 0) {
            log_error("read num %d readback_flash_data error\n", number);
            return false;
        }
        log_info("read num %d readback_flash_data success\n", number);
    }
    return true;
}

/// The dialogue on the open port. Returns whether all steps succeeded.
bool run_steps(SerialHandle handle, const readback::Request& request, const char* driver) {
    const auto baud = static_cast<unsigned>(request.download_baud);
    if (!start_agent(handle, driver, request.agent.c_str(), baud)) {
        return false;
    }
    const auto sync = ag3335_Get_Da_Type() != 0 ? ag3335_sync_with_New_Da : ag3335_sync_with_Da;
    if (sync(handle, baud) < 0) {
        log_error("%s sync_with_Da error\n", driver);
        return false;
    }
    if (!read_regions(handle, request)) {
        log_error("%s readback_flash_data error\n", driver);
        return false;
    }
    return true;
}

bool read_back(int argc, char** argv, const char* driver) {
    readback::Request request;
    if (!readback::parse(argc, argv, rules, request) || !readback::check(request)) {
        return false;
    }
    if (request.baud == 0) {
        request.baud = loader_baud;
    }
    if (request.download_baud == 0) {
        request.download_baud = request.baud;
    }
    if (request.soft_reset &&
        !restart_into_loader(driver, request.device, static_cast<unsigned>(request.baud))) {
        return false;
    }
    const SerialPort port(request.device.c_str(), loader_baud);
    if (!port.is_open()) {
        log_error("Error opening %s: %s\n", request.device.c_str(), std::strerror(errno));
        return false;
    }
    return run_steps(port.handle(), request, driver);
}

}  // namespace

int readback_flash_data(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                        const char* path) {
    if (address % packet_size != 0 || size % packet_size != 0) {
        log_error("flash_addr or flash_size is error please align according to 4k size\n");
        return -1;
    }
    log_info("readback flash 0x%x---0x%x...\n", address, size);
    if (address < flash_begin || std::uint64_t{address} + size > flash_end) {
        log_plain(" flash_addr 0x%0x or flash_size 0x%0x is error\n", address, size);
        return -1;
    }
    OutputFile file(path);
    if (!file.is_open()) {
        log_plain(" open file error\n");
        return -1;
    }
    if (!send_request(handle, address, size) || !request_is_granted(handle)) {
        return -1;
    }
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(static_cast<int>(size));
    Packet packet{};
    for (std::uint32_t done = 0; done < size;) {
        if (!take_packet(handle, packet) || !packet_is_right(handle, packet) ||
            !file.append(packet) || !send(handle, {0x5A})) {
            return -1;
        }
        done += packet_size;
        log_transfer(static_cast<int>(done), static_cast<int>(size));
    }
    return 0;
}

int readback_flash_data_New_Da(SerialHandle handle, std::uint32_t address, std::uint32_t size,
                               const char* path) {
    return agent::read_region(handle, {.address = address, .size = size}, path, new_agent_bounds);
}

int ag3335_readback(int argc, char** argv) {
    ag3335_forget_Da_Type();
    if (!read_back(argc, argv, __func__)) {
        log_plain(" Flash upgrade failed\n");
        return -1;
    }
    return 0;
}

}  // namespace orbix::ag3335
