// The dialogue with the old download agent: single bytes, big-endian fields. It repeats none of
// what it is sent, so the order of the items and the pauses between them are all that keeps both
// sides together.
#include <array>
#include <cerrno>
#include <cstring>

#include "ag3335/ag3335.h"
#include "ag3335/byte_functions.h"
#include "ag3335/step.h"
#include "ag3335/transfer_log.h"
#include "core/firmware_file.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::ag3335 {

namespace {

using loader::be32;
using loader::Step;

constexpr std::uint32_t flash_base = 0x08000000;
constexpr std::uint32_t flash_size = 0x00400000;

constexpr int packet_size = 4096;
using Packet = std::array<std::uint8_t, packet_size>;

/// How often the agent is asked whether it has taken the new rate.
constexpr int rate_probes = 20;

/// The rate changes on both sides; then the agent is asked until it answers. One that never does
/// is let pass: the next step tells.
bool change_rate(const Step& step, unsigned baud) {
    sleep_ms(100);
    serial_change_br(step.handle, baud);
    sleep_ms(100);
    for (int probe = 0; probe < rate_probes; ++probe) {
        if (!step.send({0xC0}, "%s serial_write 0xC0 fail\n")) {
            return false;
        }
        std::uint8_t received = 0;
        const unsigned count =
            serial_read_until(step.handle, {&received, 1}, loader::answer_timeout);
        sleep_ms(loader::item_pause);
        if (count == 0) {
            continue;
        }
        if (received != 0xC0) {
            step.failed("%s serial_read 0xC0 fail\n");
            return false;
        }
        break;
    }
    return true;
}

/// Takes the agent's report: three words that identify the flash, mount status, base address, size
/// and a closing 0x5A.
bool check_report(const Step& step) {
    std::array<std::uint8_t, 19> report{};
    const unsigned count = serial_read_until(step.handle, report, loader::answer_timeout);
    sleep_ms(loader::item_pause);
    if (count < report.size()) {
        return false;
    }
    const auto field = [&report](std::size_t at) {
        return get_be32(std::span(report).subspan(at));
    };
    if (field(6) != 0) {
        step.failed("%s serial_read flash_mount_status %04x fail\n", 0);
        return false;
    }
    if (field(10) != flash_base) {
        step.failed("%s serial_read flash_base_addr %04x fail\n", flash_base);
        return false;
    }
    if (field(14) != flash_size) {
        step.failed("%s serial_read flash_size %04x fail\n", flash_size);
        return false;
    }
    if (report[18] != 0x5A) {
        step.failed("%s serial_read 0x5A fail\n");
        return false;
    }
    return true;
}

}  // namespace

int ag3335_sync_with_Da(SerialHandle handle, unsigned baud) {
    const Step step{handle, __func__};
    log_info("Sync Da...\n");
    const bool in_step =
        step.exchange({0x3F}, {0x0C}, "%s serial_write 0x3F fail\n",
                      "%s serial_read 0x0C fail\n") &&
        step.exchange({0xF3}, {0x3F}, "%s serial_write 0xF3 fail\n",
                      "%s serial_read 0x3F fail\n") &&
        step.exchange({0xC0}, {0xF3}, "%s serial_write 0xC0 fail\n",
                      "%s serial_read 0xF3 fail\n") &&
        step.exchange({0x0C, 0x00}, {0x5A, 0x69, 0x69}, "%s serial_write 0x0C00 fail\n",
                      "%s serial_read 0x5A6969 fail\n") &&
        step.exchange({0x5A, 0x00}, {0x69}, "%s serial_write 0x5A00 fail\n",
                      "%s serial_read 0x69 fail\n") &&
        step.exchange({0x5A}, {0x69}, "%s serial_write 0x5A fail\n",
                      "%s serial_read 0x69 fail\n") &&
        step.send({0x5A}, "%s serial_write 0x5A fail\n") &&  //
        change_rate(step, baud) &&
        step.exchange({0x5A}, {0x5A, 0x69}, "%s serial_write 0x5A fail\n",
                      "%s serial_read 0x5A69 fail\n") &&
        step.send({0x5A}, "%s serial_write 0x5A fail\n") &&  //
        check_report(step) &&                                //
        step.send({0x5A}, "%s serial_write 0x5A fail\n");
    return in_step ? 0 : -1;
}

}  // namespace orbix::ag3335
