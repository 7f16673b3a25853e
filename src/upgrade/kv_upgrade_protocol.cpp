#include "upgrade/kv_upgrade_protocol.h"

#include <algorithm>

#include "core/image_crc.h"
#include "core/kv_log.h"
#include "core/kv_util.h"

namespace orbix::upgrade {

namespace {

constexpr std::size_t length_offset = 3;
constexpr std::size_t payload_offset = 5;

/// A response's payload begins with two bytes of the boot loader's own and, for a format answer,
/// the result byte; the slave state follows.
struct ResponseShape {
    std::uint16_t payload_length;
    std::size_t state_offset;
    int wrong_length;  ///< the code for another length, 0 to go on regardless
};

constexpr ResponseShape general_acknowledgement{4, 7, frame_malformed};
constexpr ResponseShape boot_version_answer{7, 7, version_length_wrong};
constexpr ResponseShape format_answer{5, 8, 0};

std::array<std::uint8_t, 4> be32(std::uint32_t value) {
    std::array<std::uint8_t, 4> bytes{};
    put_be32(bytes, value);
    return bytes;
}

std::uint8_t code(Command command) {
    return static_cast<std::uint8_t>(command);
}

/// Head, length and slave state, in the order in which the decoders look at them.
int check_before_crc(std::span<const std::uint8_t> frame, const ResponseShape& shape) {
    if (frame[0] != frame_head) {
        log_error("slave msg Head error %x\r\n", frame[0]);
        return frame_malformed;
    }
    const std::uint16_t length = get_be16(frame.subspan(length_offset));
    if (length != shape.payload_length) {
        log_error("slave msg length: %d\r\n", length);
        if (shape.wrong_length != 0) {
            return shape.wrong_length;
        }
    }
    const std::uint16_t state = get_be16(frame.subspan(shape.state_offset));
    if (state != 0) {
        log_error("slave msg slave state is %x\r\n", state);
        return state;
    }
    return 0;
}

int check_crc_and_tail(std::span<const std::uint8_t> frame, const ResponseShape& shape) {
    const std::size_t crc_offset = payload_offset + shape.payload_length;
    const std::uint32_t received = get_be32(frame.subspan(crc_offset));
    const std::uint32_t local = Kv_Check_CRC32(0, frame.subspan(1, crc_offset - 1));
    if (received != local) {
        log_error("slave msg error recv is %x, local is %x\r\n", received, local);
        return frame_crc_wrong;
    }
    const std::uint8_t tail = frame[crc_offset + 4];
    if (tail != frame_tail) {
        log_error("slave msg Tail error %x\r\n", tail);
        return frame_malformed;
    }
    return 0;
}

}  // namespace

std::int32_t encode_frame(std::span<std::uint8_t> buffer, std::uint8_t address,
                          std::uint8_t command,
                          std::initializer_list<std::span<const std::uint8_t>> parts) {
    buffer[0] = frame_head;
    buffer[1] = address;
    buffer[2] = command;
    auto end = buffer.begin() + payload_offset;
    for (const auto part : parts) {
        end = std::copy(part.begin(), part.end(), end);
    }
    const auto crc_offset = static_cast<std::size_t>(end - buffer.begin());
    put_be16(buffer.subspan(length_offset),
             static_cast<std::uint16_t>(crc_offset - payload_offset));
    put_be32(buffer.subspan(crc_offset), Kv_Check_CRC32(0, buffer.subspan(1, crc_offset - 1)));
    buffer[crc_offset + 4] = frame_tail;
    return static_cast<std::int32_t>(crc_offset + 5);
}

std::int32_t Kv_Upgrade_EncodeAddr(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   std::uint32_t address) {
    return encode_frame(buffer, device, code(Command::address), {be32(address)});
}

std::int32_t Kv_Upgrade_EncodeInfo(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   const FirmwareInfo& info) {
    return encode_frame(
        buffer, device, code(Command::info),
        {be32(info.size), be32(info.crc), be32(info.load_address), be32(info.reserved)});
}

std::int32_t Kv_Upgrade_EncodeErase(std::uint8_t device, std::span<std::uint8_t> buffer) {
    return encode_frame(buffer, device, code(Command::erase), {});
}

std::int32_t Kv_Upgrade_EncodeFW(std::uint8_t device, std::span<std::uint8_t> buffer,
                                 std::span<const std::uint8_t> data, std::uint32_t sequence) {
    return encode_frame(buffer, device, code(Command::firmware), {be32(sequence), data});
}

std::int32_t Kv_Upgrade_EncodeReboot(std::uint8_t device, std::span<std::uint8_t> buffer,
                                     std::uint8_t mode, std::uint8_t argument) {
    const std::array payload{mode, argument};
    return encode_frame(buffer, device, code(Command::reboot), {payload});
}

std::int32_t Kv_Upgrade_EncodeBootVer(std::uint8_t device, std::span<std::uint8_t> buffer) {
    return encode_frame(buffer, device, code(Command::boot_version), {});
}

std::int32_t Kv_Upgrade_EncodeFormat(std::uint8_t device, std::span<std::uint8_t> buffer,
                                     std::uint32_t address, std::uint32_t length) {
    return encode_frame(buffer, device, code(Command::format), {be32(address), be32(length)});
}

std::int32_t Kv_Upgrade_EncodeRead(std::uint8_t device, std::span<std::uint8_t> buffer,
                                   std::uint32_t address, std::uint32_t length) {
    return encode_frame(buffer, device, code(Command::read), {be32(address), be32(length)});
}

int receive_frame(SerialHandle handle, std::span<std::uint8_t> buffer, unsigned byte_timeout_ms,
                  unsigned silence_limit_ms) {
    std::uint64_t silent_since = monotonic_ms();
    std::size_t position = 0;     // bytes of the frame taken so far
    std::uint32_t last_four = 0;  // of them, the newest byte lowest
    std::uint32_t crc = 0;        // of address to payload, as far as they have come
    std::size_t payload_length = 0;
    bool crc_matched = false;
    while (true) {
        std::uint8_t byte = 0;
        if (serial_read(handle, {&byte, 1}, byte_timeout_ms) == 0) {
            const bool silent_too_long =
                silence_limit_ms != 0 && monotonic_ms() - silent_since >= silence_limit_ms;
            if (silent_too_long || serial_gone(handle)) {
                return receive_failed;
            }
            continue;
        }
        silent_since = monotonic_ms();
        if (position == 0 && byte != frame_head) {
            continue;
        }
        if (position < buffer.size()) {
            buffer[position] = byte;
        }
        if (crc_matched) {
            return byte == frame_tail ? 0 : received_tail_wrong;
        }
        if (position != 0 && position < payload_offset + payload_length) {
            crc = Kv_Check_CRC32(crc, {&byte, 1});
        }
        last_four = last_four << 8 | byte;
        ++position;
        if (position == payload_offset) {
            payload_length = last_four & 0xFFFF;
        }
        // Only the exact length is looked at. When the CRC there is wrong the reader goes on
        // taking bytes: whatever follows belongs to the broken frame.
        if (position > payload_offset && position == payload_offset + payload_length + 4) {
            crc_matched = last_four == crc;
        }
    }
}

int Kv_Upgrade_ReceiveFrame(SerialHandle handle, std::span<std::uint8_t> buffer) {
    if (buffer.empty() || handle < 0) {
        log_error("Kv_Upgrade_ReceiveFrame RecvBuf == NULL or UartFd is invalid\r\n");
        return receive_failed;
    }
    return receive_frame(handle, buffer, 500);
}

int Kv_Upgrade_DecodeMsg(std::span<const std::uint8_t> frame) {
    const int result = check_before_crc(frame, general_acknowledgement);
    return result != 0 ? result : check_crc_and_tail(frame, general_acknowledgement);
}

int Kv_Upgrade_DecodeBootVer(std::span<const std::uint8_t> frame,
                             std::span<std::uint8_t, 3> version) {
    const int result = check_before_crc(frame, boot_version_answer);
    if (result != 0) {
        return result;
    }
    std::copy_n(frame.begin() + 9, version.size(), version.begin());
    return check_crc_and_tail(frame, boot_version_answer);
}

int Kv_Upgrade_DecodeFormatMsg(std::span<const std::uint8_t> frame,
                               std::span<std::uint8_t, 1> result) {
    if (frame[0] == frame_head) {
        result[0] = frame[7];
    }
    const int checked = check_before_crc(frame, format_answer);
    return checked != 0 ? checked : check_crc_and_tail(frame, format_answer);
}

std::uint32_t Kv_FW_CRC(FirmwareFile& file, const FirmwareInfo& info) {
    return image_crc(info.size, file);
}

}  // namespace orbix::upgrade
