#include "knowledge.h"

#include <algorithm>
#include <numeric>

#include "app_loader.h"
#include "checksums.h"
#include "sta8100_module.h"
#include "teseo_loader.h"
#include "zpx710p.h"

namespace orbix::campaign {

namespace {

/// The acknowledgement of the loaders in the ROM of STM32 controllers.
constexpr std::uint8_t stm32_ack = 0x79;

constexpr const char* response =
    "a response is awaited without a limit: the boot loader may be erasing";

bool block_refused(const Evidence& evidence) {
    return evidence.record.output.find("error resend -- ") != std::string::npos;
}

/// The boot loader has said no to a command.
bool command_refused(const Evidence& evidence) {
    const auto* const loader = dynamic_cast<const sim::AppLoader*>(evidence.rig.module.get());
    return loader != nullptr && loader->refusals() > 0;
}

/// An acknowledgement has reached the tool that the module did not send.
template <std::uint8_t acknowledgement>
bool acknowledgement_made_up(const Evidence& evidence) {
    const auto& strikes = evidence.record.strikes;
    return std::any_of(strikes.begin(), strikes.end(), [](const sim::Strike& strike) {
        return strike.direction == sim::Direction::to_host && strike.became == acknowledgement &&
               (strike.kind == sim::FaultKind::duplicate || strike.was != acknowledgement);
    });
}

/// Whether each piece of what a run should have brought about, and of what it did, is the same to a
/// module that looks at the pieces by `checksum` alone.
template <typename Checksum>
bool looks_right(const Evidence& evidence, std::size_t piece, Checksum checksum) {
    const auto padded = [piece](std::size_t size) { return (size + piece - 1) / piece * piece; };
    const auto looks_same = [&](Bytes right, Bytes found) {
        right.resize(padded(right.size()), 0xFF);
        found.resize(right.size(), 0xFF);
        for (std::size_t at = 0; at < right.size(); at += piece) {
            if (checksum(std::span(right).subspan(at, piece)) !=
                checksum(std::span(found).subspan(at, piece))) {
                return false;
            }
        }
        return true;
    };
    const auto& held = evidence.rig.held;
    const auto& written = evidence.rig.written;
    return std::all_of(held.begin(), held.end(),
                       [&](const Held& part) {
                           const auto cells =
                               part.flash->read(part.address, padded(part.content.size()));
                           return looks_same(part.content, {cells.begin(), cells.end()});
                       }) &&
           std::all_of(written.begin(), written.end(), [&](const Written& file) {
               return looks_same(file.content, sim::read_file(file.path));
           });
}

std::uint32_t byte_sum_of(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint32_t{0});
}

bool byte_sums_are_right(const Evidence& evidence) {
    return looks_right(evidence, 4096, byte_sum_of);
}

bool fletcher_sums_are_right(const Evidence& evidence) {
    return looks_right(evidence, 1024, sim::fletcher);
}

/// All is right but the last block, which was not written.
bool last_block_is_missing(const Evidence& evidence) {
    constexpr std::size_t block = 1024;
    const Held& held = evidence.rig.held.front();
    const auto right = static_cast<std::ptrdiff_t>((held.content.size() - 1) / block * block);
    const auto cells = held.flash->read(held.address, held.content.size());
    return std::equal(cells.begin(), cells.begin() + right, held.content.begin()) &&
           std::all_of(cells.begin() + right, cells.end(),
                       [](std::uint8_t cell) { return cell == 0xFF; });
}

const sim::Zpx710pRomLoader& rom_loader(const Evidence& evidence) {
    return dynamic_cast<const sim::Zpx710pRomLoader&>(*evidence.rig.module);
}

/// A packet that was hit on its way has passed the check.
bool any_struck(const std::vector<sim::Span>& packets, const std::vector<sim::Strike>& strikes) {
    return std::any_of(strikes.begin(), strikes.end(), [&](const sim::Strike& strike) {
        return strike.direction == sim::Direction::to_module &&
               strike.kind != sim::FaultKind::delay &&
               std::any_of(packets.begin(), packets.end(), [&](const auto& packet) {
                   return strike.time >= packet.begin && strike.time <= packet.end;
               });
    });
}

bool struck_packet_accepted(const Evidence& evidence) {
    return any_struck(rom_loader(evidence).accepted_packets(), evidence.record.strikes);
}

bool struck_app_block_accepted(const Evidence& evidence) {
    auto& module = dynamic_cast<sim::Sta8100Module&>(*evidence.rig.module);
    return any_struck(module.app().accepted_packets(), evidence.record.strikes);
}

/// The tool has repeated an address that the module had taken, and the module took it for data.
bool address_taken_for_data(const Evidence& evidence) {
    return rom_loader(evidence).took_address_for_data();
}

/// The module has lost its power, and was synchronised once more by what it heard then.
bool synchronised_in_the_midst(const Evidence& evidence) {
    const auto& strikes = evidence.record.strikes;
    const auto cycle = std::find_if(strikes.begin(), strikes.end(), [](const auto& strike) {
        return strike.kind == sim::FaultKind::power_cycle;
    });
    return cycle != strikes.end() && rom_loader(evidence).synchronisations() > 1;
}

constexpr const char* skipped =
    "a block that was refused is not sent again: the next one takes its place";
constexpr const char* byte_sum =
    "a packet is checked by the sum of its bytes: two bits that are turned opposite ways go unseen";
constexpr const char* fletcher_sum =
    "a block is checked by two sums: three bits in a row that are turned in turn go unseen";
constexpr const char* one_byte_of_checksum =
    "a packet has one byte of checksum, the XOR of the others, and no end of its own";
constexpr const char* refused = "the status of a response is not looked at: a refusal will do";
constexpr const char* not_numbered =
    "acknowledgements are single bytes without a number: one too many stands in for a later one";

}  // namespace

const std::vector<UnlimitedWait> unlimited_waits{
    {"AG3335", "*", " DownLoad_Dir:", "a running module is asked to reboot until it answers"},
    {"AG3335", "*", " readback_num: ", "a running module is asked to reboot until it answers"},
    {"AG3335", "old-agent", "[PROGRESS] ", "an agent that is silent is asked again for its erase"},
    {"AG3335", "old-readback", "[SPEED] ", "a packet is awaited until it is complete"},

    {"AG3352", "upgrade", "[INFO] Sync success!", response},
    {"AG3352", "upgrade", "[INFO] File CRC32: ", response},
    {"AG3352", "upgrade", "[INFO] Start to EraseAPP...", response},
    {"AG3352", "upgrade", "[SPEED] ", response},
    {"AG3352", "upgrade", " Retry count: ", response},

    {"ZPX710P", "DL", "[INFO] Connect...", "the module may not be switched on yet"},
    {"ZPX710P", "DL", "[ERROR] Handshake recv ", "what is no answer counts, silence does not"},
    {"ZPX710P", "*", "[INFO] ZPX_Upgrade_Sync --- rsp2", response},
    {"ZPX710P", "*", "[INFO] File FW_addr: ", response},
    {"ZPX710P", "*", "[SPEED] ", response},
    {"ZPX710P", "*", " Retry count: ", response},

    {"RX7040", "upgrade", "[INFO] Synchronize...", response},
    {"RX7040", "upgrade", "[INFO] File Size: ", response},
    {"RX7040", "upgrade", "[SPEED] ", response},
    {"RX7040", "upgrade", " Retry count: ", response},
    {"RX7040", "download", "[SPEED] ", "the XMODEM receiver may be erasing"},
    {"RX7040", "download", " Unreceived ACK", "the end is told until it is acknowledged"},

    {"monitor1", "*", "[INFO] File Size: ", response},
    {"monitor1", "*", "[INFO] Erase Flash...", response},
    {"monitor1", "*", "[SPEED] ", response},
    {"monitor2", "*", "[INFO] File Size: ", response},
    {"monitor2", "*", "[INFO] Erase Flash...", response},
    {"monitor2", "*", "[SPEED] ", response},
    {"EVB", "*", "[INFO] File Size: ", response},
    {"EVB", "*", "[SPEED] ", response},
};

const std::vector<SilentStep> silent_steps{
    {"HD8xx0", "boot", "[INFO] Queries SPI flash ID or status...",
     "a reply of the set-up is absent"},
    {"HD8xx0", "boot", "[SPEED] ", "the last blocks are sent once, without a line"},
    {"HD8xx0", "user", "[INFO] Enter Upgrade Mode...", "the receiver does not ask for a block"},
    {"HD8xx0", "user", "[INFO] Send SOH PKG...", "the batch's first block is not taken"},
    {"ZPX710P", "*", " [WARN] Get boot ver failed", "the line is a warning, and the run ends"},
};

const std::vector<Exception> exceptions{
    {"AG3335", "new-agent", Check::holds_image, block_refused, skipped,
     "Ag3335NewWrite.RefusedBlockIsSkippedAndItsAddressKept"},
    {"AG3352", "download", Check::holds_image, block_refused, skipped,
     "Ag3352Download.RefusedBlocksAreSkipped"},
    {"AG3335", "old-agent", Check::holds_image, byte_sums_are_right, byte_sum,
     "CampaignExceptions.ByteSumOverAPacketMissesTwoTurnedBits"},
    {"AG3335", "old-readback", Check::holds_image, byte_sums_are_right, byte_sum,
     "CampaignExceptions.ByteSumOverAPacketMissesTwoTurnedBits"},
    {"monitor1", "*", Check::holds_image, command_refused, refused,
     "Monitor.StatusAndLengthOfAResponseAreNotLookedAt"},
    {"monitor2", "*", Check::holds_image, command_refused, refused,
     "Monitor.StatusAndLengthOfAResponseAreNotLookedAt"},
    {"EVB", "*", Check::holds_image, command_refused, refused,
     "Evb.StatusOfAResponseIsNotLookedAt"},
    {"HD8xx0", "boot", Check::holds_image, fletcher_sums_are_right, fletcher_sum,
     "CampaignExceptions.FletcherSumsOverABlockMissThreeTurnedBits"},
    {"STA8089", "*", Check::holds_image, acknowledgement_made_up<sim::teseo_ack>, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"STA8100", "*", Check::holds_image, acknowledgement_made_up<sim::teseo_ack>, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"STA9100", "*", Check::holds_image, acknowledgement_made_up<sim::teseo_ack>, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"STA8100", "app_boot", Check::holds_image, acknowledgement_made_up<stm32_ack>, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForAnAppBlock"},
    {"STA8100", "app_boot", Check::holds_image, struck_app_block_accepted, one_byte_of_checksum,
     "CampaignExceptions.XorOverAnAppBlockMissesTwoTurnedBits"},
    {"ZPX710P", "DL", Check::holds_image, acknowledgement_made_up<stm32_ack>, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForABlock"},
    {"ZPX710P", "DL", Check::holds_image, struck_packet_accepted, one_byte_of_checksum,
     "CampaignExceptions.PacketThatLostAByteIsFilledUpByItsRepetition"},
    {"ZPX710P", "DL", Check::holds_image, address_taken_for_data,
     "a packet is repeated when its answer came wrong: the module takes it for the next one",
     "CampaignExceptions.RepeatedAddressIsTakenForData"},
    {"ZPX710P", "DL", Check::holds_image, synchronised_in_the_midst,
     "behind a power cycle the ROM loader takes a byte of the image for its call and acknowledges",
     "CampaignExceptions.ByteOfTheImageSynchronisesARestartedModule"},
    {"RX7040", "download", Check::holds_image, last_block_is_missing,
     "the end of an XMODEM transfer is one byte without a check: a block that loses its head may "
     "begin with it",
     "CampaignExceptions.XmodemEndsAtAByteOfADamagedBlock"},
};

}  // namespace orbix::campaign
