// The application processor of an STA8100 module, written through its serial boot loader in system
// memory: the USART protocol of ST application note AN3155, with even parity, at the rate at which
// the port was opened.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "core/kv_uart.h"

namespace orbix::sta8100 {

/// Results of an exchange.
enum ExchangeResult : int {
    exchange_timed_out = -1,
    exchange_refused = -2,
    exchange_mismatched = -3,
};

/// Writes the image: asks version and chip, erases the flash unless its start is blank, and writes
/// blocks of 256 bytes from 0x08000000. The processor is not started afterwards. Returns 0, -1, or
/// the `ExchangeResult` of the exchange that failed.
int Kv_Boot_Send_Firmware(SerialHandle handle, const char* firmware_path);

/// Sends `tx` (nothing when it is empty) and compares a reply of as many bytes as `expected` (at
/// most 12), each read limited to 60 s. Of a reply that comes in several reads only a part is
/// compared: after each read the positions from the count before it up to the number of bytes that
/// the read itself brought. Returns 0 or an `ExchangeResult`, after a line.
int Kv_UART_Send_Recv(SerialHandle handle, std::span<const std::uint8_t> tx,
                      std::span<const std::uint8_t> expected);

/// The address of a block of 256 bytes as it is sent, its checksum included. A block's number has
/// 16 bits: block 65536 stands where block 0 does.
std::vector<std::uint8_t> address_of_block(std::uint32_t block);

/// The XOR of all bytes, 0 for none.
std::uint8_t calculate_xor_checksum(std::span<const std::uint8_t> bytes);

}  // namespace orbix::sta8100
