// Reading flash back through the framed download agent. A reply carries, behind header and status,
// the block's address, the CRC-32 of its data, and the data.
#include "ag3335/new_agent.h"
#include "ag3335/transfer_log.h"
#include "core/kv_log.h"
#include "core/kv_util.h"
#include "core/output_file.h"

namespace orbix::agent {

namespace {

constexpr std::size_t address_offset = status_offset + 1;
constexpr std::size_t crc_offset = address_offset + 4;
constexpr std::size_t data_offset = crc_offset + 4;

using ReadReply = std::array<std::uint8_t, data_offset + block_size>;

/// How many bad replies a region survives.
constexpr int most_errors = 4;

bool region_is_valid(const Region& region, const char* path, const ReadBounds& bounds) {
    if (region.address % block_size != 0 || region.size % block_size != 0) {
        log_error("start_addr or read_len is error please align according to 4k size\n");
        return false;
    }
    if (path[0] == '\0' || region.size == 0 || region.size > bounds.largest_size ||
        region.address < flash_base || region.address > bounds.highest_address) {
        log_error("readback_flash param error,%08x,%08x,%s\n", region.address, region.size, path);
        return false;
    }
    return true;
}

/// Asks for the block at `address`. What came is judged by its content alone, never by its length.
void request_block(SerialHandle handle, std::uint32_t address, ReadReply& reply) {
    std::array<std::uint8_t, 2> length{};
    put_le16(length, block_size);
    serial_write(handle, make_checked_frame(Command::read, address, length));
    serial_read_until(handle, reply, reply_timeout);
}

/// Whether a reply is the good one for `address`; an ERROR line when it is not, except for a status
/// that says no.
bool reply_is_good(const ReadReply& reply, std::uint32_t address) {
    const auto bytes = std::span(reply);
    if (reply[status_offset] != 0) {
        return false;
    }
    const std::uint32_t returned = get_le32(bytes.subspan(address_offset));
    if (returned != address) {
        log_error("readback_flash read_start_addr error 0x%08x\n", returned);
        return false;
    }
    const std::uint32_t local = Kv_Check_CRC32(0, bytes.subspan(data_offset));
    const std::uint32_t received = get_le32(bytes.subspan(crc_offset));
    if (local != received) {
        log_error("readback_flash CRC error local 0x%08x recv 0x%08x\n", local, received);
        return false;
    }
    return true;
}

}  // namespace

int read_region(SerialHandle handle, const Region& region, const char* path,
                const ReadBounds& bounds) {
    if (!region_is_valid(region, path, bounds)) {
        return -1;
    }
    OutputFile file(path);
    if (!file.is_open()) {
        log_plain(" open file error\n");
        return -1;
    }
    const int size = static_cast<int>(region.size);
    log_progress(0.0F, LineEnd::crlf);
    flash_tool_secs();  // the transfer's clock starts here
    log_speed_start(size);

    ReadReply reply{};
    std::uint32_t address = region.address;
    int done = 0;
    int errors = 0;
    while (done < size) {
        if (errors > most_errors) {
            log_error("readback_flash fail 0x%08x\n", address);
            return -1;
        }
        request_block(handle, address, reply);
        if (!reply_is_good(reply, address)) {
            ++errors;
            continue;
        }
        if (!file.append(std::span(reply).subspan(data_offset))) {
            return -1;
        }
        address += block_size;
        done += static_cast<int>(block_size);
        log_transfer(done, size);
    }
    return 0;
}

}  // namespace orbix::agent
