// The dialogue with the old download agent: single bytes, big-endian fields. It echoes
// nothing: only the order of the items keeps both sides together.
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

/// How long the agent may take to sum up an image, in ms.
constexpr unsigned image_sum_timeout = 3000;

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

/// What the agent says of a running erase: a status word and the percentage that is done.
struct EraseReport {
    unsigned count;  ///< bytes that came, of 5
    std::uint32_t status;
    unsigned percentage;
};

constexpr std::size_t erase_report_size = 5;
constexpr std::uint32_t erase_runs = 0x00000BCD;
constexpr std::uint32_t erase_finished = 0;

EraseReport take_erase_report(SerialHandle handle, unsigned timeout_ms) {
    std::array<std::uint8_t, erase_report_size> bytes{};
    const unsigned count = serial_read_until(handle, bytes, timeout_ms);
    return {.count = count, .status = get_be32(bytes), .percentage = bytes[4]};
}

/// The report of the first per cent, which comes unasked.
bool take_first_report(const Step& step) {
    sleep_ms(loader::item_pause);
    const EraseReport report = take_erase_report(step.handle, 3000);
    if (report.count < erase_report_size) {
        log_error("format fail:\n");
        return false;
    }
    if (report.status != erase_runs) {
        log_error("Read BCD-Error\n");
        return false;
    }
    if (report.percentage != 1) {
        log_error("Read format progress-Error\n");
        return false;
    }
    log_progress(1.0F, LineEnd::crlf);
    return true;
}

/// Asks for per cent 2 to 99 in turn. A silent agent is asked again without a limit; a report that
/// is cut short counts as given. The ERROR lines, what came and what was due, have no line end.
bool follow_erase(const Step& step) {
    for (unsigned due = 2; due <= 99;) {
        if (!step.send({0x5A}, "%s serial_write 0x5A fail\n")) {
            return false;
        }
        const EraseReport report = take_erase_report(step.handle, 1000);
        sleep_ms(loader::item_pause);
        if (report.count == 0) {
            continue;
        }
        if (report.count == erase_report_size) {
            if (report.status != erase_runs) {
                log_error("format:%04x --- value2:%04x", report.status, erase_runs);
                return false;
            }
            if (report.percentage != due) {
                log_error("format:%d --- value2:%d", static_cast<int>(report.percentage),
                          static_cast<int>(due));
                return false;
            }
            sleep_ms(loader::item_pause);
        }
        log_progress(static_cast<float>(due), LineEnd::crlf);
        ++due;
    }
    return true;
}

/// Asks for the end of the erase and closes it. After a number of unanswered asks the closing is
/// tried all the same.
bool take_last_report(const Step& step) {
    constexpr int most_misses = 11;
    for (int misses = 0; misses < most_misses; ++misses) {
        if (!step.send({0x5A}, "format Send last 0x5a fail:\n")) {
            return false;
        }
        const EraseReport report = take_erase_report(step.handle, 500);
        if (report.count == erase_report_size && report.status != erase_finished) {
            log_error("format:%04x --- value:%04x", report.status, erase_finished);
            return false;
        }
        if (report.count == erase_report_size && report.percentage != 100) {
            log_error("format:%d --- value:%d", static_cast<int>(report.percentage), 100);
            return false;
        }
        if (report.count != 0) {
            break;
        }
    }
    log_progress_complete();
    sleep_ms(loader::item_pause);
    constexpr std::uint8_t close = 0x5A;
    serial_write(step.handle, {&close, 1});
    std::uint8_t closed = 0;
    serial_read_until(step.handle, {&closed, 1}, 1000);
    if (closed != 0x5A) {
        step.failed("%s serial_read 0x5a fail:\n");
        return false;
    }
    sleep_ms(loader::item_pause);
    return true;
}

/// Sends a packet and its byte sum, and adds the sum to that of the image.
bool send_packet(const Step& step, const Packet& packet, std::uint32_t& total_sum) {
    const std::uint32_t sum = CRC_compute_simple_checksum(packet);
    total_sum += sum;
    return step.send(packet, "%s serial_write firmware fail\n") &&
           step.send(be32(sum), "%s serial_write packet_checksum fail\n");
}

/// Takes the two bytes that answer one item. False after an ERROR line, or without one when fewer
/// came.
bool expect_pair(const Step& step, std::uint8_t first, const char* first_failure) {
    std::array<std::uint8_t, 2> answer{};
    const unsigned count = serial_read_until(step.handle, answer, loader::answer_timeout);
    if (count < answer.size()) {
        return false;
    }
    if (answer[0] != first) {
        step.failed(first_failure);
        return false;
    }
    if (answer[1] != 0x5A) {
        step.failed("%s serial_read 0x5A fail\n");
        return false;
    }
    return true;
}

bool read_packet(FirmwareFile& file, std::span<std::uint8_t> packet) {
    errno = 0;  // an image that has become shorter leaves it as it is
    const std::size_t count = file.read(packet);
    if (count != packet.size()) {
        const int reason = errno;
        log_error("fread %d error(%d) (%s)\n", static_cast<int>(count), reason,
                  std::strerror(reason));
        return false;
    }
    return true;
}

/// Sends all packets. The last one is filled up with 0xFF and answered by two bytes.
bool send_packets(const Step& step, FirmwareFile& file, std::uint32_t& total_sum) {
    const int size = file.size();
    Packet packet{};
    int sent = 0;
    while (size - sent > packet_size) {
        if (!read_packet(file, packet) || !send_packet(step, packet, total_sum) ||
            !step.expect({0x69}, "%s serial_read 0x69 fail\n")) {
            return false;
        }
        sent += packet_size;
        log_transfer(sent, size);
    }
    packet.fill(0xFF);
    if (!read_packet(file, std::span(packet).first(static_cast<std::size_t>(size - sent))) ||
        !send_packet(step, packet, total_sum)) {
        return false;
    }
    log_progress(100.0F, LineEnd::crlf);
    log_speed(size, size, rounded_kbytes(size), flash_tool_secs());
    return expect_pair(step, 0x69, "%s serial_read 0x69 fail\n");
}

bool write_image(const Step& step, const std::string& path, const package::LayoutEntry& entry) {
    if (!step.send({0xB2}, "%s serial_write cmd 0xB2 fail\n") ||
        !step.send(be32(entry.begin_address), "%s serial_write fw_flash_address fail\n")) {
        return false;
    }
    FirmwareFile file(path.c_str());
    if (!file.is_open()) {
        const int reason = errno;
        if (reason == ESPIPE) {
            log_error("fseek %d error(%d) (%s)\n", -1, reason, std::strerror(reason));
        } else {
            log_error("open %s error(%d) (%s)\n", path.c_str(), reason, std::strerror(reason));
        }
        return false;
    }
    const auto packets = (static_cast<std::uint32_t>(file.size()) + packet_size - 1) / packet_size;
    const bool accepted =
        step.send(be32(packets * packet_size), "%s serial_write fw_total_length fail\n") &&
        step.send(be32(packet_size), "%s serial_write fw_packet_length fail\n") &&
        expect_pair(step, 0x5A, "%s serial_read 0x5A fail\n");
    if (!accepted) {
        return false;
    }
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(file.size());
    std::uint32_t total_sum = 0;
    if (!send_packets(step, file, total_sum)) {
        return false;
    }

    const Step sum_step{step.handle, step.function, image_sum_timeout};
    if (!sum_step.exchange(be32(total_sum), {0x5A}, "%s serial_write total_fw_checksum fail\n",
                           "%s serial_read 0x5A fail\n")) {
        return false;
    }
    const bool is_boot_loader = entry.file.find("bootloader.bin") != std::string::npos;
    const std::uint8_t closing = is_boot_loader ? 0x5A : 0xA5;
    return step.exchange({closing}, {0x5A}, "%s serial_write 0x%02x fail\n",
                         "%s serial_read 0x5A fail\n", closing);
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

int format_module_flash(SerialHandle handle, std::uint32_t length) {
    const Step step{handle, __func__};
    log_info("Format flash...\n");
    const bool asked =
        step.send({0xD4, 0x00}, "%s serial_write 0xD400 fail\n") &&
        step.send(be32(flash_base), "%s serial_write format_physical_address fail\n") &&
        step.send(be32(length), "%s serial_write format_length fail\n");
    if (!asked) {
        return -1;
    }
    std::array<std::uint8_t, 2> answer{};
    serial_read_until(handle, answer, 1000);
    if (get_be16(answer) != 0x5A5A) {
        log_error("Format flash fail----%04x\n", unsigned{get_be16(answer)});
        return -1;
    }
    const bool erased = take_first_report(step) && follow_erase(step) && take_last_report(step);
    return erased ? 0 : -1;
}

int send_fw_file(SerialHandle handle, package::Package& package) {
    const Step step{handle, __func__};
    return package::write_selected_images(
        package, [&step](const std::string& path, const package::LayoutEntry& entry) {
            return write_image(step, path, entry) ? 0 : -1;
        });
}

}  // namespace orbix::ag3335
