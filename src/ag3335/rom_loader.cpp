#include "ag3335/rom_loader.h"

#include <array>
#include <cerrno>
#include <cstring>

#include "ag3335/byte_functions.h"
#include "ag3335/transfer_log.h"
#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::rom_loader {

namespace {

using loader::be16;
using loader::be32;
using loader::Item;
using loader::Status;

/// The chunk in which the agent is sent.
constexpr int agent_chunk = 1024;

/// The status words of the register write; its ERROR line shows the bytes in the host's order.
constexpr Status register_accepted{.accepted = 0x0001, .shown = 0x0100};
constexpr Status agent_accepted{.accepted = 0x0000, .shown = 0x0000};

/// Sends 0xA0 until the loader answers. Returns the attempts left, 0 when it never did.
int catch_loader(SerialHandle handle) {
    constexpr std::uint8_t probe = 0xA0;
    constexpr std::uint8_t answer = 0x5F;
    int attempts = 500;
    while (--attempts != 0) {
        serial_flush(handle);
        if (serial_write(handle, {&probe, 1}) == 0) {
            continue;
        }
        sleep_ms(10);
        std::uint8_t received = 0;
        serial_read_until(handle, {&received, 1}, 60);
        if (received == answer) {
            hints::synchronised();
            return attempts;
        }
        sleep_ms(10);
    }
    return 0;
}

/// Sends the agent's bytes and forms their checksum. Returns 0 or -1.
int send_content(const Step& step, FirmwareFile& file, std::uint16_t& checksum) {
    const int size = file.size();
    std::array<std::uint8_t, agent_chunk> buffer{};
    int sent = 0;
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(size);
    while (size - sent > agent_chunk) {
        if (file.read(buffer) != buffer.size()) {
            if (step.speaks()) {
                log_error("read Da file(%d) fail\n", size);
            }
            return -1;
        }
        if (!step.send(buffer, "%s serial_write DA fail\n")) {
            return -1;
        }
        checksum = static_cast<std::uint16_t>(checksum ^ ag3335::DA_compute_checksum(buffer));
        sent += agent_chunk;
        log_transfer(sent, size);
    }
    const auto rest = std::span(buffer).first(static_cast<std::size_t>(size - sent));
    if (file.read(rest) != rest.size()) {
        if (step.speaks()) {
            log_error("read last Da file(%d) fail\n", size);
        }
        return -1;
    }
    if (!step.send(rest, "%s serial_write last DA fail\n")) {
        return -1;
    }
    checksum = static_cast<std::uint16_t>(checksum ^ ag3335::DA_compute_checksum(rest));
    return 0;
}

/// Compares the loader's checksum, and its status, with what was sent. Returns 0 or -1.
int check_agent(const Step& step, std::uint16_t checksum) {
    std::array<std::uint8_t, 4> answer{};
    const unsigned count = serial_read_until(step.handle, answer, loader::answer_timeout);
    sleep_ms(loader::item_pause);
    if (count == 0) {
        return step.failed("%s serial_read check sum fail\n");
    }
    if (count < answer.size()) {
        return -1;
    }
    const std::uint16_t received = get_be16(answer);
    if (received != checksum) {
        if (step.speaks()) {
            log_error("local_check_sum = 0x%08x != read_check_sum 0x%08x check sum fail\n",
                      unsigned{checksum}, unsigned{received});
        }
        return -1;
    }
    if (get_be16(std::span(answer).subspan(2)) != agent_accepted.accepted) {
        return step.failed("%s serial_read brom_status %04x fail\n", agent_accepted.shown);
    }
    return 0;
}

}  // namespace

int handshake(const Step& step) {
    const int attempts = catch_loader(step.handle);
    if (attempts == 0) {
        return step.failed("%s Hand Shake Timeout:%d\n");
    }
    const bool answered =
        step.exchange({0x0A}, {0xF5}, "%s serial_write 0x0A fail\n",
                      "%s serial_read 0x5F fail\n") &&
        step.exchange({0x50}, {0xAF}, "%s serial_write 0x50 fail\n",
                      "%s serial_read 0xAF fail\n") &&
        step.exchange({0x05}, {0xFA}, "%s serial_write 0x05 fail\n", "%s serial_read 0xAF fail\n");
    return answered ? 1 : -1;
}

int write_register(const Step& step, std::uint32_t address, std::uint16_t value) {
    const bool written =
        step.exchange({0xD2}, {0xD2}, "%s serial_write 0xD2 fail\n",
                      "%s serial_read 0xD2 fail\n") &&
        step.exchange(be32(address), be32(address), "%s serial_write 0xD2 fail\n",
                      "%s serial_read 0xA2080000 fail\n") &&
        step.exchange_with_status(be32(1), register_accepted, "%s serial_write 0x00000001 fail\n",
                                  "%s serial_read 0x00000001 fail\n") &&
        step.exchange_with_status(be16(value), register_accepted, "%s serial_write 0x0010 fail\n",
                                  "%s serial_read 0x0010 fail\n");
    if (!written) {
        return -1;
    }
    sleep_ms(1);
    return 0;
}

int send_agent(const Step& step, const AgentTransfer& transfer) {
    if (!step.exchange({0xD7}, {0xD7}, "%s serial_write 0xD7 fail\n",
                       "%s serial_read 0xD7 fail\n")) {
        return -1;
    }
    if (transfer.size == -1 && step.speaks()) {
        log_error("Da file size error, check Da file path %s\n", transfer.path);
    }
    const bool announced =
        step.exchange(be32(transfer.load_address), be32(transfer.load_address),
                      "%s serial_write 0x04204000 fail\n", "%s serial_read 0x04204000 fail\n") &&
        step.exchange(be32(transfer.announced_length), be32(transfer.announced_length),
                      "%s serial_write %08x fail\n", "%s serial_read %08x fail\n",
                      transfer.announced_length) &&
        step.exchange_with_status(be32(0), agent_accepted, "%s serial_write 0x00000000 fail\n",
                                  "%s serial_read 0x00000000 fail\n");
    if (!announced) {
        return -1;
    }

    log_plain(" will send Da file(%s) to module\n", transfer.path);
    FirmwareFile file(transfer.path);
    if (!file.is_open()) {
        const int reason = errno;
        if (step.speaks() && reason == ESPIPE) {
            log_error("send Da file(%d) fail\n", transfer.size);
        } else if (step.speaks()) {
            log_error("open %s error(%d) (%s)\n", transfer.path, reason, std::strerror(reason));
        }
        return -1;
    }
    std::uint16_t checksum = 0;
    if (send_content(step, file, checksum) != 0) {
        return -1;
    }
    log_plain(" Da_file_size = %04x\n", static_cast<unsigned>(file.size()));
    log_plain(" local_check_sum = 0x%08x\n", unsigned{checksum});
    if (check_agent(step, checksum) != 0) {
        return -1;
    }
    log_transfer(file.size(), file.size());
    return 0;
}

int jump(const Step& step, std::uint32_t address, Greeting greeting) {
    if (!step.exchange({0xD5}, {0xD5}, "%s serial_write 0xD5 fail\n",
                       "%s serial_read 0xD5 fail\n")) {
        return -1;
    }
    if (!step.exchange(be32(address), be32(address), "%s serial_write Da_run_state_addr fail\n",
                       "%s serial_read Da_run_state_addr %08x fail\n", address)) {
        return -1;
    }
    if (!step.expect(be16(agent_accepted.accepted), "%s serial_read brom_status %04x fail\n",
                     agent_accepted.shown)) {
        return -1;
    }
    if (greeting == Greeting::expected && !step.expect({0xC0}, "%s serial_read 0xC0 fail\n")) {
        return -1;
    }
    return 0;
}

}  // namespace orbix::rom_loader
