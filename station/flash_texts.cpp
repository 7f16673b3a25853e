// The lines of orbix_flash that tell where a run is, and why it failed: tables only.
#include "flash_lines.h"

namespace orbix::station {

namespace {

constexpr std::string_view press_reset = "press reset";
constexpr std::string_view power_up = "power up the module";
constexpr std::string_view reset_or_power = "press reset or power up the module";
constexpr std::string_view boot_pin = "set the boot pin and power up the module";
constexpr std::string_view boot_rom = "start the chip in its boot ROM";
constexpr std::string_view rom_loader = "start the controller in its ROM boot loader";
constexpr std::string_view app_loader = "start the application processor in its boot loader";
constexpr std::string_view restart = "the running module must answer; check -b";

constexpr ContextText contexts[] = {
    {"Need soft reset", "soft reset"},
    {"ZPX710P entry function", "ZPX710P"},
    {" Enter download", "download"},
    {" Enter upgrade", "hand at the start"},
    {" Enter GNSS_EVB_upgrade", "hand at the start"},
    {"Manual reset", "manual reset"},
    {"Auto-reset finish...", "automatic reset"},
    {"TS90B:download", "boot ROM"},
    {"Mode: boot", "boot ROM"},
    {"readback", "readback"},
};

constexpr StepText steps[] = {
    // What the tool asks for in so many words.
    {"Handshake... (Press the module reset button!)", Phase::sync, false, press_reset, {}},
    {"Please power up the module within *", Phase::sync, false, power_up, {}},

    // Where it asks silently; the mode is told by a line before.
    {"Connect...", Phase::connect, false, {}, "hand at the start"},
    {"Connect...", Phase::connect, false, rom_loader, "ZPX710P"},
    {"Synchronize...", Phase::sync, false, press_reset, "download"},
    {"Synchronize...", Phase::sync, false, boot_rom, "boot ROM"},
    {"Synchronize...", Phase::sync, false, press_reset, "manual reset"},
    {"Synchronize...", Phase::sync, false, {}, "automatic reset"},
    {"Synchronize...", Phase::sync, false, reset_or_power, "hand at the start"},
    {"Waiting for Sync...", Phase::sync, false, reset_or_power, {}},
    {"Enter Boot Mode...", Phase::sync, false, boot_pin, {}},
    {"Readyding receive commands....", Phase::sync, false, app_loader, {}},
    {" DownLoad_Dir:*", Phase::connect, false, restart, "soft reset"},
    {" readback_num: *", Phase::connect, false, restart, "soft reset"},

    {"Connect...", Phase::connect, false, {}, {}},
    {"Synchronize...", Phase::sync, false, {}, {}},
    {"soft reset success", Phase::connect, false, {}, {}},
    {"Auto-reset finish...", Phase::sync, true, {}, {}},
    {"Auto-reset*", Phase::sync, false, {}, {}},

    // A readback has no line of its own for what follows these.
    {"Sync Da...", Phase::write, true, {}, "readback"},
    {"Sync New Da...", Phase::write, true, {}, "readback"},
    {"Sync with Da...", Phase::write, true, {}, "readback"},

    // The module has answered.
    {"Disable WDT...", Phase::sync, true, {}, {}},
    {"Modify Baud Rate...", Phase::sync, true, {}, {}},
    {"Change baudrate to *", Phase::sync, true, {}, {}},
    {"Send Da file...", Phase::sync, true, {}, {}},
    {"Jump to Da...", Phase::sync, true, {}, {}},
    {"Sync Da...", Phase::sync, true, {}, {}},
    {"Sync New Da...", Phase::sync, true, {}, {}},
    {"Sync with Da...", Phase::sync, true, {}, {}},
    {"Sync success!", Phase::sync, true, {}, {}},
    {"Boot Version:*", Phase::sync, true, {}, {}},
    {"Send loader...", Phase::sync, true, {}, {}},
    {"Handshake success", Phase::sync, true, {}, {}},
    {"ZPX_Upgrade_Sync --- rsp1 = *", Phase::sync, true, {}, {}},
    {"ZPX_Upgrade_Sync VNC success *", Phase::sync, true, {}, {}},
    {"Check baudrate...", Phase::sync, true, {}, {}},
    {"Change baudrate...", Phase::sync, true, {}, {}},
    {"Wait Host Ready...", Phase::sync, true, {}, {}},
    {"Sending preamble...", Phase::sync, true, {}, {}},
    {"Sending bootloader...", Phase::sync, true, {}, {}},
    {"Sending binary info...", Phase::sync, true, {}, {}},
    {"Initializing bootloader....", Phase::sync, true, {}, {}},
    {"Wait for device initialization...", Phase::sync, true, {}, {}},
    {"Write options.", Phase::sync, true, {}, {}},
    {"Get version....", Phase::sync, true, {}, {}},
    {"Get chip ID....", Phase::sync, true, {}, {}},
    {"Read Memory...", Phase::sync, true, {}, {}},
    {"Sets reference clock *", Phase::sync, true, {}, {}},
    {"Queries SPI flash ID or status...", Phase::sync, true, {}, {}},
    {"Sets the UART port *", Phase::sync, false, {}, {}},
    {"Enter Upgrade Mode...", Phase::sync, false, {}, {}},
    {"Send SOH PKG...", Phase::sync, true, {}, {}},
    {"Unable to find nmea presence, *", Phase::sync, false, {}, {}},

    {"Format flash...", Phase::erase, true, {}, {}},
    {"Send Firmware Info success!", Phase::erase, true, {}, {}},
    {"Start to EraseAPP...", Phase::erase, true, {}, {}},
    {"Send * Firmware Information...", Phase::erase, true, {}, {}},
    {"Send Firmware Information...", Phase::erase, true, {}, {}},
    {"Send Firmware Address...", Phase::erase, true, {}, {}},
    {"Send Firmware Upgrade Command...", Phase::erase, true, {}, {}},
    {"Erase Flash...", Phase::erase, true, {}, {}},
    {"Erase Code...", Phase::erase, true, {}, {}},
    {"Erase NVM...", Phase::erase, true, {}, {}},
    {"Erase * pages", Phase::erase, true, {}, {}},
    {"Erasing program area...", Phase::erase, true, {}, {}},
    {"Erasing NVM area...", Phase::erase, true, {}, {}},
    {"Write Unprotect...", Phase::erase, true, {}, {}},
    {"Extended Erase Memory...", Phase::erase, true, {}, {}},

    {"Erase Flash success!", Phase::write, true, {}, {}},
    {"will send * to module", Phase::write, true, {}, {}},
    {"Send Firmware...", Phase::write, true, {}, {}},
    {"Send * Firmware...", Phase::write, true, {}, {}},
    {"Sending Firmware...", Phase::write, true, {}, {}},
    {"Sends firmware...", Phase::write, true, {}, {}},
    {"Send STX PKG...", Phase::write, true, {}, {}},
    {"Write Memory...", Phase::write, true, {}, {}},
    {"bytes_read = *", Phase::write, true, {}, {}},
    {"readback flash *", Phase::write, true, {}, {}},
    {"read num * success", Phase::write, true, {}, {}},

    {" Checking CRC...", Phase::verify, true, {}, {}},
    {"Upgrade complete", Phase::verify, true, {}, {}},
    {"Upgrade success!", Phase::verify, true, {}, {}},
    {"Download success", Phase::verify, true, {}, {}},
    {"boot: success", Phase::verify, true, {}, {}},
    {"upgrade: success", Phase::verify, true, {}, {}},
    {" Flash upgrade successfully", Phase::verify, true, {}, {}},
};

constexpr ErrorText errors[] = {
    // The command line.
    {"*lease input parameters correctly*", Meaning::usage},
    {"Invalid parameter!", Meaning::usage},
    {"Ex: *", Meaning::usage},
    {"Parameter call error.", Meaning::usage},
    {"unknow flash *, FAIL", Meaning::usage},
    {"Invalid upgrade mode*", Meaning::usage},
    {"Invalid reset mode*", Meaning::usage},
    {"baud_rate error", Meaning::usage},
    {"*Para maybe wrong, FAIL", Meaning::usage},
    {"Unknown module model: *", Meaning::usage},
    {"Please input corresponding number of *", Meaning::usage},
    {"input readback *", Meaning::usage},
    {"readback_*overthan MAX*", Meaning::usage},
    {"readback_addr error *", Meaning::usage},
    {"readback_size error *", Meaning::usage},
    {"flash_addr or flash_size is error *", Meaning::usage},
    {"start_addr or read_len is error *", Meaning::usage},
    {"readback_flash param error,*", Meaning::usage},

    // The port.
    {"Error opening *: *", Meaning::port},
    {"Fail to open *", Meaning::port},
    {"Open & config the serial failed", Meaning::port},
    {"unknow dev *", Meaning::port},
    {"Unable to obtain serial port configuration", Meaning::port},
    {"Unable to set serial port configuration", Meaning::port},
    {"Config the serial even parity failed", Meaning::port},
    {"Kv_Upgrade_ReceiveFrame RecvBuf == NULL or UartFd is invalid", Meaning::port},

    // Files.
    {"*ail to access *", Meaning::file},
    {"* fail to fopen(*", Meaning::file},
    {"* non-existent", Meaning::file},
    {"* lists more than * images", Meaning::file},
    {"Da file size error, *", Meaning::file},
    {"read Da file(*) fail", Meaning::file},
    {"read last Da file(*) fail", Meaning::file},
    {"send Da file(*) fail", Meaning::file},
    {"open * error(*) (*)", Meaning::file},
    {"fread * error(*) (*)", Meaning::file},
    {"fseek * error(*) (*)", Meaning::file},
    {"Firmware * open failed.", Meaning::file},
    {"The file does not exist!", Meaning::file},
    {"file path err,*", Meaning::file},
    {"*cyfm file is incorrect", Meaning::file},
    {"*md5 check is incorrect", Meaning::file},
    {"*failed,err: 0x103", Meaning::file},

    // No answer to the first call.
    {"*Hand Shake Timeout:*", Meaning::no_sync},
    {"Handshake Time out!", Meaning::no_sync},
    {"Sync failed!", Meaning::no_sync},
    {"Sync the serial failed,err: *", Meaning::no_sync},
    {"SYNC time out * ms", Meaning::no_sync},
    {"Auto-reset fail *", Meaning::no_sync},
    {"Failed to enter boot mode.", Meaning::broke_off},
    {"Failed to switch baud rate to *", Meaning::remark},
    {"Handshake failed", Meaning::broke_off},
    {"Handshake recv * not * failed", Meaning::broke_off},

    // The module says no.
    {"* serial_read brom_status * fail", Meaning::refused},
    {"status_response * error resend -- *", Meaning::refused},
    {"fw_start_addr_send * error resend -- *", Meaning::refused},
    {"send fw data fail", Meaning::refused},
    {"* serial_read 0x2104 fail ff*", Meaning::broke_off},
    {"* serial_read 0x2104 fail *", Meaning::refused},
    {"* serial_read flash_*fail", Meaning::refused},
    {"Format flash fail----*", Meaning::refused},
    {"slave msg slave state is *", Meaning::refused},
    {"An error occurs at the module end.", Meaning::refused},
    {"ACK not expected [*]", Meaning::refused},
    {"Received NAK", Meaning::refused},
    {"NAK", Meaning::refused},
    {"*update fail, receive: 15", Meaning::refused},
    {"*update fail, receive: 18", Meaning::refused},
    {"Download failed,err: 0x108", Meaning::refused},
    {"*failed,err: 0xFFFFFF33", Meaning::refused},
    {"Send bin failed,err: 0x107", Meaning::broke_off},
    {"*failed,err: 0x107", Meaning::refused},
    {"Send firmware failed,err: 0x108", Meaning::refused},
    {"ERRORCODE ERROR *", Meaning::refused},
    {"Unknow error.", Meaning::refused},
    {"CRC32 checksum error.", Meaning::refused},
    {"Timeout.", Meaning::refused},
    {"Unsupported message.", Meaning::refused},
    {"Message package error.", Meaning::refused},
    {"Message fm size error.", Meaning::refused},
    {"GNSS * error.", Meaning::refused},
    {"APP firmware * error.", Meaning::refused},

    // Silence, or nonsense.
    {"local_check_sum = * != read_check_sum * check sum fail", Meaning::broke_off},
    {"* serial_read * fail*", Meaning::broke_off},
    {"* serial_write * fail*", Meaning::broke_off},
    {"Sync New Da * fail", Meaning::broke_off},
    {"format fail:", Meaning::broke_off},
    {"format Send last 0x5a fail:", Meaning::broke_off},
    {"format:* --- value*", Meaning::broke_off},
    {"Read BCD-Error", Meaning::broke_off},
    {"Read format progress-Error", Meaning::broke_off},
    {"readback_flash * error *", Meaning::broke_off},
    {"readback_flash fail *", Meaning::broke_off},
    {"slave msg * error *", Meaning::broke_off},
    {"slave msg *", Meaning::broke_off},
    {"ACK time out * ms", Meaning::broke_off},
    {"timeout.", Meaning::broke_off},
    {"wrong crc", Meaning::broke_off},
    {"Data transmission error: *", Meaning::broke_off},
    {"*update fail", Meaning::broke_off},
    {"*update fail, receive: *", Meaning::broke_off},
    {"Msg * GET *", Meaning::broke_off},
    {"Payload* GET*", Meaning::broke_off},
    {"VNC_HEADER* ERROR *", Meaning::broke_off},
    {"* TYPE ERROR *", Meaning::broke_off},
    {"PayloadLen ERROR *", Meaning::broke_off},
    {"CHECKSUM ERROR *", Meaning::broke_off},

    // The step or the driver, behind the line that tells more.
    {"*Exceeding the maximum number of retry attempts!", Meaning::remark},
    {"* --- Kv_Upgrade_Decode* failed errro code *", Meaning::remark},
    {"* failed,err: *", Meaning::remark},
    {"* failed.Upgrade failed.", Meaning::remark},
    {"* failed, upgrade failed.", Meaning::remark},
    {"* failed!", Meaning::remark},
    {"Send cmd * failed", Meaning::remark},
    {"Send addr data failed", Meaning::remark},
    {"Send data failed", Meaning::remark},
    {"Send FW failed", Meaning::remark},
    {"Erase page * failed", Meaning::remark},
    {"Erase failed", Meaning::remark},
    {"* error", Meaning::remark},
    {"* send_Da_file error *", Meaning::remark},
};

}  // namespace

std::span<const ContextText> context_texts() {
    return contexts;
}

std::span<const StepText> step_texts() {
    return steps;
}

std::span<const ErrorText> error_texts() {
    return errors;
}

}  // namespace orbix::station
