#include "knowledge.h"

namespace orbix::campaign {

namespace {

constexpr const char* response =
    "a response is awaited without a limit: the boot loader may be erasing";
bool disturbed(const Record& record, const std::string& /*what*/) {
    return !record.faults.empty();
}

bool block_refused(const Record& record, const std::string& /*what*/) {
    return record.output.find("error resend -- ") != std::string::npos;
}

/// Bytes that come twice, or from nowhere, on the way to the tool, or that turn into others.
bool has_spare_answers(const Record& record, const std::string& /*what*/) {
    return record.has_fault(sim::FaultKind::duplicate, sim::Direction::to_host) ||
           record.has_fault(sim::FaultKind::noise, sim::Direction::to_host) ||
           record.has_fault(sim::FaultKind::flip, sim::Direction::to_host);
}

constexpr const char* skipped =
    "a block that was refused is not sent again: the next one takes its place";
constexpr const char* byte_sum =
    "a packet is checked by the sum of its bytes: two bits that are turned opposite ways go unseen";
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
    {"AG3335", "old-agent", Check::holds_image, disturbed, byte_sum,
     "CampaignExceptions.ByteSumOverAPacketMissesTwoTurnedBits"},
    {"AG3335", "old-readback", Check::holds_image, disturbed, byte_sum,
     "CampaignExceptions.ByteSumOverAPacketMissesTwoTurnedBits"},
    {"monitor1", "*", Check::holds_image, disturbed, refused,
     "Monitor.StatusAndLengthOfAResponseAreNotLookedAt"},
    {"monitor2", "*", Check::holds_image, disturbed, refused,
     "Monitor.StatusAndLengthOfAResponseAreNotLookedAt"},
    {"EVB", "*", Check::holds_image, disturbed, refused, "Evb.StatusOfAResponseIsNotLookedAt"},
    {"STA8089", "*", Check::holds_image, has_spare_answers, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"STA8100", "*", Check::holds_image, has_spare_answers, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"STA9100", "*", Check::holds_image, has_spare_answers, not_numbered,
     "CampaignExceptions.SpareAcknowledgementStandsInForTheVerdict"},
    {"RX7040", "download", Check::holds_image, disturbed,
     "the end of an XMODEM transfer is one byte without a check: one inside a damaged block ends "
     "it",
     "CampaignExceptions.XmodemEndsAtAByteOfADamagedBlock"},
    {"ZPX710P", "DL", Check::holds_image, disturbed,
     "the sum over a packet is an XOR: two bits turned in the same place go unseen",
     "CampaignExceptions.XorOverAPacketMissesTwoTurnedBits"},
};

}  // namespace orbix::campaign
