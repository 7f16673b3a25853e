#include "ag3335/new_agent.h"

#include <algorithm>
#include <cstdio>

#include "ag3335/transfer_log.h"
#include "core/firmware_file.h"
#include "core/hints.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::agent {

namespace {

constexpr std::array<std::uint8_t, 2> frame_head{0x05, 0x5A};
constexpr std::size_t header_size = 6;
constexpr std::size_t crc_size = 4;

/// The agent needs this long to see the end of a query, or of the last frame of a sequence.
constexpr unsigned settle_ms = 10;

constexpr std::uint32_t large_erase_block = 0x10000;

/// How many refused blocks an image survives.
constexpr int most_refusals = 2;

/// A header for `payload_size` bytes behind it.
std::vector<std::uint8_t> make_header(Command command, std::size_t payload_size) {
    std::vector<std::uint8_t> frame(header_size);
    frame.reserve(header_size + payload_size);
    frame[0] = frame_head[0];
    frame[1] = frame_head[1];
    put_le16(std::span(frame).subspan(2), static_cast<std::uint16_t>(payload_size + 2));
    put_le16(std::span(frame).subspan(4), static_cast<std::uint16_t>(command));
    return frame;
}

void append_le32(std::vector<std::uint8_t>& frame, std::uint32_t value) {
    frame.resize(frame.size() + 4);
    put_le32(std::span(frame).last(4), value);
}

struct Query {
    Command command;
    std::size_t reply_size;
    const char* write_failure;
    const char* read_failure;
};

constexpr std::array<Query, 3> queries{{
    {Command::flash_address, 11, "%s serial_write cmd 0x210E fail\n",
     "Sync New Da Get Flash Addr fail\n"},
    {Command::flash_size, 11, "%s serial_write cmd 0x210F fail\n",
     "Sync New Da Get Flash Size fail\n"},
    {Command::flash_id, 10, "%s serial_write cmd 0x2110 fail\n", "Sync New Da Get Flash ID fail\n"},
}};

/// Takes a reply and returns its status; 0xFF when it did not come that far.
std::uint8_t take_status(SerialHandle handle) {
    Reply reply{};
    reply.fill(0xFF);
    serial_read_until(handle, reply, reply_timeout);
    return reply[status_offset];
}

/// How an erase frame of one size is sent, and the ERROR lines of its failures.
struct EraseKind {
    std::uint32_t block;
    unsigned pause;  ///< before and after the reply, in ms
    const char* write_failure;
    const char* read_failure;
};

constexpr EraseKind large_erase{large_erase_block, 1, "%s serial_write cmd 0x2104 fail\n",
                                "%s serial_read 0x2104 fail %02x:\n"};
constexpr EraseKind small_erase{block_size, 1, "%s serial_write cmd 0x2104 fail -- 4k\n",
                                "%s serial_read 0x2104 fail %02x -- 4k\n"};
constexpr EraseKind last_erase{block_size, settle_ms, small_erase.write_failure,
                               small_erase.read_failure};

int erase_block(const Step& step, std::uint32_t address, const EraseKind& kind) {
    std::array<std::uint8_t, 4> length{};
    put_le32(length, kind.block);
    if (serial_write(step.handle, make_checked_frame(Command::erase, address, length)) == 0) {
        return step.failed(kind.write_failure);
    }
    sleep_ms(kind.pause);
    const std::uint8_t status = take_status(step.handle);
    if (status != 0) {
        return step.failed(kind.read_failure, status);
    }
    sleep_ms(kind.pause);
    return 0;
}

/// The agent's answer to a block.
struct Acknowledgement {
    std::uint8_t status;
    std::uint32_t address;
};

/// Sends a block and takes its answer. Returns false when the port fails or no answer comes.
bool write_block(SerialHandle handle, std::uint32_t address, std::span<const std::uint8_t> data,
                 unsigned pause_ms, unsigned reply_ms, Acknowledgement& acknowledgement) {
    std::vector<std::uint8_t> field(2 + data.size());
    put_le16(field, static_cast<std::uint16_t>(data.size()));
    std::ranges::copy(data, field.begin() + 2);
    if (serial_write(handle, make_checked_frame(Command::write, address, field)) == 0) {
        return false;
    }
    sleep_ms(pause_ms);
    Reply reply{};
    if (serial_read_until(handle, reply, reply_ms) < reply.size()) {
        hints::give("the agent did not answer the block for 0x%08x\n", address);
        return false;
    }
    acknowledgement = {.status = reply[status_offset],
                       .address = get_le32(std::span(reply).subspan(status_offset + 1))};
    return true;
}

/// An image on its way into the flash.
struct Transfer {
    SerialHandle handle;
    FirmwareFile& file;
    std::uint32_t address;  ///< of the next block
    int sent = 0;           ///< bytes
    int refusals = 0;
};

bool read_block(FirmwareFile& file, std::span<std::uint8_t> block) {
    if (file.read(block) == block.size()) {
        return true;
    }
    hints::image_changed();
    return false;
}

bool too_many_refusals(const Transfer& transfer) {
    if (transfer.refusals <= most_refusals) {
        return false;
    }
    log_error("send fw data fail\n");
    return true;
}

/// Takes the answer to a full block into account: the address moves on only past a good one.
void account_for(Transfer& transfer, const Acknowledgement& answer) {
    if (answer.status != 0) {
        ++transfer.refusals;
        log_error("status_response 0x%02x error resend -- %d\n", unsigned{answer.status},
                  transfer.refusals);
    } else if (answer.address != transfer.address) {
        ++transfer.refusals;
        log_error("fw_start_addr_send 0x%08x error resend -- %d\n", answer.address,
                  transfer.refusals);
    } else {
        transfer.address += block_size;
        log_transfer(transfer.sent, transfer.file.size());
    }
}

/// Sends blocks while more than one remains.
bool write_full_blocks(Transfer& transfer, unsigned reply_ms) {
    std::array<std::uint8_t, block_size> block{};
    Acknowledgement answer{};
    while (transfer.file.size() - transfer.sent > static_cast<int>(block_size)) {
        if (too_many_refusals(transfer) || !read_block(transfer.file, block)) {
            return false;
        }
        transfer.sent += static_cast<int>(block_size);
        if (!write_block(transfer.handle, transfer.address, block, loader::item_pause, reply_ms,
                         answer)) {
            return false;
        }
        account_for(transfer, answer);
    }
    return true;
}

/// Sends what remains, filled up with 0xFF.
bool write_last_block(Transfer& transfer) {
    const int size = transfer.file.size();
    std::array<std::uint8_t, block_size> block{};
    block.fill(0xFF);
    Acknowledgement answer{};
    if (too_many_refusals(transfer) ||
        !read_block(transfer.file,
                    std::span(block).first(static_cast<std::size_t>(size - transfer.sent))) ||
        !write_block(transfer.handle, transfer.address, block, settle_ms, reply_timeout, answer)) {
        return false;
    }
    if (answer.status != 0) {
        hints::give("the agent refused the last block with status 0x%02x\n",
                    unsigned{answer.status});
        return false;
    }
    sleep_ms(settle_ms);
    log_transfer(size, size);
    return true;
}

int write_image(SerialHandle handle, const std::string& path, std::uint32_t address,
                unsigned reply_ms) {
    FirmwareFile file(path.c_str());
    if (!file.is_open()) {
        std::perror(path.c_str());
        return -1;
    }
    Transfer transfer{.handle = handle, .file = file, .address = address};
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(file.size());
    if (!write_full_blocks(transfer, reply_ms)) {
        return -1;
    }
    std::fputs("\n", log_stream());
    std::fflush(log_stream());
    const bool complete = transfer.sent == file.size() || write_last_block(transfer);
    return complete ? 0 : -1;
}

}  // namespace

std::vector<std::uint8_t> make_frame(Command command, std::span<const std::uint8_t> payload) {
    std::vector<std::uint8_t> frame = make_header(command, payload.size());
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

std::vector<std::uint8_t> make_checked_frame(Command command, std::uint32_t address,
                                             std::span<const std::uint8_t> field) {
    std::vector<std::uint8_t> frame = make_header(command, 4 + field.size() + crc_size);
    append_le32(frame, address);
    frame.insert(frame.end(), field.begin(), field.end());
    append_le32(frame, Kv_Check_CRC32(0, frame));
    return frame;
}

int query_flash(const Step& step) {
    for (const Query& query : queries) {
        if (serial_write(step.handle, make_frame(query.command, {})) == 0) {
            return step.failed(query.write_failure);
        }
        sleep_ms(settle_ms);
        std::vector<std::uint8_t> reply(query.reply_size, 0xFF);
        serial_read_until(step.handle, reply, reply_timeout);
        if (reply[status_offset] != 0) {
            return step.failed(query.read_failure);
        }
        sleep_ms(settle_ms);
    }
    return 0;
}

int erase_flash(const Step& step, std::uint32_t length) {
    std::uint32_t address = flash_base;
    std::uint32_t remaining = length;
    log_progress(0.0F, LineEnd::crlf);
    for (const EraseKind& kind : {large_erase, small_erase}) {
        while (remaining > kind.block) {
            if (erase_block(step, address, kind) != 0) {
                return -1;
            }
            address += kind.block;
            remaining -= kind.block;
            log_progress(
                100.0F * static_cast<float>(length - remaining) / static_cast<float>(length),
                LineEnd::crlf);
        }
    }
    if (address == flash_base + length - block_size) {
        log_progress_complete();
    }
    return erase_block(step, address, last_erase);
}

int write_package(SerialHandle handle, package::Package& package, unsigned reply_ms) {
    return package::write_selected_images(
        package, [&](const std::string& path, const package::LayoutEntry& entry) {
            return write_image(handle, path, entry.begin_address, reply_ms);
        });
}

}  // namespace orbix::agent
